#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "videoEncoder/BitmapInfoHeader.h"

namespace kestrium {

// An installed video compressor, opened for fast compression, as the encoder of
// "vfw" drives it: the five operations of a Video for Windows driver and the
// block that holds its output format. On Windows it is the Video Compression
// Manager's; elsewhere a libavcodec encoder stands in, found by the same
// four-character code. Results are those of the driver messages: 0 (ICERR_OK)
// for success, negative for an error. Destroying it closes the compressor, then
// frees the format block.
class VfwDriver {
 public:
  static constexpr int64_t kOk = 0;
  static constexpr int64_t kUnsupported = -1;  // ICERR_UNSUPPORTED
  static constexpr int64_t kBadFormat = -2;    // ICERR_BADFORMAT
  static constexpr int64_t kError = -100;      // ICERR_INTERNAL
  // The key frame bit of the flags word a compress call fills (AVIIF_KEYFRAME).
  static constexpr uint32_t kKeyFrameFlag = 0x10;

  virtual ~VfwDriver() = default;

  // ICM_COMPRESS_GET_FORMAT without an output: the bytes of the output format.
  virtual int64_t FormatSize(const BitmapInfoHeader& input) = 0;
  // A zero-filled block of that many bytes for the output format, owned by the
  // driver until it is destroyed (on Windows a moveable global block, locked);
  // empty when it cannot be had.
  virtual std::span<std::byte> AllocateFormat(size_t bytes) = 0;
  // ICM_COMPRESS_GET_FORMAT with the block: the driver fills it in.
  virtual int64_t GetFormat(const BitmapInfoHeader& input, std::span<std::byte> format) = 0;
  // ICM_COMPRESS_BEGIN.
  virtual int64_t Begin(const BitmapInfoHeader& input, std::span<const std::byte> format) = 0;
  // ICCompress with flags 0, no chunk id, frame size 0, quality 0 and no
  // previous frame. The driver writes the frame into output and leaves its size
  // in the biSizeImage of format (whose header says on entry how many bytes of
  // input it reads), and ORs kKeyFrameFlag into flags for a key frame.
  virtual int64_t Compress(std::span<std::byte> format, std::span<std::byte> output, const BitmapInfoHeader& input,
                           std::span<const std::byte> frame, uint32_t& flags, int32_t frameNumber) = 0;
  // ICM_COMPRESS_END.
  virtual int64_t End() = 0;
};

// Opens the compressor of that four-character code (type "vidc", fast
// compression), or logs why there is none and gives null.
std::unique_ptr<VfwDriver> OpenVfwDriver(uint32_t fourcc);

// A four-character code as text for the log, '?' for a byte that is no letter.
inline std::string fourccText(uint32_t code) {
  std::string text(4, ' ');
  for (int i = 0; i < 4; ++i) {
    const char c = static_cast<char>((code >> (8 * i)) & 0xFF);
    text[i] = c >= 0x20 && c < 0x7F ? c : '?';
  }
  return text;
}

// How an encoder of "vfw" opens its driver: OpenVfwDriver, or a test's own.
using VfwDriverOpener = std::function<std::unique_ptr<VfwDriver>(uint32_t fourcc)>;

}  // namespace kestrium
