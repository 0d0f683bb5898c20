// The real clock and sleep on POSIX: CLOCK_MONOTONIC, so that wall-clock changes don't move it.
#include <cerrno>
#include <ctime>

#include "platform/clock.h"

namespace velmora::platform::os {

uint64_t MonotonicMicros() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

void SleepMicros(uint64_t us) {
  timespec request{static_cast<time_t>(us / 1000000u), static_cast<long>((us % 1000000u) * 1000u)};
  while (nanosleep(&request, &request) != 0 && errno == EINTR) {
  }
}

}  // namespace velmora::platform::os
