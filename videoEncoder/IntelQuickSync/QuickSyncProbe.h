#pragma once

namespace kestrium {

// Asks Intel's runtime for a hardware session and writes the answer into the
// Quick Sync word of the features block: 1 only when the session can really code
// H.264 here (a VA display, an encoder that accepts the parameters, and one
// frame coded), because a runtime on a machine without the GPU opens sessions
// all the same. Without the runtime it writes nothing and logs nothing. Returns
// the word written (0 when none).
int probeQuickSyncEncoder();

}  // namespace kestrium
