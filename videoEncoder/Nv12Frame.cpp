#include "videoEncoder/Nv12Frame.h"

#include <cstring>

#include "codecs/ColorConvert.h"

namespace kestrium {

namespace {

// Rows start on this boundary, where the vector kernels and the libraries'
// own copies are fastest.
constexpr ptrdiff_t kRowAlignment = 64;

}  // namespace

bool Nv12Frame::allocate(int32_t width, int32_t height) {
  width_ = width;
  height_ = height;
  picture_.width = (width + 1) & ~1;
  picture_.height = (height + 1) & ~1;
  picture_.lumaStep = (picture_.width + kRowAlignment - 1) / kRowAlignment * kRowAlignment;
  picture_.chromaStep = picture_.lumaStep;
  const size_t lumaBytes = static_cast<size_t>(picture_.lumaStep) * picture_.height;
  planes_ = AlignedBuffer(lumaBytes + lumaBytes / 2);
  if (planes_.empty()) return false;
  // Touched once here, so that the first frame does not pay for the pages.
  std::memset(planes_.data(), 0, planes_.size());
  picture_.luma = reinterpret_cast<uint8_t*>(planes_.data());
  picture_.chroma = picture_.luma + lumaBytes;
  return true;
}

void Nv12Frame::convertFrom(const uint8_t* rgb) {
  rgbToNv12Stepped(rgb, ptrdiff_t{width_} * 3, picture_.luma, picture_.lumaStep, picture_.chroma, picture_.chromaStep,
                   width_, height_);
}

}  // namespace kestrium
