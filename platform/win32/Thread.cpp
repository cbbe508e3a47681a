#include "platform/Thread.h"

#include <process.h>
#include <windows.h>

#include "platform/Text.h"
#include "platform/Wait.h"

namespace kestrium::platform {

namespace {

struct StartBlock {
  std::function<void()> body;
  // Set once the new thread runs our code, past the loader and the C runtime.
  HANDLE running = nullptr;
};

unsigned __stdcall threadMain(void* arg) {
  std::unique_ptr<StartBlock> block(static_cast<StartBlock*>(arg));
  std::function<void()> body = std::move(block->body);
  SetEvent(block->running);
  block.reset();
  body();
  return 0;
}

// SetThreadDescription exists from Windows 10 1607 on; older systems (and older
// wine) go without thread names, which only debuggers show.
void nameThread(HANDLE thread, std::string_view name) {
  using SetThreadDescriptionFn = HRESULT(WINAPI*)(HANDLE, PCWSTR);
  static const SetThreadDescriptionFn setDescription = [] {
    HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    FARPROC proc = kernel != nullptr ? GetProcAddress(kernel, "SetThreadDescription") : nullptr;
    // Through void(*)() so that the compiler accepts the cast to the real type.
    return reinterpret_cast<SetThreadDescriptionFn>(reinterpret_cast<void (*)()>(proc));
  }();
  if (setDescription == nullptr || name.empty()) return;
  const std::u16string wideName = toUtf16(name);
  setDescription(thread, reinterpret_cast<PCWSTR>(wideName.c_str()));
}

}  // namespace

struct Thread::Impl {
  explicit Impl(HANDLE h) : handle(h) {}
  ~Impl() { CloseHandle(handle); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  HANDLE handle;
};

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
  HANDLE running = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (running == nullptr) return false;
  auto block = std::make_unique<StartBlock>(StartBlock{std::move(body), running});
  // _beginthreadex rather than CreateThread so that the C runtime sets up its
  // per-thread state for the body.
  const uintptr_t h = _beginthreadex(nullptr, 0, &threadMain, block.get(), 0, nullptr);
  if (h == 0) {
    CloseHandle(running);
    return false;
  }
  block.release();  // the thread owns it now
  impl_ = std::make_unique<Impl>(reinterpret_cast<HANDLE>(h));
  // A new thread starts inside the loader and the C runtime, holding their locks.
  // Returning only once it runs the body means terminate() cannot kill it there
  // and leave those locks held for good, which would hang the process at exit.
  const HANDLE startedOrEnded[] = {running, impl_->handle};
  WaitForMultipleObjects(2, startedOrEnded, FALSE, INFINITE);
  CloseHandle(running);
  nameThread(impl_->handle, name);
  return true;
}

uint32_t Thread::join(uint32_t timeoutMs) {
  if (!impl_) return kWaitFailed;
  switch (WaitForSingleObject(impl_->handle, timeoutMs)) {
    case WAIT_OBJECT_0:
      impl_.reset();
      return kWaitObject0;
    case WAIT_TIMEOUT:
      return kWaitTimeout;
    default:
      return kWaitFailed;
  }
}

void Thread::terminate() {
  if (!impl_) return;
  TerminateThread(impl_->handle, 1);
  impl_.reset();
}

}  // namespace kestrium::platform
