// The simulated line on the far end of an in-memory line.
#include "sim/sim_memory_runner.h"

namespace velmora::sim {

using platform::MemoryLine;

MemoryLineRunner::MemoryLineRunner(std::shared_ptr<MemoryLine> line, LineConfig config)
    : line_(std::move(line)), core_(config) {
  line_->SetEndBaud(MemoryLine::kFarEnd, config.baud);
  line_->SetMasterEcho(config.echo);
}

MemoryLineRunner::~MemoryLineRunner() { Stop(); }

void MemoryLineRunner::AttachVirtual(platform::VirtualClock &clock) {
  Stop();
  clock_ = &clock;
  listener_id_ = clock.AddTickListener([this](uint64_t now_us) { PollAt(now_us); });
  PollAt(clock.NowMicros());
}

void MemoryLineRunner::StartRealTime() {
  Stop();
  running_ = true;
  thread_ = std::thread([this] {
    while (running_.load()) {
      Poll();
      platform::os::SleepMicros(1000);
    }
  });
}

void MemoryLineRunner::Stop() {
  if (clock_) {
    // A clock that has gone already took its listeners with it.
    if (platform::InstalledVirtualClock() == clock_) clock_->RemoveTickListener(listener_id_);
    clock_ = nullptr;
  }
  running_ = false;
  if (thread_.joinable()) thread_.join();
}

void MemoryLineRunner::Poll() { PollAt(platform::NowMicros()); }

void MemoryLineRunner::PollAt(uint64_t now_us) {
  std::lock_guard<std::mutex> lock(mutex_);
  MemoryLine::TimedByte chunk[256];
  for (;;) {
    uint32_t got = line_->ReadTimed(MemoryLine::kFarEnd, chunk, 256);
    // Bytes sent at another rate arrive as garbage; the device cannot read them.
    bool readable = line_->EndBaud(MemoryLine::kMasterEnd) == core_.Config().baud;
    if (got > 0 && !readable && !baud_mismatch_noted_) {
      core_.Log().Note(chunk[0].arrival_us, "master at another baud rate: bytes not readable");
      baud_mismatch_noted_ = true;
    }
    if (readable) baud_mismatch_noted_ = false;
    for (uint32_t i = 0; i < got && readable; ++i) core_.Receive(chunk[i].value, chunk[i].arrival_us, now_us);
    if (got < 256) break;
  }
  core_.Advance(now_us);
  for (const OutByte &out : core_.TakeOutput()) line_->WriteAt(MemoryLine::kFarEnd, &out.value, 1, out.start_us);
}

}  // namespace velmora::sim
