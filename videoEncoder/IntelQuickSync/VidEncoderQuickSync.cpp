#include "videoEncoder/IntelQuickSync/VidEncoderQuickSync.h"

#include "videoEncoder/IntelQuickSync/CEncodingPipeline.h"

namespace kestrium {

std::unique_ptr<H264Session> VidEncoderQuickSync::MakeSession() {
  return std::make_unique<CEncodingPipeline>(settings().useHardware);
}

}  // namespace kestrium
