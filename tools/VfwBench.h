#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrium::tools {

struct VfwBenchResult {
  bool ok = false;
  double seconds = 0;
  uint64_t bytes = 0;   // of the frames the encoded slot got
  uint64_t frames = 0;  // frames that came out with bytes in them
};

// The whole job of "vfw" on one capture, on the recorder's thread as the server
// does it: each frame (rows bottom-up, blue first: the order the encoder asks
// for) re-spaced to bitmap rows, compressed by the installed codec of that
// four-character code, and taken out of the encoded slot.
VfwBenchResult runVfw(uint32_t fourcc, uint32_t width, uint32_t height, const uint8_t* frames, size_t inputFrames,
                      size_t total);

}  // namespace kestrium::tools
