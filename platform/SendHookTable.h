#pragma once

// Internal to the backends: the table of diverted descriptors behind
// installSendHook(), shared by each backend's diversion of send().

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "platform/NoDestructor.h"
#include "platform/Socket.h"

namespace kestrium::platform::detail {

struct HookSlot {
  intptr_t descriptor = -1;
  SendHook hook = nullptr;
  void* context = nullptr;
};

// A handful of broadcasts at most run at once.
constexpr size_t kHookSlots = 16;

struct HookTable {
  std::mutex lock;
  std::array<HookSlot, kHookSlots> slots;
  std::atomic<int> used{0};  // lets every other send() skip the lock
};

inline HookTable& hookTable() {
  // Never destroyed: threads may still send while the program exits.
  static NoDestructor<HookTable> t;
  return *t;
}

inline bool findHook(intptr_t descriptor, HookSlot& found) {
  HookTable& t = hookTable();
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

inline bool addHook(intptr_t descriptor, SendHook hook, void* context) {
  if (descriptor < 0 || hook == nullptr) return false;
  HookTable& t = hookTable();
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

inline void dropHook(intptr_t descriptor) {
  HookTable& t = hookTable();
  std::lock_guard guard(t.lock);
  for (HookSlot& s : t.slots) {
    if (s.descriptor == descriptor && s.hook != nullptr) {
      s = HookSlot{};
      t.used.fetch_sub(1, std::memory_order_release);
    }
  }
}

}  // namespace kestrium::platform::detail
