// The simulator's transcript: what it heard and what it sent, with times, bounded in size, for
// reading after a test fails or live from velmora-sim.
#ifndef VELMORA_SIM_SIM_TRANSCRIPT_H
#define VELMORA_SIM_SIM_TRANSCRIPT_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace velmora::sim {

enum class TranscriptKind {
  kHeard,        // a good frame from the master end
  kBadChecksum,  // a frame with a wrong checksum: no answer
  kAbandoned,    // a frame given up after a gap
  kIgnored,      // a good frame that was not for any device here
  kReply,        // a reply went out (faults included)
  kBurst,        // a burst frame went out
  kPeer,         // the second master's request went out
  kNote,         // anything else worth knowing
};

const char *TranscriptKindName(TranscriptKind kind);

struct TranscriptEntry {
  uint64_t time_us = 0;  // when it was heard (last byte) or when the first byte starts
  TranscriptKind kind = TranscriptKind::kNote;
  std::vector<uint8_t> bytes;
  std::string note;
};

class Transcript {
 public:
  explicit Transcript(size_t limit = 10000) : limit_(limit) {}

  void Add(TranscriptEntry entry);
  void Note(uint64_t time_us, std::string text) {
    Add(TranscriptEntry{time_us, TranscriptKind::kNote, {}, std::move(text)});
  }
  const std::deque<TranscriptEntry> &Entries() const { return entries_; }
  size_t Count(TranscriptKind kind) const;
  void Clear() { entries_.clear(); }
  // Every entry is also handed to the sink as it is added (velmora-sim prints them).
  void SetSink(std::function<void(const TranscriptEntry &)> sink) { sink_ = std::move(sink); }

  // One line per entry: time in ms with microseconds, kind, bytes in hex, note.
  static std::string FormatEntry(const TranscriptEntry &entry);
  std::string Format() const;

 private:
  size_t limit_;
  std::deque<TranscriptEntry> entries_;
  std::function<void(const TranscriptEntry &)> sink_;
};

}  // namespace velmora::sim

#endif
