#include "platform/Event.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>

#include "platform/posix/Deadline.h"
#include "platform/posix/KernelObject.h"

namespace kestrium::platform {

using posix::ObjectKind;
using posix::Segment;

struct Event::Impl {
  std::shared_ptr<Segment> segment;  // the object of a named or private event
  uint32_t* word = nullptr;          // 1 signalled, 0 not
  bool manualReset = false;
  bool shared = false;  // named: other processes wait on the word too
};

namespace {

constexpr size_t kMaxWaitObjects = 64;

std::atomic_ref<uint32_t> wordOf(const Event::Impl& e) { return std::atomic_ref<uint32_t>(*e.word); }

bool tryConsume(const Event::Impl& e) {
  if (e.manualReset) return wordOf(e).load(std::memory_order_acquire) == 1;
  uint32_t expected = 1;
  return wordOf(e).compare_exchange_strong(expected, 0, std::memory_order_acq_rel);
}

long futex(uint32_t* word, int op, uint32_t value, const timespec* timeout, uint32_t value3) {
  return syscall(SYS_futex, word, op, value, timeout, nullptr, value3);
}

// Sleeps until one of the words may have changed from 0, the deadline passes (a
// null deadline means never), or a signal arrives. Returns 0, or an errno.
int sleepOnWords(std::span<Event* const> events, const timespec* deadline) {
  if (events.size() == 1) {
    const Event::Impl& e = *events[0]->impl();
    const int op = FUTEX_WAIT_BITSET | (e.shared ? 0 : FUTEX_PRIVATE_FLAG);
    return futex(e.word, op, 0, deadline, FUTEX_BITSET_MATCH_ANY) == 0 ? 0 : errno;
  }
  std::array<futex_waitv, kMaxWaitObjects> waiters{};
  for (size_t i = 0; i < events.size(); ++i) {
    const Event::Impl& e = *events[i]->impl();
    waiters[i].val = 0;
    waiters[i].uaddr = reinterpret_cast<uintptr_t>(e.word);
    waiters[i].flags = FUTEX_32 | (e.shared ? 0 : FUTEX_PRIVATE_FLAG);
  }
  const long r = syscall(SYS_futex_waitv, waiters.data(), static_cast<unsigned>(events.size()), 0u, deadline,
                         CLOCK_MONOTONIC);
  return r >= 0 ? 0 : errno;
}

int scan(std::span<Event* const> events) {
  for (size_t i = 0; i < events.size(); ++i) {
    if (tryConsume(*events[i]->impl())) return static_cast<int>(i);
  }
  return -1;
}

bool probeWaitv() {
  // A call with no waiters is rejected with EINVAL where the call exists at all.
  return !(syscall(SYS_futex_waitv, nullptr, 0u, 0u, nullptr, CLOCK_MONOTONIC) == -1 && errno == ENOSYS);
}

}  // namespace

Event::Event() = default;
Event::~Event() { close(); }

Event::Event(Event&& other) noexcept : impl_(std::move(other.impl_)), existed_(other.existed_) {}

Event& Event::operator=(Event&& other) noexcept {
  if (this != &other) {
    close();
    impl_ = std::move(other.impl_);
    existed_ = other.existed_;
  }
  return *this;
}

bool Event::create(std::u16string_view name, bool manualReset) {
  close();
  auto opened = posix::openSegment(name, ObjectKind::Event, 0, [manualReset](Segment& seg) {
    seg.header->manualReset = manualReset ? 1 : 0;
    seg.header->eventWord = 0;
  });
  if (!opened.segment) return false;
  impl_ = std::make_unique<Impl>();
  impl_->segment = std::move(opened.segment);
  impl_->word = &impl_->segment->header->eventWord;
  impl_->manualReset = impl_->segment->header->manualReset != 0;
  impl_->shared = !name.empty();
  existed_ = opened.existed;
  return true;
}

bool Event::set() {
  if (!impl_) return false;
  wordOf(*impl_).store(1, std::memory_order_release);
  // Wake every waiter, even for an auto-reset event: a thread waiting on several
  // events could otherwise absorb the one wake meant for another thread, which
  // would then sleep through a set event. The compare-and-swap picks the consumer.
  futex(impl_->word, FUTEX_WAKE | (impl_->shared ? 0 : FUTEX_PRIVATE_FLAG), INT_MAX, nullptr, 0);
  return true;
}

bool Event::reset() {
  if (!impl_) return false;
  wordOf(*impl_).store(0, std::memory_order_release);
  return true;
}

uint32_t Event::wait(uint32_t timeoutMs) {
  Event* self = this;
  return waitAny(std::span<Event* const>(&self, 1), timeoutMs);
}

// Events here are words in shared memory, not objects of the OS.
void* Event::nativeHandle() const { return nullptr; }

void Event::close() {
  if (!impl_) return;
  posix::releaseSegment(impl_->segment);
  impl_.reset();
  existed_ = false;
}

uint32_t waitAny(std::span<Event* const> events, uint32_t timeoutMs) {
  if (events.empty() || events.size() > kMaxWaitObjects) return kWaitFailed;
  for (Event* e : events) {
    if (e == nullptr || !e->valid()) return kWaitFailed;
  }
  const timespec deadline = posix::deadlineAfter(CLOCK_MONOTONIC, timeoutMs == kInfinite ? 0 : timeoutMs);
  for (;;) {
    if (int i = scan(events); i >= 0) return static_cast<uint32_t>(i);
    if (timeoutMs == 0) return kWaitTimeout;
    const int err = sleepOnWords(events, timeoutMs == kInfinite ? nullptr : &deadline);
    if (err == ETIMEDOUT) return kWaitTimeout;
    // EAGAIN: a word was no longer 0 when the kernel looked; EINTR: a signal.
    if (err != 0 && err != EAGAIN && err != EINTR) return kWaitFailed;
  }
}

std::string_view waitSupportProblem() {
  static const bool supported = probeWaitv();
  if (supported) return {};
  return "this kernel lacks futex_waitv (Linux 5.16 or later is needed to wait on several events)";
}

}  // namespace kestrium::platform
