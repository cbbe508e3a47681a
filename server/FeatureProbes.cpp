#include "server/FeatureProbes.h"

#if KESTRIUM_WITH_NVENC
#include "videoEncoder/NV_Enc/NvencProbe.h"
#endif

namespace kestrium {

// Quick Sync and AMD's encoder are not built into this server yet: their words
// of the features block stay 0.
void probeQuickSync() {}

void probeNvenc() {
#if KESTRIUM_WITH_NVENC
  probeNvencDevices();
#endif
}

void probeAmdVce() {}

}  // namespace kestrium
