#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "platform/Wait.h"

namespace kestrium::platform {

// A Win32-style event. An auto-reset event stays set until exactly one wait
// consumes it; a manual-reset event stays set until reset() and releases every
// waiter. Named events are shared between processes; an empty name makes a
// private one. Opening an existing named event keeps the reset mode it was
// created with.
class Event {
 public:
  Event();
  ~Event();
  Event(Event&&) noexcept;
  Event& operator=(Event&&) noexcept;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  // Creates the event (not signalled) or opens the existing one. Returns valid().
  bool create(std::u16string_view name, bool manualReset = false);

  bool valid() const { return impl_ != nullptr; }
  bool existed() const { return existed_; }

  bool set();
  bool reset();
  // kWaitObject0, kWaitTimeout or kWaitFailed.
  uint32_t wait(uint32_t timeoutMs);
  void close();

  // The OS's own handle of the event, for a library that signals it itself (an
  // encoder driver's completion events); null where events are not OS objects.
  void* nativeHandle() const;

  struct Impl;
  Impl* impl() const { return impl_.get(); }

 private:
  std::unique_ptr<Impl> impl_;
  bool existed_ = false;
};

// Waits until any of the events is signalled. Returns the lowest index among the
// signalled ones (consuming that event if it is auto-reset), kWaitTimeout, or
// kWaitFailed (an invalid event, more than 64 events, or no kernel support).
uint32_t waitAny(std::span<Event* const> events, uint32_t timeoutMs);

// Empty when the waits of this machine work; otherwise a sentence that says why
// not (an old kernel), for the server to log at start-up.
std::string_view waitSupportProblem();

}  // namespace kestrium::platform
