#include "videoEncoder/NV_Enc/VidEncoderNVENC.h"

#include "platform/SharedMapping.h"
#include "recorder/CommonData.h"
#include "server/CommandBlock.h"
#include "server/Log.h"
#include "videoEncoder/NV_Enc/CNvEncoderH264.h"
#include "videoEncoder/NV_Enc/NvencProbe.h"

namespace kestrium {

int VidEncoderNVENC::Open() {
  platform::SharedMapping features(std::u16string(kFeaturesName), sizeof(FeaturesBlock));
  auto* block = features.open() ? features.as<FeaturesBlock>() : nullptr;
  const std::vector<NvencDevice> devices = nvencDevices();
  if (block == nullptr || loadShared(block->nvenc) == 0 || devices.empty()) {
    logLine(u"[Error]   *** NVENC *** This machine has no NVIDIA encoder that the server can use\n");
    return 0;
  }
  deviceNumber_ = devices.front().number;
  return VidEncoderH264::Open();
}

std::unique_ptr<H264Session> VidEncoderNVENC::MakeSession() { return std::make_unique<CNvEncoderH264>(deviceNumber_); }

}  // namespace kestrium
