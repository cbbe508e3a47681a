#pragma once

#include <mutex>

#include "recorder/CaptureObjects.h"
#include "videoEncoder/IVidEncoder.h"

namespace kestrium {

// The encoder of "no_compression": the source frame goes into the encoded slot
// as an uncompressed bitmap, on the recorder's own thread, with no workers.
class VidEncoderLoseless : public IVidEncoder {
 public:
  VidEncoderLoseless();

  int Open() override;
  int EncodeFrame(std::span<const std::byte> source, uint32_t timed, uint32_t position) override;
  void Close() override;
  BitmapInfoHeader* GetBitmapFormat(BitmapInfoHeader* header) override;

  // Bytes between rows of the bitmap: 3 x width rounded up to a multiple of 4.
  uint32_t stride() const { return (static_cast<uint32_t>(width_) * 3 + 3) & ~3u; }

 private:
  // EncodeFrame runs on the recorder's thread, which still runs while the
  // command thread closes the encoder: the slot's objects go only under this lock.
  std::mutex lock_;
  bool closed_ = false;
  CaptureObjects objects_;
  bool warnedShortFrame_ = false;
};

}  // namespace kestrium
