#include "server/FeatureProbes.h"

namespace kestrium {

// No hardware encoder is built into this server yet, so no probe finds one and
// every word of the features block stays 0.
void probeQuickSync() {}
void probeNvenc() {}
void probeAmdVce() {}

}  // namespace kestrium
