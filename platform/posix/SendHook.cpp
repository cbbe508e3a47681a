// The diversion of a library's socket writes. This file defines the C library's
// send() for the whole program: the dynamic linker binds every shared library's
// send() to the executable's definition, and ours hands the writes on a hooked
// descriptor to its hook and passes all others to the kernel unchanged. The
// definition sits in the same object as installSendHook(), so that a program
// that installs a hook cannot be linked without it.

#include <dlfcn.h>
#include <sys/socket.h>

#include <cerrno>

#include "platform/SendHookTable.h"
#include "platform/Socket.h"

namespace kestrium::platform {

bool installSendHook(intptr_t descriptor, SendHook hook, void* context) {
  return detail::addHook(descriptor, hook, context);
}

void removeSendHook(intptr_t descriptor) { detail::dropHook(descriptor); }

}  // namespace kestrium::platform

extern "C" ssize_t send(int fd, const void* data, size_t size, int flags) {
  kestrium::platform::detail::HookSlot slot;
  if (kestrium::platform::detail::findHook(fd, slot)) {
    // The hook is called without the table's lock: it may wait for room.
    const int64_t taken = slot.hook(slot.context, static_cast<const std::byte*>(data), size);
    if (taken < 0) errno = EPIPE;
    return static_cast<ssize_t>(taken);
  }
  // send() is sendto() without an address, which is how the C library makes it.
  return ::sendto(fd, data, size, flags, nullptr, 0);
}

namespace kestrium::platform {

bool sendHookEffective() {
  // The definition that a shared library's call of send() binds to.
  return dlsym(RTLD_DEFAULT, "send") == reinterpret_cast<void*>(&::send);
}

}  // namespace kestrium::platform
