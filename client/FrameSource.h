#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>
#include <vector>

namespace kestrium::client {

// How the server's encoder wants its source frames laid out, from the first two
// words of the shared record.
struct FrameLayout {
  bool topDown = false;   // else rows bottom-up, as a Windows bitmap
  bool redFirst = false;  // else blue first
};

// Frames of W x H pixels, 3 bytes each, written into the source slot in the
// layout the encoder asked for.
class FrameSource {
 public:
  virtual ~FrameSource() = default;
  // Writes frame number into out (width x height x 3 bytes). False when there is
  // nothing to give.
  virtual bool fill(uint32_t number, std::span<std::byte> out, FrameLayout layout) = 0;
  // Makes ready whatever makes feeding the frames of a recording cheap.
  virtual void prepare(uint32_t /*frames*/, FrameLayout /*layout*/) {}
};

// A deterministic moving picture with what games have: flat areas, gradients,
// fine detail and moving objects. Drawing a big frame takes longer than a frame
// lasts at 60 fps, so the frames are drawn ahead, once, in the layout the
// encoder wants (prepare), and feeding one is a copy: frame N is the loop's
// frame N modulo its length.
class PatternSource : public FrameSource {
 public:
  // The loop holds this many distinct frames at most, and no more than this
  // many bytes when that is fewer (but never fewer than kFewestFrames).
  static constexpr uint32_t kMostFrames = 120;
  static constexpr uint32_t kFewestFrames = 8;
  static constexpr size_t kLoopBytes = size_t{512} << 20;

  PatternSource(uint32_t width, uint32_t height) : width_(width), height_(height) {}
  // Draws the loop for a recording of frames frames (fewer are drawn when fewer
  // are needed) in this layout. Without it, fill draws each frame as it goes.
  void prepare(uint32_t frames, FrameLayout layout);
  uint32_t loopLength() const { return static_cast<uint32_t>(loop_.size()); }
  bool fill(uint32_t number, std::span<std::byte> out, FrameLayout layout) override;

  // The pattern's frame in rgb24, rows top-down, red first.
  static void render(uint32_t width, uint32_t height, uint32_t number, std::span<std::byte> rgb);

 private:
  uint32_t width_, height_;
  std::vector<std::byte> rgb_;  // the frame before it is laid out
  std::vector<std::vector<std::byte>> loop_;
  FrameLayout loopLayout_;
};

// Frames read from a file of rgb24 frames (rows top-down, red first), as
// `ffmpeg -pix_fmt rgb24 -f rawvideo` writes them; at its end it starts again.
class RawFileSource : public FrameSource {
 public:
  RawFileSource(const std::filesystem::path& path, uint32_t width, uint32_t height);
  bool ok() const { return ok_; }
  bool fill(uint32_t number, std::span<std::byte> out, FrameLayout layout) override;

 private:
  std::ifstream in_;
  uint32_t width_, height_;
  uint64_t frames_ = 0;
  std::vector<std::byte> frame_;
  bool ok_ = false;
};

// Copies an rgb24 top-down red-first frame into the layout the encoder wants.
void convertLayout(std::span<const std::byte> rgb, uint32_t width, uint32_t height, std::span<std::byte> out,
                   FrameLayout layout);

}  // namespace kestrium::client
