#pragma once

#include "videoEncoder/VidEncoder.h"

namespace kestrium {

// The encoder of "fast": the product's own lossless codec, TMB2. Each worker
// converts its frame to YUV 4:2:0, predicts each plane from the row above and
// codes it with a Huffman code of its own (codecs/Tmb2.h). All frames are key
// frames; frames arrive bottom-up with blue first and are coded as they stand.
class VidEncoderFast : public VidEncoder {
 public:
  ~VidEncoderFast() override;

  BitmapInfoHeader* GetBitmapFormat(BitmapInfoHeader* header) override;

 protected:
  void WorkerLoop(EncodeWorker& worker) override;
  // A frame is delivered through the encoder buffer of width x height x 4 bytes;
  // the coder stops at that size, since nothing larger could be delivered.
  size_t EncodedCapacity() const override;
};

}  // namespace kestrium
