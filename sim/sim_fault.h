// Faults that a simulated device shows on cue: what goes wrong with its next replies, for how
// many of them, and for which command.
#ifndef VELMORA_SIM_SIM_FAULT_H
#define VELMORA_SIM_SIM_FAULT_H

#include <cstdint>
#include <string>
#include <vector>

namespace velmora::sim {

enum class FaultKind {
  kDelay,        // the reply starts `value` ms later than the turnaround alone gives
  kBusy,         // response code 32, no data; the command is not carried out
  kCommError,    // first status byte `value` (bit 7 forced on), second 0, no data
  kNoReply,      // silence
  kTruncate,     // only the first `value` bytes of the frame proper go out
  kBadChecksum,  // the checksum byte is inverted
  kNoiseBefore,  // `value` noise bytes before the preambles
  kNoiseInside,  // `extra` noise bytes inserted after `value` bytes of the frame proper
  kSplitGap,     // a pause of `extra` ms after `value` bytes of the frame proper
};

const char *FaultKindName(FaultKind kind);
// Reads "delay", "busy", "comm-error", "no-reply", "truncate", "bad-checksum", "noise-before",
// "noise-inside" or "split"; false for anything else.
bool ParseFaultKind(const std::string &name, FaultKind *kind);

struct Fault {
  FaultKind kind = FaultKind::kNoReply;
  uint32_t value = 0;
  uint32_t extra = 0;
  int command = -1;    // only requests with this command; -1 for every command
  uint32_t times = 1;  // replies it spoils; 0 until cleared

  static Fault Delay(uint32_t ms) { return Fault{FaultKind::kDelay, ms, 0}; }
  static Fault Busy() { return Fault{FaultKind::kBusy, 0, 0}; }
  static Fault CommError(uint8_t status = 0x82) { return Fault{FaultKind::kCommError, status, 0}; }
  static Fault NoReply() { return Fault{FaultKind::kNoReply, 0, 0}; }
  static Fault Truncate(uint32_t keep_bytes) { return Fault{FaultKind::kTruncate, keep_bytes, 0}; }
  static Fault BadChecksum() { return Fault{FaultKind::kBadChecksum, 0, 0}; }
  static Fault NoiseBefore(uint32_t bytes) { return Fault{FaultKind::kNoiseBefore, bytes, 0}; }
  static Fault NoiseInside(uint32_t offset, uint32_t bytes) { return Fault{FaultKind::kNoiseInside, offset, bytes}; }
  static Fault SplitGap(uint32_t offset, uint32_t gap_ms) { return Fault{FaultKind::kSplitGap, offset, gap_ms}; }

  Fault Times(uint32_t count) const {
    Fault copy = *this;
    copy.times = count;
    return copy;
  }
  Fault Always() const { return Times(0); }
  Fault ForCommand(uint8_t cmd) const {
    Fault copy = *this;
    copy.command = cmd;
    return copy;
  }
};

// The faults that stand for one device. Take() hands out those that apply to a request and
// counts them down.
class FaultList {
 public:
  void Add(const Fault &fault) { faults_.push_back(fault); }
  void Clear() { faults_.clear(); }
  bool Empty() const { return faults_.empty(); }
  const std::vector<Fault> &Pending() const { return faults_; }
  std::vector<Fault> Take(uint8_t command);

 private:
  std::vector<Fault> faults_;
};

}  // namespace velmora::sim

#endif
