// The TMB2 decoder on frames it did not make: whatever the bytes, it decodes
// or refuses, and never reads or writes outside its buffers.
//
// Input: the picture's width and height (two little-endian 16-bit words, each
// taken modulo 512, plus one), then the frame.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "codecs/Tmb2.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  const uint32_t width = (data[0] | data[1] << 8) % 512 + 1;
  const uint32_t height = (data[2] | data[3] << 8) % 512 + 1;
  const kestrium::tmb2::FrameLayout layout = kestrium::tmb2::frameLayout(width, height);
  // Exactly the sizes the decoder is promised, so that the sanitizer sees a
  // write one byte past them.
  std::vector<uint8_t> planes(layout.planesSize);
  std::vector<uint8_t> residuals(size_t{width} * height);
  std::string error;
  kestrium::tmb2::decodeFrame(data + 4, size - 4, width, height, planes.data(), residuals.data(), error);
  return 0;
}
