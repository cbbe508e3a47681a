#include "platform/Thread.h"

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <string>

#include "platform/Wait.h"
#include "platform/posix/Deadline.h"

namespace kestrium::platform {

struct Thread::Impl {
  pthread_t thread{};
};

namespace {

struct StartBlock {
  std::function<void()> body;
  std::string name;
};

void* trampoline(void* arg) {
  std::unique_ptr<StartBlock> block(static_cast<StartBlock*>(arg));
  if (!block->name.empty()) {
    // The kernel keeps 15 bytes of a thread name.
    pthread_setname_np(pthread_self(), block->name.substr(0, 15).c_str());
  }
  block->body();
  return nullptr;
}

}  // namespace

Thread::Thread() = default;
Thread::~Thread() {
  if (impl_) join(kInfinite);
}
Thread::Thread(Thread&&) noexcept = default;
Thread& Thread::operator=(Thread&& other) noexcept {
  if (this != &other) {
    if (impl_) join(kInfinite);
    impl_ = std::move(other.impl_);
  }
  return *this;
}

bool Thread::start(std::function<void()> body, std::string_view name) {
  if (impl_ || !body) return false;
  auto block = std::make_unique<StartBlock>(StartBlock{std::move(body), std::string(name)});
  auto impl = std::make_unique<Impl>();
  if (pthread_create(&impl->thread, nullptr, trampoline, block.get()) != 0) return false;
  block.release();  // the thread owns it now
  impl_ = std::move(impl);
  return true;
}

uint32_t Thread::join(uint32_t timeoutMs) {
  if (!impl_) return kWaitFailed;
  int r;
  if (timeoutMs == kInfinite) {
    r = pthread_join(impl_->thread, nullptr);
  } else {
    const timespec deadline = posix::deadlineAfter(CLOCK_MONOTONIC, timeoutMs);
    r = pthread_clockjoin_np(impl_->thread, nullptr, CLOCK_MONOTONIC, &deadline);
  }
  if (r == ETIMEDOUT || r == EBUSY) return kWaitTimeout;
  if (r != 0) return kWaitFailed;
  impl_.reset();
  return kWaitObject0;
}

void Thread::terminate() {
  if (!impl_) return;
  // POSIX has no safe way to end another thread: leave it running on its own.
  pthread_detach(impl_->thread);
  impl_.reset();
}

}  // namespace kestrium::platform
