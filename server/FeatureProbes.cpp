#include "server/FeatureProbes.h"

#if KESTRIUM_WITH_NVENC
#include "videoEncoder/NV_Enc/NvencProbe.h"
#endif
#if KESTRIUM_WITH_QUICKSYNC
#include "videoEncoder/IntelQuickSync/QuickSyncProbe.h"
#endif
#if KESTRIUM_WITH_AMDVCE
#include "videoEncoder/amd_vce/AmdVceProbe.h"
#endif

namespace kestrium {

// An encoder not built into this server leaves its word of the features block at 0.
void probeQuickSync() {
#if KESTRIUM_WITH_QUICKSYNC
  probeQuickSyncEncoder();
#endif
}

void probeNvenc() {
#if KESTRIUM_WITH_NVENC
  probeNvencDevices();
#endif
}

void probeAmdVce() {
#if KESTRIUM_WITH_AMDVCE
  probeAmdEncoder();
#endif
}

}  // namespace kestrium
