#pragma once

#include <memory>
#include <string_view>

#include "platform/Wait.h"

namespace kestrium::platform {

// A mutex shared between processes by name, with the semantics of a Win32 mutex:
// owned by a thread, recursive, and reported abandoned to the next waiter when its
// owner thread or process ends while holding it. An empty name makes a mutex
// private to this process.
class NamedMutex {
 public:
  NamedMutex();
  ~NamedMutex();
  NamedMutex(NamedMutex&&) noexcept;
  NamedMutex& operator=(NamedMutex&&) noexcept;
  NamedMutex(const NamedMutex&) = delete;
  NamedMutex& operator=(const NamedMutex&) = delete;

  // Creates the mutex or opens the existing one. initialOwner takes effect only
  // when this call created it (an existing mutex is opened unowned). Returns
  // valid(); a previous handle held by this object is closed first.
  bool create(std::u16string_view name, bool initialOwner);

  bool valid() const { return impl_ != nullptr; }
  // True when a live process already held an object of this name.
  bool existed() const { return existed_; }

  LockStatus wait(uint32_t timeoutMs);
  // False when the calling thread does not own the mutex; nothing changes then.
  bool release();
  void close();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
  bool existed_ = false;
};

}  // namespace kestrium::platform
