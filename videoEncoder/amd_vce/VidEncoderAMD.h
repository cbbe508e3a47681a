#pragma once

#include "videoEncoder/VidEncoderH264.h"

namespace kestrium {

// The encoder of "h264.amdvce": H.264 on the H.264 front, coded by an AMD GPU
// (VceVaSession). The driver tells the parameter sets with the first frame, so
// the file begins after it. Without an encoder found at start it does not open
// and creates nothing.
class VidEncoderAMD : public VidEncoderH264 {
 public:
  int Open() override;
  int HeadersAfterFirstFrame() override { return 1; }

 protected:
  std::unique_ptr<H264Session> MakeSession() override;
};

}  // namespace kestrium
