#include "videoEncoder/VidEncoderLoseless.h"

#include <cstring>

#include "server/Log.h"

namespace kestrium {

VidEncoderLoseless::VidEncoderLoseless() : objects_(u"") {}

int VidEncoderLoseless::Open() {
  objects_ = CaptureObjects(sessionName_);
  objects_.openNewEncoded();
  objects_.openCommonData();
  objects_.openEncoderBuffer(EncodedCapacity());
  return 1;
}

int VidEncoderLoseless::EncodeFrame(std::span<const std::byte> source, uint32_t timed, uint32_t position) {
  std::lock_guard guard(lock_);
  if (closed_) return 0;
  CommonData* common = objects_.common();
  if (common == nullptr || width_ <= 0 || height_ <= 0 || loadShared(common->encodedFree) == 0) return 0;
  const size_t row = static_cast<size_t>(width_) * 3;
  const size_t rows = static_cast<size_t>(height_);
  const size_t encodedSize = rows * stride();
  if (source.size() < row * rows || objects_.encoderBuffer.size() < encodedSize) {
    if (!warnedShortFrame_) {
      logLine(u"[Error]   Source frame of %u bytes is too small for %dx%d; such frames are dropped\n",
              static_cast<uint32_t>(source.size()), width_, height_);
      warnedShortFrame_ = true;
    }
    return 0;
  }
  storeShared(common->encodedFree, 0u);
  // Rows arrive packed; the bitmap wants each row on a 4-byte boundary. The
  // padding bytes keep what they held.
  std::byte* out = objects_.encoderBuffer.view();
  for (size_t y = 0; y < rows; ++y) std::memcpy(out + y * stride(), source.data() + y * row, row);
  common->encodedSize = static_cast<uint32_t>(encodedSize);
  common->encodedTimed = timed;
  storeShared(common->encodedPosition, position);
  objects_.newEncoded.set();
  return 1;
}

void VidEncoderLoseless::Close() {
  std::lock_guard guard(lock_);
  closed_ = true;
  objects_.closeAll();
}

BitmapInfoHeader* VidEncoderLoseless::GetBitmapFormat(BitmapInfoHeader* header) {
  *header = makeBitmapHeader(width_, height_, 24, 0,
                             (((static_cast<uint32_t>(width_) + 1) * 3) & ~3u) * static_cast<uint32_t>(height_));
  return header;
}

}  // namespace kestrium
