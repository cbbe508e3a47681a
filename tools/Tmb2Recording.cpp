#include "tools/Tmb2Recording.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

#include "codecs/ColorConvert.h"
#include "codecs/Tmb2.h"

namespace kestrium::tools {

bool Tmb2Recording::open(ByteSource& source, std::string& error) {
  source_ = &source;
  if (!avi_.open(source, error)) return false;
  const AviVideoStream& v = avi_.video();
  if (v.compression != tmb2::kFourcc) {
    std::string fourcc;
    for (int i = 0; i < 4; ++i) {
      const auto c = static_cast<char>((v.compression >> (8 * i)) & 0xFF);
      fourcc += (c >= 32 && c < 127) ? c : '?';
    }
    error = "the video stream is '" + fourcc + "', not TMB2";
    return false;
  }
  if (v.width < 1 || v.height < 1 || v.width > kMaxFrameSide || v.height > kMaxFrameSide) {
    error = "the video stream claims a frame of " + std::to_string(v.width) + "x" + std::to_string(v.height) +
            ", outside 1x1 to " + std::to_string(kMaxFrameSide) + "x" + std::to_string(kMaxFrameSide);
    return false;
  }
  width_ = static_cast<uint32_t>(v.width);
  height_ = static_cast<uint32_t>(v.height);
  residuals_.assign(size_t{width_} * height_, 0);
  return true;
}

bool Tmb2Recording::decodeFrame(size_t index, std::vector<uint8_t>& planes, bool& empty, std::string& error) {
  const AviChunk& chunk = avi_.frames()[index];
  planes.resize(tmb2::frameLayout(width_, height_).planesSize);
  empty = chunk.size == 0;
  if (empty) return true;
  chunk_.resize(chunk.size);
  if (!source_->read(chunk.offset, std::as_writable_bytes(std::span(chunk_)))) {
    error = "cannot read the frame's " + std::to_string(chunk.size) + " bytes at byte " + std::to_string(chunk.offset);
    return false;
  }
  return tmb2::decodeFrame(chunk_.data(), chunk_.size(), width_, height_, planes.data(), residuals_.data(), error);
}

void planesToStandardYuv(const uint8_t* planes, uint32_t width, uint32_t height, uint8_t* out) {
  const tmb2::FrameLayout layout = tmb2::frameLayout(width, height);
  const size_t cw = width / 2, ch = height / 2;
  const size_t ew = cw * 2, eh = ch * 2;
  const uint8_t* luma = planes;
  // The codec's chroma planes: first from the third source byte (red, as the
  // encoder gets blue first), second from the first (blue).
  const uint8_t* redDiff = planes + layout.planes[1].offset;
  const uint8_t* blueDiff = planes + layout.planes[2].offset;
  uint8_t* outY = out;
  uint8_t* outCb = out + ew * eh;
  uint8_t* outCr = outCb + cw * ch;

  // The codec's weights: its "R" is blue, its "B" red.
  constexpr double kBlue = kLumaR / 32768.0, kGreen = kLumaG / 32768.0, kRed = kLumaB / 32768.0;
  constexpr double kU = kChromaU / 32768.0, kV = kChromaV / 32768.0;
  const auto clamp255 = [](double v) { return std::clamp(v, 0.0, 255.0); };
  const auto byte = [](double v) { return static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 255L)); };

  for (size_t k = 0; k < ch; ++k) {
    // Stored row pair k holds the picture's row pair counted from the bottom.
    const size_t outPair = ch - 1 - k;
    for (size_t bx = 0; bx < cw; ++bx) {
      // The codec's arithmetic rounds down; half a step back up centres it.
      const double dr = (redDiff[k * cw + bx] - 128 + 0.5) / kU;
      const double db = (blueDiff[k * cw + bx] - 128 + 0.5) / kV;
      double sumR = 0, sumG = 0, sumB = 0;
      for (size_t dy = 0; dy < 2; ++dy) {
        const size_t storedRow = 2 * k + dy;
        const size_t outRow = 2 * outPair + (1 - dy);
        for (size_t dx = 0; dx < 2; ++dx) {
          const size_t x = 2 * bx + dx;
          const double y = luma[storedRow * width + x] + 0.5;
          const double r = clamp255(y + dr);
          const double b = clamp255(y + db);
          const double g = clamp255((y - kBlue * b - kRed * r) / kGreen);
          sumR += r;
          sumG += g;
          sumB += b;
          outY[outRow * ew + x] = byte(16 + (65.481 * r + 128.553 * g + 24.966 * b) / 255);
        }
      }
      const double r = sumR / 4, g = sumG / 4, b = sumB / 4;
      outCb[outPair * cw + bx] = byte(128 + (-37.797 * r - 74.203 * g + 112.0 * b) / 255);
      outCr[outPair * cw + bx] = byte(128 + (112.0 * r - 93.786 * g - 18.214 * b) / 255);
    }
  }
}

void blackPlanes(uint32_t width, uint32_t height, std::vector<uint8_t>& planes) {
  const tmb2::FrameLayout layout = tmb2::frameLayout(width, height);
  planes.assign(layout.planesSize, 128);
  std::fill(planes.begin(), planes.begin() + static_cast<ptrdiff_t>(layout.planes[1].offset), uint8_t{0});
}

std::string y4mHeader(uint32_t width, uint32_t height, uint32_t rate, uint32_t scale) {
  if (rate == 0 || scale == 0) {
    rate = 30;
    scale = 1;
  }
  const uint32_t g = std::gcd(rate, scale);
  return "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) + " F" + std::to_string(rate / g) + ":" +
         std::to_string(scale / g) + " Ip A1:1 C420jpeg XCOLORRANGE=LIMITED\n";
}

}  // namespace kestrium::tools
