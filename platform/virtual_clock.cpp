// Virtual time for deterministic tests of the link layer and the worker's pass.
#include <atomic>
#include <map>

#include "platform/clock.h"

namespace velmora::platform {
namespace {
std::atomic<VirtualClock *> g_installed{nullptr};
}  // namespace

struct VirtualClock::State {
  std::atomic<uint64_t> now_us{0};
  std::map<int, std::function<void(uint64_t)>> listeners;
  int next_id = 1;
  bool in_tick = false;
};

VirtualClock::VirtualClock(uint64_t start_ms) : state_(new State) {
  state_->now_us = start_ms * 1000;
  g_installed.store(this);
}

VirtualClock::~VirtualClock() {
  VirtualClock *expected = this;
  g_installed.compare_exchange_strong(expected, nullptr);
  delete state_;
}

uint64_t VirtualClock::NowMicros() const { return state_->now_us.load(); }

void VirtualClock::SetMs(uint64_t ms) { state_->now_us.store(ms * 1000); }

void VirtualClock::AdvanceMs(uint32_t ms) {
  for (uint32_t i = 0; i < ms; ++i) {
    uint64_t now = state_->now_us.load() + 1000;
    state_->now_us.store(now);
    // A listener that sleeps must not recurse into the listeners.
    if (state_->in_tick) continue;
    state_->in_tick = true;
    auto listeners = state_->listeners;
    for (auto &entry : listeners) entry.second(now);
    state_->in_tick = false;
  }
}

int VirtualClock::AddTickListener(std::function<void(uint64_t)> listener) {
  int id = state_->next_id++;
  state_->listeners.emplace(id, std::move(listener));
  return id;
}

void VirtualClock::RemoveTickListener(int id) { state_->listeners.erase(id); }

VirtualClock *InstalledVirtualClock() { return g_installed.load(); }

uint64_t NowMicros() {
  if (VirtualClock *clock = InstalledVirtualClock()) return clock->NowMicros();
  return os::MonotonicMicros();
}

uint32_t NowMs() { return static_cast<uint32_t>(NowMicros() / 1000); }

void SleepMs(uint32_t ms) {
  if (VirtualClock *clock = InstalledVirtualClock()) {
    clock->AdvanceMs(ms);
    return;
  }
  if (ms > 0) os::SleepMicros(static_cast<uint64_t>(ms) * 1000);
}

}  // namespace velmora::platform
