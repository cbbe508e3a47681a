#include "platform/NamedMutex.h"

#include <pthread.h>
#include <time.h>

#include <cerrno>

#include "platform/posix/Deadline.h"
#include "platform/posix/KernelObject.h"

namespace kestrium::platform {

using posix::ObjectKind;
using posix::Segment;

struct NamedMutex::Impl {
  std::shared_ptr<Segment> segment;
  pthread_mutex_t* mutex() const { return &segment->header->mutex; }
};

namespace {

void initialiseMutex(Segment& seg, bool initialOwner) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&seg.header->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
  if (initialOwner && pthread_mutex_lock(&seg.header->mutex) == 0) ++seg.held;
}

}  // namespace

NamedMutex::NamedMutex() = default;
NamedMutex::~NamedMutex() { close(); }

NamedMutex::NamedMutex(NamedMutex&& other) noexcept
    : impl_(std::move(other.impl_)), existed_(other.existed_) {}

NamedMutex& NamedMutex::operator=(NamedMutex&& other) noexcept {
  if (this != &other) {
    close();
    impl_ = std::move(other.impl_);
    existed_ = other.existed_;
  }
  return *this;
}

bool NamedMutex::create(std::u16string_view name, bool initialOwner) {
  close();
  auto opened = posix::openSegment(name, ObjectKind::Mutex, 0,
                                   [initialOwner](Segment& seg) { initialiseMutex(seg, initialOwner); });
  if (!opened.segment) return false;
  impl_ = std::make_unique<Impl>();
  impl_->segment = std::move(opened.segment);
  existed_ = opened.existed;
  return true;
}

LockStatus NamedMutex::wait(uint32_t timeoutMs) {
  if (!impl_) return LockStatus::Failed;
  int r;
  if (timeoutMs == 0) {
    r = pthread_mutex_trylock(impl_->mutex());
  } else if (timeoutMs == kInfinite) {
    r = pthread_mutex_lock(impl_->mutex());
  } else {
    // timedlock, not clocklock: gcc 12's ThreadSanitizer does not intercept the
    // latter. A jump of the wall clock can stretch or cut this one wait.
    const timespec deadline = posix::deadlineAfter(CLOCK_REALTIME, timeoutMs);
    r = pthread_mutex_timedlock(impl_->mutex(), &deadline);
  }
  switch (r) {
    case 0:
      ++impl_->segment->held;
      return LockStatus::Acquired;
    case EOWNERDEAD:
      // The owner died holding it. We own it now; marking it consistent keeps it
      // usable (otherwise the next unlock would make it unrecoverable).
      pthread_mutex_consistent(impl_->mutex());
      ++impl_->segment->held;
      return LockStatus::Abandoned;
    case EBUSY:
    case ETIMEDOUT:
      return LockStatus::Timeout;
    default:
      return LockStatus::Failed;
  }
}

bool NamedMutex::release() {
  if (!impl_ || pthread_mutex_unlock(impl_->mutex()) != 0) return false;
  --impl_->segment->held;
  return true;
}

void NamedMutex::close() {
  if (!impl_) return;
  posix::releaseSegment(impl_->segment);
  impl_.reset();
  existed_ = false;
}

}  // namespace kestrium::platform
