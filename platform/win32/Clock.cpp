#include "platform/Clock.h"

#include <windows.h>
#include <mmsystem.h>

namespace kestrium::platform {

LocalTime localTime() {
  SYSTEMTIME st{};
  GetLocalTime(&st);
  LocalTime t;
  t.year = st.wYear;
  t.month = st.wMonth;
  t.dayOfWeek = st.wDayOfWeek;
  t.day = st.wDay;
  t.hour = st.wHour;
  t.minute = st.wMinute;
  t.second = st.wSecond;
  t.milliseconds = st.wMilliseconds;
  return t;
}

uint32_t tickCountMs() { return timeGetTime(); }

uint64_t monotonicNs() {
  static const uint64_t frequency = [] {
    LARGE_INTEGER f{};
    QueryPerformanceFrequency(&f);
    return static_cast<uint64_t>(f.QuadPart);
  }();
  LARGE_INTEGER now{};
  QueryPerformanceCounter(&now);
  const uint64_t ticks = static_cast<uint64_t>(now.QuadPart);
  // Whole seconds and the remainder apart, so that ticks * 1e9 cannot overflow.
  return ticks / frequency * 1'000'000'000ull + ticks % frequency * 1'000'000'000ull / frequency;
}

void sleepMs(uint32_t ms) { Sleep(ms); }

}  // namespace kestrium::platform
