// Runs the simulated line on a pseudo-terminal in real time: a master application opens the
// terminal's path as its serial port. The runner paces the bytes itself, since a pseudo-terminal
// hands them over at once: each byte is written when it would have fully arrived on a real line,
// and the master's bytes, read all at once, are taken in one character time apart.
#ifndef VELMORA_SIM_SIM_PTY_RUNNER_H
#define VELMORA_SIM_SIM_PTY_RUNNER_H

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/sim_line.h"

namespace velmora::sim {

class PtyRunner {
 public:
  explicit PtyRunner(LineConfig config = {});
  ~PtyRunner();
  PtyRunner(const PtyRunner &) = delete;
  PtyRunner &operator=(const PtyRunner &) = delete;

  // Creates the pseudo-terminal in raw mode; false with the reason in *error.
  bool Open(std::string *error);
  // The path a master opens, such as /dev/pts/3; empty before Open.
  const std::string &DevicePath() const { return path_; }

  SimLine &Core() { return core_; }
  template <typename Fn>
  decltype(auto) WithCore(Fn &&fn) {
    std::lock_guard<std::mutex> lock(mutex_);
    return fn(core_);
  }

  // One step: read what the master sent, think, write what is due.
  void Poll();
  // Polls every 1 ms on the calling thread until should_stop() is true.
  void RunUntil(const std::function<bool()> &should_stop);
  // Or on a thread of its own, until Stop().
  void Start();
  void Stop();
  void Close();

 private:
  void WriteDue(uint64_t now_us);
  // Clears the odd-parity flag a master's settings leave behind (see the .cpp).
  void ClearStaleParity();

  std::mutex mutex_;
  SimLine core_;
  int fd_ = -1;
  std::string path_;
  std::deque<OutByte> queue_;
  std::vector<uint8_t> echo_;
  // The master's bytes as a real line would deliver them: a pseudo-terminal hands a whole frame
  // over at once, so each byte is taken to arrive one character time after the one before.
  std::deque<OutByte> incoming_;
  uint64_t rx_line_free_us_ = 0;
  std::thread thread_;
  std::atomic<bool> running_{false};
  bool connected_ = false;
};

}  // namespace velmora::sim

#endif
