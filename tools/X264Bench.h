#pragma once

#include <cstddef>
#include <cstdint>

#include "videoEncoder/OptionList.h"

namespace kestrium::tools {

struct X264BenchResult {
  bool ok = false;
  double seconds = 0;
  uint64_t bytes = 0;   // of the length-prefixed frames, as the encoded slot would get them
  uint64_t frames = 0;  // coded frames that came out
};

// The whole job of "h264.x264" on one stream, as its encoder thread does it:
// each rgb24 frame (rows top-down, red first: the order the encoder asks for)
// converted to NV12, coded, and rewritten with length prefixes; the delayed
// frames drained at the end. options are the encoder's (width, height, threads,
// fps, profile, bitrate, target_usage, low_latency). The libx264 options string
// goes to standard error, to compare with a peer's.
X264BenchResult runX264(const OptionList& options, const uint8_t* frames, size_t inputFrames, size_t total);

}  // namespace kestrium::tools
