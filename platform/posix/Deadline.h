#pragma once

#include <time.h>

#include <cstdint>

namespace kestrium::platform::posix {

// The absolute time ms milliseconds from now on clock, as the timed waits take it.
inline timespec deadlineAfter(clockid_t clock, uint32_t ms) {
  timespec t{};
  clock_gettime(clock, &t);
  t.tv_sec += ms / 1000;
  t.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
  if (t.tv_nsec >= 1000000000L) {
    t.tv_sec += 1;
    t.tv_nsec -= 1000000000L;
  }
  return t;
}

}  // namespace kestrium::platform::posix
