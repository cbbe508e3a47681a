#include "client/FrameSource.h"

#include <algorithm>
#include <cstring>

namespace kestrium::client {

void convertLayout(std::span<const std::byte> rgb, uint32_t width, uint32_t height, std::span<std::byte> out,
                   FrameLayout layout) {
  const size_t row = size_t{width} * 3;
  for (uint32_t y = 0; y < height; ++y) {
    const std::byte* from = rgb.data() + y * row;
    std::byte* to = out.data() + (layout.topDown ? y : height - 1 - y) * row;
    if (layout.redFirst) {
      std::memcpy(to, from, row);
      continue;
    }
    for (size_t x = 0; x < row; x += 3) {
      to[x] = from[x + 2];
      to[x + 1] = from[x + 1];
      to[x + 2] = from[x];
    }
  }
}

void PatternSource::render(uint32_t width, uint32_t height, uint32_t number, std::span<std::byte> rgb) {
  const uint32_t horizon = height * 2 / 5;
  // A ball that crosses the screen, and a world that scrolls under it.
  const int64_t ballX = static_cast<int64_t>((number * 7) % (width + 64)) - 32;
  const int64_t ballY = static_cast<int64_t>(horizon) + static_cast<int64_t>((number * 3) % (height - horizon + 1)) / 2;
  const int64_t radius = std::max<int64_t>(4, height / 12);
  const uint32_t scroll = number * 2;
  for (uint32_t y = 0; y < height; ++y) {
    std::byte* p = rgb.data() + size_t{y} * width * 3;
    for (uint32_t x = 0; x < width; ++x, p += 3) {
      uint32_t r, g, b;
      if (y < height / 16) {
        // A flat status bar, the same in every frame.
        r = 24, g = 24, b = 32;
        if (x < width / 3) r = 200, g = 40, b = 40;
      } else if (y < horizon) {
        // Sky: a smooth gradient.
        r = 60 + y * 80 / horizon;
        g = 110 + y * 90 / horizon;
        b = 230 - y * 30 / horizon;
      } else {
        // Ground: textured detail that scrolls.
        const uint32_t u = x + scroll, v = y;
        const uint32_t hash = (u * 73856093u) ^ (v * 19349663u);
        const uint32_t noise = (hash >> 13) & 31;
        const bool stripe = ((u / 16) + (v / 16)) % 2 == 0;
        r = (stripe ? 70 : 90) + noise;
        g = (stripe ? 120 : 100) + noise;
        b = 40 + noise / 2;
      }
      const int64_t dx = static_cast<int64_t>(x) - ballX, dy = static_cast<int64_t>(y) - ballY;
      if (dx * dx + dy * dy < radius * radius) r = 250, g = 220, b = 30;
      p[0] = std::byte(r);
      p[1] = std::byte(g);
      p[2] = std::byte(b);
    }
  }
}

void PatternSource::prepare(uint32_t frames, FrameLayout layout) {
  const size_t frameBytes = size_t{width_} * height_ * 3;
  const size_t fit = std::max<size_t>(kFewestFrames, kLoopBytes / std::max<size_t>(frameBytes, 1));
  const size_t length = std::min<size_t>({kMostFrames, fit, std::max<uint32_t>(frames, 1)});
  loop_.assign(length, std::vector<std::byte>(frameBytes));
  loopLayout_ = layout;
  for (uint32_t n = 0; n < length; ++n) {
    rgb_.resize(frameBytes);
    render(width_, height_, n, rgb_);
    convertLayout(rgb_, width_, height_, loop_[n], layout);
  }
  rgb_ = {};
}

bool PatternSource::fill(uint32_t number, std::span<std::byte> out, FrameLayout layout) {
  if (!loop_.empty() && layout.topDown == loopLayout_.topDown && layout.redFirst == loopLayout_.redFirst) {
    const std::vector<std::byte>& frame = loop_[number % loop_.size()];
    std::memcpy(out.data(), frame.data(), std::min(out.size(), frame.size()));
    return true;
  }
  if (layout.topDown && layout.redFirst) {
    render(width_, height_, number, out);
    return true;
  }
  rgb_.resize(size_t{width_} * height_ * 3);
  render(width_, height_, number, rgb_);
  convertLayout(rgb_, width_, height_, out, layout);
  return true;
}

RawFileSource::RawFileSource(const std::filesystem::path& path, uint32_t width, uint32_t height)
    : in_(path, std::ios::binary), width_(width), height_(height), frame_(size_t{width} * height * 3) {
  std::error_code ec;
  const uintmax_t size = std::filesystem::file_size(path, ec);
  frames_ = ec || frame_.empty() ? 0 : size / frame_.size();
  ok_ = in_.good() && frames_ > 0;
}

bool RawFileSource::fill(uint32_t number, std::span<std::byte> out, FrameLayout layout) {
  if (!ok_) return false;
  in_.clear();
  in_.seekg(static_cast<std::streamoff>((number % frames_) * frame_.size()));
  if (!in_.read(reinterpret_cast<char*>(frame_.data()), static_cast<std::streamsize>(frame_.size()))) return false;
  convertLayout(frame_, width_, height_, out, layout);
  return true;
}

}  // namespace kestrium::client
