#include "platform/Socket.h"

namespace kestrium::platform {

// Winsock reports a write to a closed connection as an error: there is no signal
// to ignore. (The Windows builds have no broadcast yet, and no other part of
// the socket interface here.)
void ignoreBrokenPipe() {}

}  // namespace kestrium::platform
