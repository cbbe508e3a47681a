#pragma once

#include <cstddef>
#include <memory>
#include <utility>

namespace kestrium::platform {

// Holds a process-wide object that is never destroyed, so that code running at
// exit (static destructors, threads that outlive main) can still use it.
template <class T>
class NoDestructor {
 public:
  template <class... Args>
  explicit NoDestructor(Args&&... args) {
    std::construct_at(reinterpret_cast<T*>(storage_), std::forward<Args>(args)...);
  }
  NoDestructor(const NoDestructor&) = delete;
  NoDestructor& operator=(const NoDestructor&) = delete;

  T& operator*() { return *get(); }
  T* operator->() { return get(); }
  T* get() { return std::launder(reinterpret_cast<T*>(storage_)); }

 private:
  alignas(T) std::byte storage_[sizeof(T)];
};

}  // namespace kestrium::platform
