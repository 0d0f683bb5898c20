// Transcript entries and their text form.
#include "sim/sim_transcript.h"

#include <algorithm>
#include <cstdio>

namespace velmora::sim {

const char *TranscriptKindName(TranscriptKind kind) {
  switch (kind) {
    case TranscriptKind::kHeard:
      return "heard";
    case TranscriptKind::kBadChecksum:
      return "bad-sum";
    case TranscriptKind::kAbandoned:
      return "dropped";
    case TranscriptKind::kIgnored:
      return "ignored";
    case TranscriptKind::kReply:
      return "reply";
    case TranscriptKind::kBurst:
      return "burst";
    case TranscriptKind::kPeer:
      return "peer";
    case TranscriptKind::kNote:
      return "note";
  }
  return "?";
}

void Transcript::Add(TranscriptEntry entry) {
  if (sink_) sink_(entry);
  if (limit_ == 0) return;
  if (entries_.size() >= limit_) entries_.pop_front();
  entries_.push_back(std::move(entry));
}

size_t Transcript::Count(TranscriptKind kind) const {
  return static_cast<size_t>(
      std::count_if(entries_.begin(), entries_.end(), [kind](const TranscriptEntry &e) { return e.kind == kind; }));
}

std::string Transcript::FormatEntry(const TranscriptEntry &entry) {
  char head[64];
  std::snprintf(head, sizeof head, "%12llu.%03llu ms  %-7s", static_cast<unsigned long long>(entry.time_us / 1000),
                static_cast<unsigned long long>(entry.time_us % 1000), TranscriptKindName(entry.kind));
  std::string line = head;
  for (uint8_t byte : entry.bytes) {
    char hex[4];
    std::snprintf(hex, sizeof hex, " %02X", byte);
    line += hex;
  }
  if (!entry.note.empty()) line += (entry.bytes.empty() ? " " : "  | ") + entry.note;
  return line;
}

std::string Transcript::Format() const {
  std::string text;
  for (const TranscriptEntry &entry : entries_) text += FormatEntry(entry) + "\n";
  return text;
}

}  // namespace velmora::sim
