#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "codecs/AlignedBuffer.h"
#include "recorder/CaptureObjects.h"
#include "videoEncoder/IVidEncoder.h"
#include "videoEncoder/VfwDriver.h"

namespace kestrium {

// The encoder of "vfw": every frame goes through an installed compressor, chosen
// by its four-character code, on the recorder's thread; the driver writes
// straight into the encoded slot. There are no workers, so a slow driver holds
// the recorder's thread and the client then finds the source slot busy.
class VidEncoderVFW : public IVidEncoder {
 public:
  explicit VidEncoderVFW(VfwDriverOpener opener = OpenVfwDriver);
  ~VidEncoderVFW() override;

  int Init(const OptionList& options) override;
  int Open() override;
  int EncodeFrame(std::span<const std::byte> source, uint32_t timed, uint32_t position) override;
  void Close() override;

  BitmapInfoHeader* GetBitmapFormat(BitmapInfoHeader* header) override;

  uint32_t codec() const { return codec_; }
  // Bytes between the starts of two rows of the frame the driver gets: a 24-bit
  // bitmap's rows are padded to a multiple of 4 bytes.
  static uint32_t DriverStride(int32_t width);

 private:
  VfwDriverOpener opener_;
  CaptureObjects objects_{u""};
  uint32_t codec_ = 0;
  std::unique_ptr<VfwDriver> driver_;
  bool begun_ = false;
  std::span<std::byte> format_;  // the output BITMAPINFO, in the driver's block
  BitmapInfoHeader input_{};
  uint32_t frameCounter_ = 0;
  AlignedBuffer scratch_;
  uint32_t failures_ = 0;
};

}  // namespace kestrium
