#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/AviReader.h"

namespace kestrium::tools {

// Larger than any frame a capture makes; a header that claims more is damaged.
inline constexpr int32_t kMaxFrameSide = 16384;

// A TMB2 recording in an AVI file, frame by frame.
class Tmb2Recording {
 public:
  // False, with the reason, if the file is no AVI or its video stream no TMB2.
  bool open(ByteSource& source, std::string& error);

  uint32_t width() const { return width_; }
  uint32_t height() const { return height_; }
  const AviReader& avi() const { return avi_; }
  size_t frameCount() const { return avi_.frames().size(); }

  // Decodes frame `index` into planes (frameLayout(width, height).planesSize
  // bytes). An empty chunk is a frame the recorder dropped: empty is set and the
  // planes keep the frame before. False, with the reason, for a damaged frame.
  bool decodeFrame(size_t index, std::vector<uint8_t>& planes, bool& empty, std::string& error);

 private:
  ByteSource* source_ = nullptr;
  AviReader avi_;
  uint32_t width_ = 0;
  uint32_t height_ = 0;
  std::vector<uint8_t> chunk_;
  std::vector<uint8_t> residuals_;
};

// The codec's planes as standard video: BT.601 YUV 4:2:0 in limited range, rows
// top-down, cropped to the even size that the codec's chroma covers. The codec
// stores rows bottom-up and, because its source has blue first, weighs blue and
// red the other way round in its luma and has its chroma planes in the other
// order; this undoes all of that. out holds evenWidth x evenHeight x 3 / 2 bytes.
void planesToStandardYuv(const uint8_t* planes, uint32_t width, uint32_t height, uint8_t* out);

// The frame of planes that shows black, for a recording that starts with a
// dropped frame.
void blackPlanes(uint32_t width, uint32_t height, std::vector<uint8_t>& planes);

// "YUV4MPEG2 W.. H.. F..:.. Ip A1:1 C420jpeg XCOLORRANGE=LIMITED\n"
std::string y4mHeader(uint32_t width, uint32_t height, uint32_t rate, uint32_t scale);

}  // namespace kestrium::tools
