#pragma once

#include <atomic>

#include "videoEncoder/VidEncoder.h"

namespace kestrium {

// The encoder of "mjpeg": every frame a baseline JPEG of its own, encoded on the
// workers, each with an engine prepared once for the whole recording.
class VidEncoderMJPEG : public VidEncoder {
 public:
  ~VidEncoderMJPEG() override;

  int Init(const OptionList& options) override;
  void Close() override;
  BitmapInfoHeader* GetBitmapFormat(BitmapInfoHeader* header) override;
  int WantsTopDownRows() override { return 1; }
  // A JPEG can take more than W x H x 4 bytes: see CJPEGEncoder::MaxOutputSize.
  uint64_t EncodedCapacity() const override;

  int fullColorRange() const { return fullColorRange_; }
  int fullColorSpace() const { return fullColorSpace_; }
  int quality() const { return quality_; }

 protected:
  void WorkerLoop(EncodeWorker& worker) override;

 private:
  int fullColorRange_ = 1;  // 0: luma squeezed to 16..235
  int fullColorSpace_ = 1;  // 1: 4:4:4; 0: chroma averaged 2x2
  int quality_ = 85;
  std::atomic<uint32_t> dropped_{0};
};

}  // namespace kestrium
