#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "codecs/jpeg/JPGOutput.h"

namespace kestrium {

// The raster a frame is encoded from.
struct JpegSource {
  const std::byte* data = nullptr;
  int width = 0;
  int height = 0;
  int lineStep = 0;  // bytes from one row to the next
  int channels = 3;
  int colorCode = 3;  // 3: blue first
  int bitsPerSample = 8;
  int padding = 0;
};

// Baseline JPEG of a three-channel 8-bit raster, on libjpeg-turbo: JFIF 1.02,
// YCbCr with component ids 0, 1, 2, the standard tables scaled by quality,
// 4:4:4 or 2x2 chroma, no restart markers. Made once per worker: parameters and
// preparation run once, then header and data once per frame.
class CJPEGEncoder {
 public:
  enum Result : int {
    kOk = 0,
    kLibraryFailed = -2,
    kBadParameter = -3,
    kBufferOverflow = -4,
    kSinkShort = -5,
    kNoMemory = -6,
  };
  static constexpr int kSampling444 = 0;
  static constexpr int kSampling2x2 = 3;
  static constexpr size_t kOutputBuffer = 4096;

  CJPEGEncoder();
  ~CJPEGEncoder();
  CJPEGEncoder(const CJPEGEncoder&) = delete;
  CJPEGEncoder& operator=(const CJPEGEncoder&) = delete;

  // fullRange 0 squeezes luma to 16..235 after the conversion; chroma stays.
  int SetSource(const JpegSource& source, int fullRange);
  // sampling 0 (4:4:4) or 3 (2x2); quality 1 to 100.
  int SetParameters(int sampling, int quality);
  // Buffers, once; sink is where the bytes go.
  int Prepare(CBaseStreamOutput* sink);
  // The markers up to the scan.
  int WriteHeader();
  // The scan and EOI, then whatever is buffered goes to the sink.
  int WriteData();

  // Room for the largest frame of that size and sampling: two bytes for every
  // sample of the planes padded to whole MCUs, and the markers. The worst
  // pictures at quality 100 stay below that: with 4:4:4, pure noise takes 1.4
  // bytes a sample and noise of black and white 1.6, which is more than
  // W x H x 4 bytes for the whole frame.
  static uint64_t MaxOutputSize(int width, int height, int sampling);

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace kestrium
