#pragma once

namespace kestrium {

// Each probe looks for one vendor's hardware encoder and writes its own word of
// the features block, which clients read to know what to offer. A probe whose
// run-time library is missing writes nothing, so its word stays 0.
void probeQuickSync();
void probeNvenc();
void probeAmdVce();

}  // namespace kestrium
