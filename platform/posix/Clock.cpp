#include "platform/Clock.h"

#include <time.h>

#include <cerrno>

#include "platform/posix/Deadline.h"

namespace kestrium::platform {

LocalTime localTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  localtime_r(&now.tv_sec, &parts);
  LocalTime t;
  t.year = static_cast<uint16_t>(parts.tm_year + 1900);
  t.month = static_cast<uint16_t>(parts.tm_mon + 1);
  t.dayOfWeek = static_cast<uint16_t>(parts.tm_wday);
  t.day = static_cast<uint16_t>(parts.tm_mday);
  t.hour = static_cast<uint16_t>(parts.tm_hour);
  t.minute = static_cast<uint16_t>(parts.tm_min);
  // A leap second shows as :60 here; a SYSTEMTIME never does.
  t.second = static_cast<uint16_t>(parts.tm_sec > 59 ? 59 : parts.tm_sec);
  t.milliseconds = static_cast<uint16_t>(now.tv_nsec / 1000000);
  return t;
}

uint64_t monotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

uint32_t tickCountMs() { return static_cast<uint32_t>(monotonicNs() / 1000000ull); }

void sleepMs(uint32_t ms) {
  const timespec until = posix::deadlineAfter(CLOCK_MONOTONIC, ms);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

}  // namespace kestrium::platform
