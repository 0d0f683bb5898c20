// The real clock and sleep on Windows: the performance counter, which wall-clock changes don't move.
#include <windows.h>

#include "platform/clock.h"

namespace velmora::platform::os {

uint64_t MonotonicMicros() {
  static const uint64_t frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return static_cast<uint64_t>(f.QuadPart);
  }();
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  const uint64_t ticks = static_cast<uint64_t>(now.QuadPart);
  // Split, so that the product cannot overflow after a long uptime.
  return ticks / frequency * 1000000u + ticks % frequency * 1000000u / frequency;
}

// Sleep() counts whole milliseconds; while a worker runs the timer runs at 1 ms (thread.cpp),
// so a short sleep is not stretched to the 15.6 ms default tick.
void SleepMicros(uint64_t us) { ::Sleep(static_cast<DWORD>((us + 999) / 1000)); }

}  // namespace velmora::platform::os
