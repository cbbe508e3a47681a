#include "platform/NamedMutex.h"

#include <windows.h>

#include "platform/win32/Win32Names.h"

namespace kestrium::platform {

struct NamedMutex::Impl {
  explicit Impl(HANDLE h) : handle(h) {}
  ~Impl() { CloseHandle(handle); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  HANDLE handle;
};

NamedMutex::NamedMutex() = default;
NamedMutex::~NamedMutex() = default;
NamedMutex::NamedMutex(NamedMutex&&) noexcept = default;
NamedMutex& NamedMutex::operator=(NamedMutex&&) noexcept = default;

bool NamedMutex::create(std::u16string_view name, bool initialOwner) {
  close();
  const std::u16string kernelName = win32::kernelObjectName(name);
  HANDLE h = CreateMutexW(nullptr, initialOwner ? TRUE : FALSE, win32::wideNameOrNull(kernelName));
  // The only way Win32 tells "opened" from "created"; nothing may run in between.
  const bool alreadyExisted = GetLastError() == ERROR_ALREADY_EXISTS;
  if (h == nullptr) return false;
  impl_ = std::make_unique<Impl>(h);
  existed_ = alreadyExisted;
  return true;
}

LockStatus NamedMutex::wait(uint32_t timeoutMs) {
  if (!impl_) return LockStatus::Failed;
  switch (WaitForSingleObject(impl_->handle, timeoutMs)) {
    case WAIT_OBJECT_0:
      return LockStatus::Acquired;
    case WAIT_ABANDONED:
      return LockStatus::Abandoned;
    case WAIT_TIMEOUT:
      return LockStatus::Timeout;
    default:
      return LockStatus::Failed;
  }
}

bool NamedMutex::release() { return impl_ && ReleaseMutex(impl_->handle) != 0; }

void NamedMutex::close() {
  impl_.reset();
  existed_ = false;
}

}  // namespace kestrium::platform
