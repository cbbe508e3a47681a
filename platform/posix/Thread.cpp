#include "platform/Thread.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "platform/Wait.h"

namespace kestrium::platform {

namespace {

// Set by the thread as its body returns. A timed join waits for this and then
// joins for real: pthread_clockjoin_np would do both, but ThreadSanitizer does
// not know it and would miss that the thread's writes come before the join.
struct Finished {
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;
};

struct StartBlock {
  std::function<void()> body;
  std::string name;
  std::shared_ptr<Finished> finished;
};

}  // namespace

struct Thread::Impl {
  pthread_t thread{};
  std::shared_ptr<Finished> finished;  // shared: a thread given up may outlive this
};

namespace {

void* trampoline(void* arg) {
  std::unique_ptr<StartBlock> block(static_cast<StartBlock*>(arg));
  if (!block->name.empty()) {
    // The kernel keeps 15 bytes of a thread name.
    pthread_setname_np(pthread_self(), block->name.substr(0, 15).c_str());
  }
  block->body();
  {
    std::lock_guard guard(block->finished->mutex);
    block->finished->done = true;
  }
  block->finished->changed.notify_all();
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
  auto finished = std::make_shared<Finished>();
  auto block = std::make_unique<StartBlock>(StartBlock{std::move(body), std::string(name), finished});
  auto impl = std::make_unique<Impl>();
  impl->finished = std::move(finished);
  if (pthread_create(&impl->thread, nullptr, trampoline, block.get()) != 0) return false;
  block.release();  // the thread owns it now
  impl_ = std::move(impl);
  return true;
}

uint32_t Thread::join(uint32_t timeoutMs) {
  if (!impl_) return kWaitFailed;
  if (timeoutMs != kInfinite) {
    Finished& f = *impl_->finished;
    std::unique_lock guard(f.mutex);
    if (!f.changed.wait_for(guard, std::chrono::milliseconds(timeoutMs), [&] { return f.done; })) return kWaitTimeout;
  }
  // The body has returned: this join waits only for the thread's own exit.
  if (pthread_join(impl_->thread, nullptr) != 0) return kWaitFailed;
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
