#include "videoEncoder/VfwDriver.h"

// clang-format off
#include <windows.h>
#include <vfw.h>
// clang-format on

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

#include "server/Log.h"

namespace kestrium {

namespace {

static_assert(sizeof(BITMAPINFOHEADER) == sizeof(BitmapInfoHeader), "our header is handed to the driver as its own");
static_assert(offsetof(BITMAPINFOHEADER, biSizeImage) == offsetof(BitmapInfoHeader, biSizeImage));

BITMAPINFOHEADER* asWin32(const BitmapInfoHeader& header) {
  // The driver takes its input header through a non-const pointer but only reads it.
  return reinterpret_cast<BITMAPINFOHEADER*>(const_cast<BitmapInfoHeader*>(&header));
}

// Driver answers are 32-bit codes (ICERR_* or a byte count). A 64-bit driver
// whose procedure was written to return a LONG, and ICCompress, which returns a
// DWORD, hand them on zero-extended: read back as signed 32-bit, an error stays
// negative.
int64_t driverResult(int64_t answer) { return static_cast<int32_t>(answer); }

struct CompressorCloser {
  void operator()(HIC hic) const { ICClose(hic); }
};
using Compressor = std::unique_ptr<std::remove_pointer_t<HIC>, CompressorCloser>;

// A moveable global block, locked for as long as it is held: drivers written
// for the Video Compression Manager expect their format in one.
class LockedGlobal {
 public:
  LockedGlobal() = default;
  ~LockedGlobal() { reset(); }
  LockedGlobal(const LockedGlobal&) = delete;
  LockedGlobal& operator=(const LockedGlobal&) = delete;

  std::span<std::byte> allocate(size_t bytes) {
    reset();
    handle_ = GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, bytes);
    if (handle_ == nullptr) return {};
    void* locked = GlobalLock(handle_);
    if (locked == nullptr) {
      reset();
      return {};
    }
    bytes_ = {static_cast<std::byte*>(locked), bytes};
    return bytes_;
  }

  void reset() {
    if (handle_ == nullptr) return;
    if (!bytes_.empty()) GlobalUnlock(handle_);
    GlobalFree(std::exchange(handle_, nullptr));
    bytes_ = {};
  }

 private:
  HGLOBAL handle_ = nullptr;
  std::span<std::byte> bytes_;
};

class VfwDriverIcm : public VfwDriver {
 public:
  explicit VfwDriverIcm(HIC hic) : compressor_(hic) {}
  // The compressor may still point into the format block: it is closed first.
  ~VfwDriverIcm() override {
    compressor_.reset();
    format_.reset();
  }

  int64_t FormatSize(const BitmapInfoHeader& input) override {
    return driverResult(ICSendMessage(hic(), ICM_COMPRESS_GET_FORMAT, reinterpret_cast<DWORD_PTR>(asWin32(input)), 0));
  }

  std::span<std::byte> AllocateFormat(size_t bytes) override { return format_.allocate(bytes); }

  int64_t GetFormat(const BitmapInfoHeader& input, std::span<std::byte> format) override {
    return driverResult(ICSendMessage(hic(), ICM_COMPRESS_GET_FORMAT, reinterpret_cast<DWORD_PTR>(asWin32(input)),
                                      reinterpret_cast<DWORD_PTR>(format.data())));
  }

  int64_t Begin(const BitmapInfoHeader& input, std::span<const std::byte> format) override {
    return driverResult(ICSendMessage(hic(), ICM_COMPRESS_BEGIN, reinterpret_cast<DWORD_PTR>(asWin32(input)),
                                      reinterpret_cast<DWORD_PTR>(format.data())));
  }

  int64_t Compress(std::span<std::byte> format, std::span<std::byte> output, const BitmapInfoHeader& input,
                   std::span<const std::byte> frame, uint32_t& flags, int32_t frameNumber) override {
    DWORD frameFlags = 0;
    // The input bits are read only, like the input header.
    const DWORD result =
        ICCompress(hic(), 0, reinterpret_cast<BITMAPINFOHEADER*>(format.data()), output.data(), asWin32(input),
                   const_cast<std::byte*>(frame.data()), nullptr, &frameFlags, frameNumber, 0, 0, nullptr, nullptr);
    flags = frameFlags;
    return driverResult(result);
  }

  int64_t End() override { return driverResult(ICSendMessage(hic(), ICM_COMPRESS_END, 0, 0)); }

 private:
  HIC hic() const { return compressor_.get(); }

  Compressor compressor_;
  LockedGlobal format_;
};

}  // namespace

std::unique_ptr<VfwDriver> OpenVfwDriver(uint32_t fourcc) {
  HIC hic = ICOpen(ICTYPE_VIDEO, fourcc, ICMODE_FASTCOMPRESS);
  if (hic == nullptr) {
    logLine(u"[Error]   *** VFW *** No installed codec opens with the four-character code %S\n", fourccText(fourcc));
    return nullptr;
  }
  return std::make_unique<VfwDriverIcm>(hic);
}

}  // namespace kestrium
