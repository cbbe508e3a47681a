#include "videoEncoder/amd_vce/AmdVceProbe.h"

#include "platform/SharedMapping.h"
#include "recorder/CommonData.h"
#include "server/CommandBlock.h"
#include "server/Log.h"
#include "videoEncoder/VaApi/VaLibrary.h"
#include "videoEncoder/amd_vce/VceVaSession.h"

namespace kestrium {

int probeAmdEncoder() {
  VaLibrary va;
  if (!va.load(u"AMD_VCE")) return 0;
  platform::SharedMapping features(std::u16string(kFeaturesName), sizeof(FeaturesBlock));
  auto* block = features.open() ? features.as<FeaturesBlock>() : nullptr;
  if (block != nullptr) storeShared(block->amdVce, 0u);
  int amdDisplays = 0;
  int encoders = 0;
  VaDisplay display;
  openAmdEncoderDisplay(va, display, &amdDisplays, &encoders);
  if (amdDisplays == 0) {
    logLine(u"[Error]   *** AMD_VCE *** Couldn't find AMD platform, cannot proceed.\n");
  } else if (encoders == 0) {
    logLine(u"[Error]   *** AMD_VCE *** No suitable devices found!\n");
  } else {
    if (block != nullptr) storeShared(block->amdVce, 1u);
    logLine(u"  *** AMD_VCE *** AMD VCE Hardware Acceleration devices available: %d\n", encoders);
  }
  return encoders;
}

}  // namespace kestrium
