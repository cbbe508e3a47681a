#include "videoEncoder/VidEncoderVFW.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "server/Log.h"

namespace kestrium {

namespace {

// No driver's output format is near this; a larger answer is a broken driver.
constexpr int64_t kLargestFormat = 1 << 20;

}  // namespace

VidEncoderVFW::VidEncoderVFW(VfwDriverOpener opener) : opener_(std::move(opener)) {}

VidEncoderVFW::~VidEncoderVFW() { Close(); }

uint32_t VidEncoderVFW::DriverStride(int32_t width) {
  return (static_cast<uint32_t>(std::max(width, 0)) + 1) * 3 & ~3u;
}

int VidEncoderVFW::Init(const OptionList& options) {
  walkOptions(options, [this](std::string_view key, std::string_view value) {
    if (key != "vfw_codec") return false;
    codec_ = static_cast<uint32_t>(optionInt(value));
    return true;
  });
  return IVidEncoder::Init(options);
}

int VidEncoderVFW::Open() {
  objects_ = CaptureObjects(sessionName_);
  objects_.openNewEncoded();
  objects_.openCommonData();
  objects_.openEncoderBuffer(EncodedCapacity());

  driver_ = opener_ ? opener_(codec_) : nullptr;
  if (!driver_) return 0;

  input_ = makeBitmapHeader(width_, height_, 24, 0,
                            static_cast<uint32_t>(uint64_t{static_cast<uint32_t>(width_)} * height_ * 24 / 8));
  scratch_ = AlignedBuffer(static_cast<size_t>(std::max(width_, 0)) * std::max(height_, 0) * 4);
  if (scratch_.empty() && width_ > 0 && height_ > 0) {
    logLine(u"[Error]   *** VFW *** No memory for a %dx%d frame\n", width_, height_);
    return 0;
  }

  // The driver says how large its format is, then fills a block of that size.
  // Anything but a size that holds at least the bitmap header is a driver that
  // cannot describe its stream, and nothing could be recorded from it.
  const int64_t size = driver_->FormatSize(input_);
  if (size < static_cast<int64_t>(sizeof(BitmapInfoHeader)) || size > kLargestFormat) {
    logLine(u"[Error]   *** VFW *** Codec %S gives an output format of %I64d bytes for %dx%d; it cannot record\n",
            fourccText(codec_), size, width_, height_);
    return 0;
  }
  format_ = driver_->AllocateFormat(static_cast<size_t>(size));
  if (format_.size() < static_cast<size_t>(size)) {
    logLine(u"[Error]   *** VFW *** No memory for the %I64d-byte output format\n", size);
    return 0;
  }
  const int64_t filled = driver_->GetFormat(input_, format_);
  if (filled != VfwDriver::kOk) {
    logLine(u"[Error]   *** VFW *** Codec %S has no output format for %dx%d (%I64d)\n", fourccText(codec_), width_,
            height_, filled);
    return 0;
  }
  const int64_t begun = driver_->Begin(input_, format_);
  if (begun != VfwDriver::kOk) {
    logLine(u"[Error]   *** VFW *** Codec %S refuses to compress %dx%d (%I64d)\n", fourccText(codec_), width_, height_,
            begun);
    return 0;
  }
  begun_ = true;
  return 1;
}

int VidEncoderVFW::EncodeFrame(std::span<const std::byte> source, uint32_t timed, uint32_t position) {
  CommonData* common = objects_.common();
  if (!begun_ || common == nullptr || loadShared(common->encodedFree) == 0) return 0;
  storeShared(common->encodedFree, 0u);

  // The source's rows are packed; a 24-bit bitmap's rows start on 4-byte
  // boundaries, which is how the driver reads them. Each row is copied to its
  // place, and never more than the source holds: a client's short frame leaves
  // the rest black rather than have the copy run past its buffer.
  const uint32_t stride = DriverStride(width_);
  const size_t rowBytes = static_cast<size_t>(width_) * 3;
  const size_t height = static_cast<size_t>(height_);
  std::byte* to = scratch_.data();
  for (size_t row = 0; row < height; ++row, to += stride) {
    const size_t at = row * rowBytes;
    const size_t have = at < source.size() ? std::min(rowBytes, source.size() - at) : 0;
    if (have != 0) std::memcpy(to, source.data() + at, have);
    std::memset(to + have, 0, stride - have);
  }
  BitmapInfoHeader* output = reinterpret_cast<BitmapInfoHeader*>(format_.data());
  output->biSizeImage = stride * static_cast<uint32_t>(height);

  uint32_t flags = 0;
  const std::span<std::byte> slot(static_cast<std::byte*>(objects_.encoderBuffer.view()),
                                  objects_.encoderBuffer.size());
  const int64_t result = driver_->Compress(format_, slot, input_, {scratch_.data(), stride * height}, flags,
                                           static_cast<int32_t>(frameCounter_++));
  uint32_t size = output->biSizeImage;
  if (result != VfwDriver::kOk || size > slot.size()) {
    // Never hand on more than the slot holds, nor what a failed call left: the
    // frame goes as an empty one, which the file shows as a dropped frame.
    if (failures_++ == 0) {
      logLine(u"[Error]   *** VFW *** Codec %S failed frame %u (%I64d, %u bytes); it is recorded empty\n",
              fourccText(codec_), position, result, size);
    }
    size = 0;
  }
  common->encodedSize = size;
  common->encodedTimed = timed;
  common->encodedKey = (flags & VfwDriver::kKeyFrameFlag) != 0 ? 1 : 0;
  storeShared(common->encodedPosition, position);
  objects_.newEncoded.set();
  return 1;
}

void VidEncoderVFW::Close() {
  if (driver_) {
    driver_->End();
    begun_ = false;
    // The driver closes the compressor, then frees the format block.
    driver_.reset();
  }
  format_ = {};
  scratch_ = AlignedBuffer();
  if (failures_ > 1) {
    logLine(u"[Error]   *** VFW *** Codec %S failed %u frames\n", fourccText(codec_), failures_);
    failures_ = 0;
  }
  objects_.closeAll();
}

BitmapInfoHeader* VidEncoderVFW::GetBitmapFormat(BitmapInfoHeader* header) {
  *header = {};
  if (format_.size() >= sizeof(BitmapInfoHeader)) std::memcpy(header, format_.data(), sizeof(BitmapInfoHeader));
  return header;
}

}  // namespace kestrium
