#include "recorder/BroadcastInfo.h"

#include "platform/NoDestructor.h"

namespace kestrium {

SharedBroadcastInfo& broadcastInfo() {
  static platform::NoDestructor<SharedBroadcastInfo> shared;
  return *shared;
}

}  // namespace kestrium
