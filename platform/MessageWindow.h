#pragma once

#include <functional>
#include <memory>
#include <string_view>

namespace kestrium::platform {

// The main thread's message loop and the window it belongs to. A server ends
// through it: whoever wants the process to end destroys the window, the loop's
// thread runs onDestroy, and onDestroy asks the loop to quit. On Windows this is a
// real window (shown or hidden) with its message queue; elsewhere there is no
// window, only the loop, and termination signals destroy it.
class MessageWindow {
 public:
  MessageWindow();
  ~MessageWindow();
  MessageWindow(const MessageWindow&) = delete;
  MessageWindow& operator=(const MessageWindow&) = delete;

  // Registers the window class and creates the window, both called name, shown
  // as the process was asked to show its window when visible is true, else
  // hidden. False when the window cannot be made.
  bool create(std::u16string_view name, bool visible, std::function<void()> onDestroy);

  // Runs the loop on this thread until quit(); returns the code given to quit().
  int run();

  // From any thread: destroy the window (a posted WM_DESTROY). On POSIX also safe
  // inside a signal handler.
  void postDestroy();

  // From the loop's thread, typically inside onDestroy: end run() with code.
  void quit(int code);

  // SIGINT, SIGTERM and SIGHUP (POSIX) or console control events (Windows)
  // destroy the window, so that they end the process the same way.
  void destroyOnTerminationSignals();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace kestrium::platform
