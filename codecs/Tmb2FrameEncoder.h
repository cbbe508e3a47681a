#pragma once

#include <cstddef>
#include <cstdint>

#include "codecs/AlignedBuffer.h"
#include "codecs/ColorConvert.h"
#include "codecs/Tmb2.h"

namespace kestrium::tmb2 {

// The whole job of one TMB2 frame: colour conversion to three planes, then per
// plane the residual pass with its counts and the coder. Owns the buffers it
// needs for frames of one size, allocated once; encoding allocates nothing.
// One per thread.
class FrameEncoder {
 public:
  FrameEncoder(uint32_t width, uint32_t height, CpuFlags flags = processCpuFlags());

  // False if a buffer could not be allocated.
  bool valid() const { return valid_; }

  // Encodes a frame of width x height pixels of 3 bytes, rows packed, converted
  // as they stand (the first byte of a pixel is the kernels' R). Returns
  // 12 + SY + SU + SV, or 0 when the frame would not fit in capacity bytes.
  size_t encode(const uint8_t* frame, uint8_t* out, size_t capacity);

  // The coding half alone, on planes already laid out as frameLayout() says.
  size_t encodePlanes(const uint8_t* planes, uint8_t* out, size_t capacity);

  // The three planes of the last frame, laid out as frameLayout() says. Where the
  // width or height is odd, the last column or row of the luma plane is never
  // written and stays 0.
  const uint8_t* planes() const { return reinterpret_cast<const uint8_t*>(planes_.data()); }
  const FrameLayout& layout() const { return layout_; }

 private:
  uint32_t width_;
  uint32_t height_;
  FrameLayout layout_;
  ColorConvertKernels convert_;
  VerticalResiduals residualKernel_;
  AlignedBuffer planes_;
  AlignedBuffer residuals_;
  AlignedBuffer scratch_;
  bool valid_ = false;
};

}  // namespace kestrium::tmb2
