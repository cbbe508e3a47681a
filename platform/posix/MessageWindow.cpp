#include "platform/MessageWindow.h"

#include <signal.h>

#include <atomic>

#include "platform/Event.h"
#include "platform/Wait.h"

namespace kestrium::platform {

struct MessageWindow::Impl {
  Event wake;  // rung for every posted message
  std::atomic<bool> destroyPosted{false};
  std::atomic<bool> quitPosted{false};
  int quitCode = 0;
  bool destroyed = false;
  std::function<void()> onDestroy;
};

namespace {

std::atomic<MessageWindow*> signalTarget{nullptr};

// Only an atomic store and a futex wake: both safe in a signal handler.
void onTerminationSignal(int) {
  if (MessageWindow* window = signalTarget.load()) window->postDestroy();
}

}  // namespace

MessageWindow::MessageWindow() = default;

MessageWindow::~MessageWindow() {
  MessageWindow* self = this;
  signalTarget.compare_exchange_strong(self, nullptr);
}

bool MessageWindow::create(std::u16string_view /*name*/, bool /*visible*/, std::function<void()> onDestroy) {
  auto impl = std::make_unique<Impl>();
  if (!impl->wake.create({})) return false;
  impl->onDestroy = std::move(onDestroy);
  impl_ = std::move(impl);
  return true;
}

int MessageWindow::run() {
  if (!impl_) return 0;
  for (;;) {
    if (impl_->destroyPosted.exchange(false) && !impl_->destroyed) {
      impl_->destroyed = true;
      if (impl_->onDestroy) impl_->onDestroy();
    }
    if (impl_->quitPosted.load()) return impl_->quitCode;
    impl_->wake.wait(kInfinite);
  }
}

void MessageWindow::postDestroy() {
  if (!impl_) return;
  impl_->destroyPosted.store(true);
  impl_->wake.set();
}

void MessageWindow::quit(int code) {
  if (!impl_) return;
  impl_->quitCode = code;
  impl_->quitPosted.store(true);
  impl_->wake.set();
}

void MessageWindow::destroyOnTerminationSignals() {
  signalTarget.store(this);
  struct sigaction action {};
  action.sa_handler = onTerminationSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &action, nullptr);
}

}  // namespace kestrium::platform
