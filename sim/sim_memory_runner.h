// Runs the simulated line on the far end of an in-memory line, in one process: in virtual time
// (a tick listener of the virtual clock, so every event falls on an exact virtual microsecond
// and a test is deterministic) or in real time (a thread of its own that polls every 1 ms).
#ifndef VELMORA_SIM_SIM_MEMORY_RUNNER_H
#define VELMORA_SIM_SIM_MEMORY_RUNNER_H

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/clock.h"
#include "platform/memory_line.h"
#include "sim/sim_line.h"

namespace velmora::sim {

class MemoryLineRunner {
 public:
  // Sets the far end's baud to the line's and the master's echo as configured.
  MemoryLineRunner(std::shared_ptr<platform::MemoryLine> line, LineConfig config = {});
  ~MemoryLineRunner();
  MemoryLineRunner(const MemoryLineRunner &) = delete;
  MemoryLineRunner &operator=(const MemoryLineRunner &) = delete;

  // The core without a lock: for set-up before Start, and in virtual time on the test's thread.
  SimLine &Core() { return core_; }
  // The core under the runner's lock, safe while the real-time thread runs.
  template <typename Fn>
  decltype(auto) WithCore(Fn &&fn) {
    std::lock_guard<std::mutex> lock(mutex_);
    return fn(core_);
  }

  // Virtual time: polls once now and then after every virtual millisecond of `clock`.
  void AttachVirtual(platform::VirtualClock &clock);
  // Real time: a thread polls every 1 ms until Stop().
  void StartRealTime();
  // Detaches from the clock or stops the thread; the destructor does it too.
  void Stop();

  // One step at the platform clock's present: read what has arrived, think, schedule output.
  void Poll();
  const std::shared_ptr<platform::MemoryLine> &Line() const { return line_; }

 private:
  void PollAt(uint64_t now_us);

  std::shared_ptr<platform::MemoryLine> line_;
  std::mutex mutex_;
  SimLine core_;
  platform::VirtualClock *clock_ = nullptr;
  int listener_id_ = 0;
  std::thread thread_;
  std::atomic<bool> running_{false};
  bool baud_mismatch_noted_ = false;
};

}  // namespace velmora::sim

#endif
