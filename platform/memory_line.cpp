// The in-memory line and its serial-line ends.
#include "platform/memory_line.h"

#include <algorithm>
#include <map>

#include "platform/clock.h"

namespace velmora::platform {
namespace {

// Named lines; entries are weak so that a line lives as long as its creator keeps it.
struct Registry {
  std::mutex mutex;
  std::map<std::string, std::weak_ptr<MemoryLine>> lines;
};
Registry &TheRegistry() {
  static Registry *registry = new Registry;  // never destroyed: ends may close during exit
  return *registry;
}

class MemoryEnd final : public SerialLine {
 public:
  MemoryEnd(std::shared_ptr<MemoryLine> line, int end) : line_(std::move(line)), end_(end) {}
  ~MemoryEnd() override { line_->ReleaseEnd(end_); }

 private:
  bool DoSetBaud(uint32_t baud) override {
    line_->SetEndBaud(end_, baud);
    return true;
  }
  bool DoSetRts(bool on) override {
    line_->SetLine(end_, MemoryLine::EventKind::kRts, on);
    return true;
  }
  bool DoSetDtr(bool on) override {
    line_->SetLine(end_, MemoryLine::EventKind::kDtr, on);
    return true;
  }
  uint32_t DoBytesWaiting() override { return line_->Waiting(end_); }
  int32_t DoRead(uint8_t *buffer, uint32_t max) override {
    if (line_->IsCut()) {
      MarkLost();
      return -1;
    }
    MemoryLine::TimedByte chunk[256];
    uint32_t total = 0;
    while (total < max) {
      uint32_t want = std::min<uint32_t>(max - total, 256);
      uint32_t got = line_->ReadTimed(end_, chunk, want);
      for (uint32_t i = 0; i < got; ++i) buffer[total + i] = chunk[i].value;
      total += got;
      if (got < want) break;
    }
    return static_cast<int32_t>(total);
  }
  int32_t DoWrite(const uint8_t *bytes, uint32_t count) override {
    if (line_->IsCut()) {
      MarkLost();
      return -1;
    }
    line_->WriteAt(end_, bytes, count, NowMicros());
    return static_cast<int32_t>(count);
  }
  uint64_t DoDrainedByUs() override { return line_->SenderFreeAt(end_); }
  WaitResult DoWait(Wakeup &wakeup, uint64_t deadline_us, bool watch_input) override {
    // Bytes written to this end nudge the wakeup; arrivals already scheduled bound the sleep.
    line_->SetWaiter(end_, &wakeup);
    WaitResult result;
    for (;;) {
      if (line_->IsCut()) {
        MarkLost();
        result = WaitResult::kWoken;
        break;
      }
      if (watch_input && line_->Waiting(end_) != 0) {
        result = WaitResult::kInput;
        break;
      }
      if (wakeup.Raised()) {
        result = WaitResult::kWoken;
        break;
      }
      if (NowMicros() >= deadline_us) {
        result = WaitResult::kDeadline;
        break;
      }
      wakeup.Sleep(watch_input ? std::min(deadline_us, line_->NextArrivalUs(end_)) : deadline_us);
    }
    line_->SetWaiter(end_, nullptr);
    return result;
  }
  void DoPurge() override { line_->Purge(end_); }

  std::shared_ptr<MemoryLine> line_;
  int end_;
};

}  // namespace

std::shared_ptr<MemoryLine> MemoryLine::Create(const std::string &name) {
  Registry &registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto found = registry.lines.find(name);
  if (found != registry.lines.end() && !found->second.expired()) return nullptr;
  std::shared_ptr<MemoryLine> line(new MemoryLine(name));
  registry.lines[name] = line;
  return line;
}

std::shared_ptr<MemoryLine> MemoryLine::Find(const std::string &name) {
  Registry &registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto found = registry.lines.find(name);
  return found == registry.lines.end() ? nullptr : found->second.lock();
}

OpenedLine MemoryLine::OpenByName(const std::string &name) {
  std::shared_ptr<MemoryLine> line = Find(name);
  if (!line) return OpenedLine{nullptr, LineStatus::kNotFound, 0};
  return line->OpenEnd(kMasterEnd);
}

MemoryLine::~MemoryLine() {
  Registry &registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto found = registry.lines.find(name_);
  if (found != registry.lines.end() && found->second.expired()) registry.lines.erase(found);
}

OpenedLine MemoryLine::OpenEnd(int end) {
  if (end != kMasterEnd && end != kFarEnd) return OpenedLine{nullptr, LineStatus::kBadArgument, 0};
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (end_open_[end]) return OpenedLine{nullptr, LineStatus::kBusy, 0};
    end_open_[end] = true;
  }
  // A fresh master end rests with RTS off, as the POSIX backend leaves a real port.
  auto serial = std::unique_ptr<SerialLine>(new MemoryEnd(shared_from_this(), end));
  serial->SetRts(false);
  return OpenedLine{std::move(serial), LineStatus::kOk, 0};
}

void MemoryLine::ReleaseEnd(int end) {
  std::lock_guard<std::mutex> lock(mutex_);
  end_open_[end] = false;
}

void MemoryLine::ScheduleLocked(int from, const uint8_t *bytes, uint32_t count, uint64_t start_us) {
  uint64_t start = std::max(start_us, sender_free_us_[from]);
  uint32_t baud = baud_[from];
  int to = 1 - from;
  for (uint32_t i = 0; i < count; ++i) {
    uint64_t begin = start + CharMicros(baud, i);
    uint64_t arrival = start + CharMicros(baud, i + 1);
    into_[to].bytes.push_back(TimedByte{bytes[i], arrival});
    if (from == kMasterEnd && master_echo_) into_[from].bytes.push_back(TimedByte{bytes[i], arrival});
    record_.push_back(Event{EventKind::kByte, from, bytes[i], begin, arrival});
  }
  sender_free_us_[from] = start + CharMicros(baud, count);
  if (waiter_[to]) waiter_[to]->Nudge();
  if (from == kMasterEnd && master_echo_ && waiter_[from]) waiter_[from]->Nudge();
}

void MemoryLine::WriteAt(int end, const uint8_t *bytes, uint32_t count, uint64_t start_us) {
  if (!bytes || count == 0 || (end != kMasterEnd && end != kFarEnd)) return;
  std::lock_guard<std::mutex> lock(mutex_);
  ScheduleLocked(end, bytes, count, start_us);
}

uint32_t MemoryLine::ReadTimed(int end, TimedByte *out, uint32_t max) {
  uint64_t now = NowMicros();
  std::lock_guard<std::mutex> lock(mutex_);
  Direction &in = into_[end];
  uint32_t got = 0;
  while (got < max && in.read_pos < in.bytes.size() && in.bytes[in.read_pos].arrival_us <= now)
    out[got++] = in.bytes[in.read_pos++];
  // Drop consumed bytes now and then, so that a long run doesn't keep them all.
  if (in.read_pos > 4096 && in.read_pos * 2 > in.bytes.size()) {
    in.bytes.erase(in.bytes.begin(), in.bytes.begin() + static_cast<std::ptrdiff_t>(in.read_pos));
    in.read_pos = 0;
  }
  return got;
}

uint32_t MemoryLine::Waiting(int end) const {
  uint64_t now = NowMicros();
  std::lock_guard<std::mutex> lock(mutex_);
  const Direction &in = into_[end];
  uint32_t count = 0;
  for (size_t i = in.read_pos; i < in.bytes.size() && in.bytes[i].arrival_us <= now; ++i) ++count;
  return count;
}

uint64_t MemoryLine::NextArrivalUs(int end) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const Direction &in = into_[end];
  return in.read_pos < in.bytes.size() ? in.bytes[in.read_pos].arrival_us : kNoDeadline;
}

void MemoryLine::Cut() {
  std::lock_guard<std::mutex> lock(mutex_);
  cut_ = true;
  for (Wakeup *waiter : waiter_)
    if (waiter) waiter->Nudge();
}

bool MemoryLine::IsCut() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return cut_;
}

void MemoryLine::SetWaiter(int end, Wakeup *waiter) {
  std::lock_guard<std::mutex> lock(mutex_);
  waiter_[end] = waiter;
}

uint64_t MemoryLine::SenderFreeAt(int end) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sender_free_us_[end];
}

void MemoryLine::SetEndBaud(int end, uint32_t baud) {
  uint64_t now = NowMicros();
  std::lock_guard<std::mutex> lock(mutex_);
  baud_[end] = baud;
  record_.push_back(Event{EventKind::kBaud, end, baud, now, now});
}

uint32_t MemoryLine::EndBaud(int end) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return baud_[end];
}

void MemoryLine::SetLine(int end, EventKind kind, bool on) {
  uint64_t now = NowMicros();
  std::lock_guard<std::mutex> lock(mutex_);
  bool &level = kind == EventKind::kRts ? rts_[end] : dtr_[end];
  level = on;
  record_.push_back(Event{kind, end, on ? 1u : 0u, now, now});
}

bool MemoryLine::Rts(int end) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return rts_[end];
}

bool MemoryLine::Dtr(int end) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return dtr_[end];
}

void MemoryLine::SetMasterEcho(bool on) {
  std::lock_guard<std::mutex> lock(mutex_);
  master_echo_ = on;
}

void MemoryLine::Purge(int end) {
  uint64_t now = NowMicros();
  std::lock_guard<std::mutex> lock(mutex_);
  // Unread input goes, whether it has arrived yet or is still on the way.
  into_[end].bytes.clear();
  into_[end].read_pos = 0;
  record_.push_back(Event{EventKind::kPurge, end, 0, now, now});
}

std::vector<MemoryLine::Event> MemoryLine::Record() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return record_;
}

void MemoryLine::ClearRecord() {
  std::lock_guard<std::mutex> lock(mutex_);
  record_.clear();
}

}  // namespace velmora::platform
