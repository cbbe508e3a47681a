#pragma once

#include <cstdint>

namespace kestrium::platform {

// Wait results keep their Win32 numbers: the server logs them as they are, and a
// log line reads the same whichever backend produced it.
inline constexpr uint32_t kInfinite = 0xFFFFFFFFu;
inline constexpr uint32_t kWaitObject0 = 0;
inline constexpr uint32_t kWaitAbandoned = 0x80;
inline constexpr uint32_t kWaitTimeout = 258;
inline constexpr uint32_t kWaitFailed = 0xFFFFFFFFu;

// Outcome of waiting on a mutex. Abandoned means the previous owner ended while
// holding it; the waiter owns it now, as with Acquired.
enum class LockStatus : uint32_t {
  Acquired = kWaitObject0,
  Abandoned = kWaitAbandoned,
  Timeout = kWaitTimeout,
  Failed = kWaitFailed,
};

constexpr bool owns(LockStatus s) { return s == LockStatus::Acquired || s == LockStatus::Abandoned; }

}  // namespace kestrium::platform
