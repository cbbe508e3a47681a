#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

namespace kestrium::platform {

// An OS thread that can be waited for with a time limit. The destructor waits
// without limit for a thread that was neither joined nor abandoned.
class Thread {
 public:
  Thread();
  ~Thread();
  Thread(Thread&&) noexcept;
  Thread& operator=(Thread&&) noexcept;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // name shows in debuggers and `top -H` (cut to 15 bytes where the OS wants).
  bool start(std::function<void()> body, std::string_view name = {});

  // kWaitObject0 once the thread has ended (it is then no longer joinable),
  // kWaitTimeout if it still runs after timeoutMs, kWaitFailed without a thread.
  uint32_t join(uint32_t timeoutMs);

  // Gives up on a thread that would not end. On Windows the thread is terminated;
  // elsewhere there is no safe way to do that, so it is detached and left running.
  // Either way this object no longer refers to it.
  void terminate();

  bool joinable() const { return impl_ != nullptr; }

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace kestrium::platform
