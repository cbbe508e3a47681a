#pragma once

#include "videoEncoder/VidEncoderH264.h"

namespace kestrium {

// The encoder of "h264.quicksync": H.264 on the H.264 front, coded by Intel's
// media hardware through its runtime (CEncodingPipeline). It opens whatever the
// features block says, as users may ask for the software runtime (use_hw 0).
class VidEncoderQuickSync : public VidEncoderH264 {
 protected:
  std::unique_ptr<H264Session> MakeSession() override;
};

}  // namespace kestrium
