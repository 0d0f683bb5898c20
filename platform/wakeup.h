// What wakes a port's worker from its wait: raised from any thread, taken by the worker. It is
// both a descriptor that polls readable while raised (for waits on a device) and a condition
// that an in-memory line's wait sleeps on; a line that receives bytes nudges the waiter too.
#ifndef VELMORA_PLATFORM_WAKEUP_H
#define VELMORA_PLATFORM_WAKEUP_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace velmora::platform {

class Wakeup {
 public:
  Wakeup();
  ~Wakeup();
  Wakeup(const Wakeup &) = delete;
  Wakeup &operator=(const Wakeup &) = delete;

  // Makes the current or the next wait return; raises stay until taken.
  void Raise();
  // True if raised since the last take; lowers it.
  bool Take();
  // True if raised; leaves it raised.
  bool Raised();
#if defined(_WIN32)
  // A manual-reset event, signalled while raised; null if the OS gave none.
  void *Event() const { return event_; }
#else
  // Readable while raised; -1 if the OS gave no descriptor.
  int Fd() const { return fd_; }
#endif

  // For in-memory lines: wakes a Sleep without raising.
  void Nudge();
  // Sleeps in real time until raised, nudged or until deadline_us on the platform clock.
  void Sleep(uint64_t deadline_us);

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool raised_ = false;
  bool nudged_ = false;
#if defined(_WIN32)
  void *event_ = nullptr;
#else
  std::atomic<bool> fd_set_{false};
  int fd_ = -1;
#endif
};

}  // namespace velmora::platform

#endif
