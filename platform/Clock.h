#pragma once

#include <cstdint>

namespace kestrium::platform {

// Wall-clock time of day in the local time zone, with the fields of a SYSTEMTIME.
struct LocalTime {
  uint16_t year = 0;
  uint16_t month = 0;      // 1..12
  uint16_t dayOfWeek = 0;  // 0 = Sunday
  uint16_t day = 0;        // 1..31
  uint16_t hour = 0;
  uint16_t minute = 0;
  uint16_t second = 0;
  uint16_t milliseconds = 0;
};

LocalTime localTime();

// Milliseconds since an arbitrary start, wrapping at 2^32 like timeGetTime.
uint32_t tickCountMs();
// Monotonic nanoseconds, for measuring intervals.
uint64_t monotonicNs();

void sleepMs(uint32_t ms);

}  // namespace kestrium::platform
