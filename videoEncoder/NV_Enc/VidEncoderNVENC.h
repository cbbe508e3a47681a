#pragma once

#include "videoEncoder/VidEncoderH264.h"

namespace kestrium {

// The encoder of "h264.nvenc": H.264 on the H.264 front, coded by the encoder of
// an NVIDIA card (CNvEncoderH264) on the first usable card the probe at start
// found. Without one it does not open and creates nothing.
class VidEncoderNVENC : public VidEncoderH264 {
 public:
  int Open() override;

 protected:
  std::unique_ptr<H264Session> MakeSession() override;

 private:
  int deviceNumber_ = 0;
};

}  // namespace kestrium
