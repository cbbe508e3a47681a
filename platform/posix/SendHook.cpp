// The diversion of a library's socket writes. This file defines the C library's
// send() for the whole program: the dynamic linker binds every shared library's
// send() to the executable's definition, and ours hands the writes on a hooked
// descriptor to its hook and passes all others to the kernel unchanged. The
// definition sits in the same object as installSendHook(), so that a program
// that installs a hook cannot be linked without it.

#include <dlfcn.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>

#include "platform/NoDestructor.h"
#include "platform/Socket.h"

namespace kestrium::platform {

namespace {

struct HookSlot {
  intptr_t descriptor = -1;
  SendHook hook = nullptr;
  void* context = nullptr;
};

// A handful of broadcasts at most run at once.
constexpr size_t kSlots = 16;

struct HookTable {
  std::mutex lock;
  std::array<HookSlot, kSlots> slots;
  std::atomic<int> used{0};  // lets every other send() skip the lock
};

HookTable& table() {
  // Never destroyed: threads may still send while the program exits.
  static NoDestructor<HookTable> t;
  return *t;
}

bool findHook(int descriptor, HookSlot& found) {
  HookTable& t = table();
  if (t.used.load(std::memory_order_acquire) == 0) return false;
  std::lock_guard guard(t.lock);
  for (const HookSlot& s : t.slots) {
    if (s.descriptor == descriptor && s.hook != nullptr) {
      found = s;
      return true;
    }
  }
  return false;
}

}  // namespace

bool installSendHook(intptr_t descriptor, SendHook hook, void* context) {
  if (descriptor < 0 || hook == nullptr) return false;
  HookTable& t = table();
  std::lock_guard guard(t.lock);
  for (HookSlot& s : t.slots) {
    if (s.hook == nullptr) {
      s = HookSlot{descriptor, hook, context};
      t.used.fetch_add(1, std::memory_order_release);
      return true;
    }
  }
  return false;
}

void removeSendHook(intptr_t descriptor) {
  HookTable& t = table();
  std::lock_guard guard(t.lock);
  for (HookSlot& s : t.slots) {
    if (s.descriptor == descriptor && s.hook != nullptr) {
      s = HookSlot{};
      t.used.fetch_sub(1, std::memory_order_release);
    }
  }
}

}  // namespace kestrium::platform

extern "C" ssize_t send(int fd, const void* data, size_t size, int flags) {
  kestrium::platform::HookSlot slot;
  if (kestrium::platform::findHook(fd, slot)) {
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
