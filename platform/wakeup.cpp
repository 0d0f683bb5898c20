// The parts of Wakeup that every OS shares: the flag and the condition an in-memory line sleeps on.
#include "platform/wakeup.h"

#include <algorithm>
#include <chrono>

#include "platform/clock.h"

namespace velmora::platform {
namespace {
constexpr uint64_t kHourUs = 3600ull * 1000000u;
}  // namespace

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
