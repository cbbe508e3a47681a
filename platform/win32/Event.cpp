#include "platform/Event.h"

#include <windows.h>

#include <array>

#include "platform/win32/Win32Names.h"

namespace kestrium::platform {

struct Event::Impl {
  explicit Impl(HANDLE h) : handle(h) {}
  ~Impl() { CloseHandle(handle); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  HANDLE handle;
};

Event::Event() = default;
Event::~Event() = default;
Event::Event(Event&&) noexcept = default;
Event& Event::operator=(Event&&) noexcept = default;

bool Event::create(std::u16string_view name, bool manualReset) {
  close();
  const std::u16string kernelName = win32::kernelObjectName(name);
  HANDLE h = CreateEventW(nullptr, manualReset ? TRUE : FALSE, FALSE, win32::wideNameOrNull(kernelName));
  // The only way Win32 tells "opened" from "created"; nothing may run in between.
  const bool alreadyExisted = GetLastError() == ERROR_ALREADY_EXISTS;
  if (h == nullptr) return false;
  impl_ = std::make_unique<Impl>(h);
  existed_ = alreadyExisted;
  return true;
}

bool Event::set() { return impl_ && SetEvent(impl_->handle) != 0; }

bool Event::reset() { return impl_ && ResetEvent(impl_->handle) != 0; }

uint32_t Event::wait(uint32_t timeoutMs) {
  if (!impl_) return kWaitFailed;
  switch (WaitForSingleObject(impl_->handle, timeoutMs)) {
    case WAIT_OBJECT_0:
      return kWaitObject0;
    case WAIT_TIMEOUT:
      return kWaitTimeout;
    default:
      return kWaitFailed;
  }
}

void* Event::nativeHandle() const { return impl_ ? impl_->handle : nullptr; }

void Event::close() {
  impl_.reset();
  existed_ = false;
}

uint32_t waitAny(std::span<Event* const> events, uint32_t timeoutMs) {
  std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> handles{};
  if (events.empty() || events.size() > handles.size()) return kWaitFailed;
  for (size_t i = 0; i < events.size(); ++i) {
    if (events[i] == nullptr || events[i]->impl() == nullptr) return kWaitFailed;
    handles[i] = events[i]->impl()->handle;
  }
  const DWORD count = static_cast<DWORD>(events.size());
  const DWORD result = WaitForMultipleObjects(count, handles.data(), FALSE, timeoutMs);
  if (result < WAIT_OBJECT_0 + count) return result - WAIT_OBJECT_0;
  if (result == WAIT_TIMEOUT) return kWaitTimeout;
  return kWaitFailed;
}

std::string_view waitSupportProblem() { return {}; }

}  // namespace kestrium::platform
