// Fault names and the counting down of faults as replies use them.
#include "sim/sim_fault.h"

#include <array>
#include <utility>

namespace velmora::sim {
namespace {

constexpr std::array<std::pair<FaultKind, const char *>, 9> kNames{{
    {FaultKind::kDelay, "delay"},
    {FaultKind::kBusy, "busy"},
    {FaultKind::kCommError, "comm-error"},
    {FaultKind::kNoReply, "no-reply"},
    {FaultKind::kTruncate, "truncate"},
    {FaultKind::kBadChecksum, "bad-checksum"},
    {FaultKind::kNoiseBefore, "noise-before"},
    {FaultKind::kNoiseInside, "noise-inside"},
    {FaultKind::kSplitGap, "split"},
}};

}  // namespace

const char *FaultKindName(FaultKind kind) {
  for (const auto &[k, name] : kNames)
    if (k == kind) return name;
  return "?";
}

bool ParseFaultKind(const std::string &name, FaultKind *kind) {
  for (const auto &[k, text] : kNames) {
    if (name == text) {
      *kind = k;
      return true;
    }
  }
  return false;
}

std::vector<Fault> FaultList::Take(uint8_t command) {
  std::vector<Fault> taken;
  std::vector<Fault> kept;
  for (Fault &fault : faults_) {
    if (fault.command >= 0 && fault.command != command) {
      kept.push_back(fault);
      continue;
    }
    taken.push_back(fault);
    if (fault.times == 0) {
      kept.push_back(fault);
    } else if (fault.times > 1) {
      --fault.times;
      kept.push_back(fault);
    }
  }
  faults_ = std::move(kept);
  return taken;
}

}  // namespace velmora::sim
