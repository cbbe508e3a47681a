#pragma once

#include "videoEncoder/VidEncoderH264.h"

namespace kestrium {

// The encoder of "h264.x264": H.264 on the H.264 front, coded in software by
// libx264 (X264Session), so that any machine records H.264 without a GPU.
class VidEncoderX264 : public VidEncoderH264 {
 protected:
  std::unique_ptr<H264Session> MakeSession() override;
};

}  // namespace kestrium
