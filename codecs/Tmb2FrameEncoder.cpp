#include "codecs/Tmb2FrameEncoder.h"

#include <cstring>

namespace kestrium::tmb2 {

FrameEncoder::FrameEncoder(uint32_t width, uint32_t height, CpuFlags flags)
    : width_(width),
      height_(height),
      layout_(frameLayout(width, height)),
      convert_(colorConvertKernels(flags)),
      residualKernel_(verticalResidualsKernel(flags)) {
  const size_t pixels = size_t{width} * height;
  // Each plane's residuals go through the same buffer in turn; chroma N can reach
  // past its own plane into what the luma plane left there, so it holds a whole
  // luma plane.
  planes_ = AlignedBuffer(layout_.planesSize + AlignedBuffer::kAlignment);
  residuals_ = AlignedBuffer(pixels + AlignedBuffer::kAlignment);
  scratch_ = AlignedBuffer(sizeof(CoderScratch));
  valid_ = !planes_.empty() && !residuals_.empty() && !scratch_.empty();
  // Bytes the conversion never writes (the last odd column and row) are coded as
  // they stand: zero them once, so that every frame codes the same.
  if (valid_) {
    std::memset(planes_.data(), 0, planes_.size());
    std::memset(residuals_.data(), 0, residuals_.size());
  }
}

size_t FrameEncoder::encode(const uint8_t* frame, uint8_t* out, size_t capacity) {
  if (!valid_) return 0;
  auto* planes = reinterpret_cast<uint8_t*>(planes_.data());
  if (width_ != 0 && height_ != 0) {
    uint8_t* const targets[3] = {planes + layout_.planes[0].offset, planes + layout_.planes[1].offset,
                                 planes + layout_.planes[2].offset};
    const ptrdiff_t steps[3] = {static_cast<ptrdiff_t>(width_), static_cast<ptrdiff_t>(width_ / 2),
                                static_cast<ptrdiff_t>(width_ / 2)};
    rgbToYuv420Stepped(convert_, frame, 3 * static_cast<ptrdiff_t>(width_), targets, steps,
                       static_cast<int32_t>(width_), static_cast<int32_t>(height_));
  }
  return encodePlanes(planes, out, capacity);
}

size_t FrameEncoder::encodePlanes(const uint8_t* planes, uint8_t* out, size_t capacity) {
  if (!valid_ || capacity < kFrameHeaderSize) return 0;
  auto* residuals = reinterpret_cast<uint8_t*>(residuals_.data());
  auto* scratch = reinterpret_cast<CoderScratch*>(scratch_.data());
  size_t at = kFrameHeaderSize;
  for (int p = 0; p < 3; ++p) {
    const PlaneLayout& pl = layout_.planes[p];
    int32_t counts[256];
    initCounts(counts);
    planeResiduals(planes + pl.offset, pl.width, pl.height, residuals, counts, residualKernel_);
    const size_t size = encodePlane(residuals, pl.count, out + at, capacity - at, counts, scratch);
    if (size == 0 && pl.count != 0) return 0;
    const uint32_t size32 = static_cast<uint32_t>(size);
    std::memcpy(out + 4 * p, &size32, 4);
    at += size;
  }
  return at;
}

}  // namespace kestrium::tmb2
