#include "videoEncoder/amd_vce/VidEncoderAMD.h"

#include "platform/SharedMapping.h"
#include "recorder/CommonData.h"
#include "server/CommandBlock.h"
#include "videoEncoder/amd_vce/VceVaSession.h"

namespace kestrium {

int VidEncoderAMD::Open() {
  // The probe at start has said why there is none.
  platform::SharedMapping features(std::u16string(kFeaturesName), sizeof(FeaturesBlock));
  auto* block = features.open() ? features.as<FeaturesBlock>() : nullptr;
  if (block == nullptr || loadShared(block->amdVce) == 0) return 0;
  return VidEncoderH264::Open();
}

std::unique_ptr<H264Session> VidEncoderAMD::MakeSession() { return std::make_unique<VceVaSession>(); }

}  // namespace kestrium
