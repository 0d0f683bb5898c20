// Wakeup on POSIX: an eventfd beside the condition variable.
#include "platform/wakeup.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "platform/clock.h"

namespace velmora::platform {
namespace {
constexpr uint64_t kHourUs = 3600ull * 1000000u;
}  // namespace

Wakeup::Wakeup() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Wakeup::~Wakeup() {
  if (fd_ >= 0) close(fd_);
}

void Wakeup::Raise() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    raised_ = true;
  }
  cv_.notify_all();
  // One count in the descriptor is enough, however often it is raised.
  if (fd_ >= 0 && !fd_set_.exchange(true)) {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t put = write(fd_, &one, sizeof one);
  }
}

bool Wakeup::Take() {
  // The descriptor first: a raise that lands between the two steps then leaves it readable
  // (a spare wake) rather than a raised flag behind an empty descriptor (a lost one).
  // The read is unconditional: a raise's write may land just after the flag was cleared.
  if (fd_ >= 0) {
    fd_set_.store(false);
    uint64_t count;
    [[maybe_unused]] ssize_t got = read(fd_, &count, sizeof count);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  const bool was = raised_;
  raised_ = false;
  return was;
}

bool Wakeup::Raised() {
  std::lock_guard<std::mutex> lock(mutex_);
  return raised_;
}

void Wakeup::Nudge() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    nudged_ = true;
  }
  cv_.notify_all();
}

void Wakeup::Sleep(uint64_t deadline_us) {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!raised_ && !nudged_) {
    const uint64_t now = os::MonotonicMicros();
    if (now >= deadline_us) break;
    // Without a deadline (the largest value) wait in hour-long rounds: the sum would overflow.
    cv_.wait_for(lock, std::chrono::microseconds(std::min<uint64_t>(deadline_us - now, kHourUs)));
  }
  nudged_ = false;
}

}  // namespace velmora::platform
