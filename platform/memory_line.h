// The in-memory line: two connected ends in one process. Bytes are paced at the sender's baud
// rate (11 bits a character) on the platform clock, so the line runs in virtual time under a
// virtual clock and in real time otherwise. Every byte and every RTS/DTR change is recorded
// with its time, for tests that assert the timing of the wire.
#ifndef VELMORA_PLATFORM_MEMORY_LINE_H
#define VELMORA_PLATFORM_MEMORY_LINE_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/serial_line.h"

namespace velmora::platform {

class MemoryLine : public std::enable_shared_from_this<MemoryLine> {
 public:
  // End 0 is the master's, the one that "mem:NAME" opens; end 1 is the far end.
  static constexpr int kMasterEnd = 0;
  static constexpr int kFarEnd = 1;

  enum class EventKind { kByte, kRts, kDtr, kBaud, kPurge };
  struct Event {
    EventKind kind;
    int end;          // the end that sent the byte or changed its line
    uint32_t value;   // byte value, line level (0/1) or baud rate
    uint64_t time_us; // byte: start of its first bit; others: the moment of the change
    uint64_t end_us;  // byte: the moment its stop bit ends at the other end; others: time_us
  };
  struct TimedByte {
    uint8_t value;
    uint64_t arrival_us;
  };

  // Creates a line known under NAME until the last reference goes; null if the name is taken.
  static std::shared_ptr<MemoryLine> Create(const std::string &name);
  static std::shared_ptr<MemoryLine> Find(const std::string &name);
  // Opens the master end of the line NAME, as OpenSerialLine does for "mem:NAME".
  static OpenedLine OpenByName(const std::string &name);

  ~MemoryLine();

  // A serial line bound to one end; each end can be open once at a time.
  OpenedLine OpenEnd(int end);

  // Far-end operations without opening an end (for a simulator that schedules exactly):
  // bytes from `end` whose first bit starts at start_us (or when the sender is free, if later).
  void WriteAt(int end, const uint8_t *bytes, uint32_t count, uint64_t start_us);
  // Bytes that have fully arrived at `end` by now, with their arrival times; removes them.
  uint32_t ReadTimed(int end, TimedByte *out, uint32_t max);
  // When the first unread byte at `end` arrives (or arrived); kNoDeadline if none is on the way.
  uint64_t NextArrivalUs(int end) const;
  // The wakeup of the one thread waiting at `end`, nudged when bytes are written to it; or null.
  void SetWaiter(int end, Wakeup *waiter);
  // When the sender at `end` is free again (its last byte's stop bit has ended).
  uint64_t SenderFreeAt(int end) const;
  // The baud rate of one end; bytes are paced at the sender's rate. 1200 to start with.
  void SetEndBaud(int end, uint32_t baud);
  uint32_t EndBaud(int end) const;
  // RTS/DTR level of an end as last set.
  bool Rts(int end) const;
  bool Dtr(int end) const;
  // Echo: whatever the master end sends also arrives in its own input, as a half-duplex modem
  // gives it back.
  void SetMasterEcho(bool on);
  // Takes the line away, as an unplugged adapter: reads and waits at both ends fail from now on.
  void Cut();
  bool IsCut() const;

  std::vector<Event> Record() const;
  void ClearRecord();
  const std::string &Name() const { return name_; }

  // Time one character takes at `baud`: 11 bits (start, 8 data, parity, stop).
  static uint64_t CharMicros(uint32_t baud, uint32_t count = 1) {
    return (static_cast<uint64_t>(count) * 11u * 1000000u) / (baud ? baud : 1200u);
  }

  // Used by the ends.
  void SetLine(int end, EventKind kind, bool on);
  void Purge(int end);
  uint32_t Waiting(int end) const;
  void ReleaseEnd(int end);

 private:
  explicit MemoryLine(std::string name) : name_(std::move(name)) {}
  void ScheduleLocked(int from, const uint8_t *bytes, uint32_t count, uint64_t start_us);

  struct Direction {
    std::vector<TimedByte> bytes;  // in arrival order
    size_t read_pos = 0;
  };
  std::string name_;
  mutable std::mutex mutex_;
  Direction into_[2];
  uint64_t sender_free_us_[2] = {0, 0};
  uint32_t baud_[2] = {1200, 1200};
  bool rts_[2] = {false, false};
  bool dtr_[2] = {false, false};
  bool end_open_[2] = {false, false};
  bool master_echo_ = false;
  bool cut_ = false;
  Wakeup *waiter_[2] = {nullptr, nullptr};
  std::vector<Event> record_;
};

}  // namespace velmora::platform

#endif
