#pragma once

#include <cstdint>

#include "codecs/AlignedBuffer.h"
#include "videoEncoder/H264Session.h"

namespace kestrium {

// The NV12 picture an H.264 encoder codes, with planes of its own: an rgb24
// source of width x height converted by our kernels, padded to even sizes.
class Nv12Frame {
 public:
  // False when there is no memory for the planes.
  bool allocate(int32_t width, int32_t height);
  // Converts a source of the allocated size, rows top-down, red first.
  void convertFrom(const uint8_t* rgb);
  const Nv12Picture& picture() const { return picture_; }

 private:
  int32_t width_ = 0;
  int32_t height_ = 0;
  AlignedBuffer planes_;
  Nv12Picture picture_;
};

}  // namespace kestrium
