// The millisecond clock, sleeping, and the virtual clock that tests install in its place.
#ifndef VELMORA_PLATFORM_CLOCK_H
#define VELMORA_PLATFORM_CLOCK_H

#include <cstdint>
#include <functional>

namespace velmora::platform {

// 32-bit millisecond clock that wraps; only differences count.
uint32_t NowMs();
// The same time base in microseconds, not wrapped. Used to pace bytes on an in-memory line.
uint64_t NowMicros();
// Sleeps whole milliseconds; under a virtual clock this advances the clock instead.
void SleepMs(uint32_t ms);

// The one place where clock values are subtracted: milliseconds from earlier to later.
inline uint32_t ElapsedMs(uint32_t later, uint32_t earlier) { return later - earlier; }

// A clock that moves only when told to. While one exists it replaces the real clock for the
// whole process, and SleepMs advances it one millisecond at a time, running the tick listeners
// after each step. Meant for single-threaded tests.
class VirtualClock {
 public:
  explicit VirtualClock(uint64_t start_ms = 100000);
  ~VirtualClock();
  VirtualClock(const VirtualClock &) = delete;
  VirtualClock &operator=(const VirtualClock &) = delete;

  uint64_t NowMicros() const;
  uint32_t NowMs() const { return static_cast<uint32_t>(NowMicros() / 1000); }
  // Sets the time without running listeners; for wrap tests.
  void SetMs(uint64_t ms);
  void AdvanceMs(uint32_t ms);
  // Listener ids are positive; remove with the id.
  int AddTickListener(std::function<void(uint64_t now_us)> listener);
  void RemoveTickListener(int id);

 private:
  struct State;
  State *state_;
};

// The virtual clock in force, or null.
VirtualClock *InstalledVirtualClock();

namespace os {
uint64_t MonotonicMicros();
void SleepMicros(uint64_t us);
}  // namespace os

}  // namespace velmora::platform

#endif
