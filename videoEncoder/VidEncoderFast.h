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
  // The coder stops at the worker's output of EncodedCapacity() bytes, since
  // nothing larger could be delivered.
  void WorkerLoop(EncodeWorker& worker) override;
};

}  // namespace kestrium
