// The simulated line's core: reception, addressing, replies with their faults, burst frames and
// the second master, all on one schedule of outgoing bytes.
#include "sim/sim_line.h"

#include <algorithm>
#include <string>

namespace velmora::sim {
namespace {

uint64_t DefaultGapLimit(uint32_t baud) { return 3 * CharMicros(baud) + 10000; }

bool Has(const std::vector<Fault> &faults, FaultKind kind) {
  return std::any_of(faults.begin(), faults.end(), [kind](const Fault &f) { return f.kind == kind; });
}

const Fault *Find(const std::vector<Fault> &faults, FaultKind kind) {
  for (const Fault &fault : faults)
    if (fault.kind == kind) return &fault;
  return nullptr;
}

std::string FaultNames(const std::vector<Fault> &faults) {
  std::string text;
  for (const Fault &fault : faults) text += std::string(text.empty() ? "" : ",") + FaultKindName(fault.kind);
  return text;
}

std::string Describe(const Frame &frame) {
  std::string kind = (frame.delimiter & 0x7F) == kShortRequest    ? "request"
                     : (frame.delimiter & 0x7F) == kShortResponse ? "response"
                                                                  : "burst";
  return std::string(frame.IsLong() ? "long " : "short ") + kind + " cmd " + std::to_string(frame.command) +
         (frame.MasterBit() ? " primary" : " secondary");
}

}  // namespace

SimLine::SimLine(LineConfig config)
    : config_(config),
      receiver_(config.min_request_preambles,
                config.rx_gap_limit_us ? config.rx_gap_limit_us : DefaultGapLimit(config.baud)),
      transcript_(config.transcript_limit),
      noise_state_(config.seed ? config.seed : 1) {}

Device &SimLine::AddDevice(const DeviceConfig &config) {
  devices_.emplace_back(config);
  bursts_.emplace_back();
  return devices_.back();
}

Device *SimLine::FindByPollingAddress(uint8_t address) {
  for (Device &device : devices_)
    if (device.PollingAddress() == address) return &device;
  return nullptr;
}

std::vector<OutByte> SimLine::TakeOutput() {
  std::vector<OutByte> out;
  out.swap(pending_);
  return out;
}

uint8_t SimLine::NoiseByte() {
  // xorshift32: cheap, and the same seed gives the same noise.
  noise_state_ ^= noise_state_ << 13;
  noise_state_ ^= noise_state_ >> 17;
  noise_state_ ^= noise_state_ << 5;
  auto byte = static_cast<uint8_t>(noise_state_);
  // A noise byte of 0xFF would read as a preamble.
  return byte == kPreamble ? 0x00 : byte;
}

bool SimLine::LineBusy(uint64_t now_us) const { return receiver_.Busy() || tx_free_us_ > now_us; }

uint64_t SimLine::QuietSince() const { return std::max(last_master_byte_us_, tx_free_us_); }

void SimLine::Receive(uint8_t value, uint64_t arrival_us, uint64_t now_us) {
  last_master_byte_us_ = std::max(last_master_byte_us_, arrival_us);
  switch (receiver_.Push(value, arrival_us)) {
    case FrameReceiver::Outcome::kNone:
      break;
    case FrameReceiver::Outcome::kAbandoned:
      ++counters_.abandoned;
      transcript_.Add({arrival_us, TranscriptKind::kAbandoned, receiver_.LastRaw(), "pause inside a frame"});
      break;
    case FrameReceiver::Outcome::kBadChecksum:
      ++counters_.bad_checksums;
      transcript_.Add({arrival_us, TranscriptKind::kBadChecksum, receiver_.LastRaw(), "checksum wrong: no answer"});
      break;
    case FrameReceiver::Outcome::kFrame:
      // Counted from the arrival of the first preamble: a pseudo-terminal hands over a whole
      // request at once, so nothing earlier is known for sure.
      OnFrame(receiver_.LastFrame(), receiver_.LastRaw(), receiver_.LastFirstByteUs(), arrival_us, now_us);
      break;
  }
}

bool SimLine::SentDuring(uint64_t start_us, uint64_t end_us) const {
  return std::any_of(sent_.begin(), sent_.end(),
                     [&](const auto &interval) { return interval.first < end_us && interval.second > start_us; });
}

void SimLine::OnFrame(const Frame &frame, const std::vector<uint8_t> &raw, uint64_t start_us, uint64_t end_us,
                      uint64_t now_us) {
  if (SentDuring(start_us, end_us)) {
    ++counters_.collisions;
    transcript_.Add({end_us, TranscriptKind::kIgnored, raw, "collided with the simulator's own transmission"});
    return;
  }
  ++counters_.frames_heard;
  transcript_.Add({end_us, TranscriptKind::kHeard, raw, Describe(frame)});
  if (!IsRequestDelimiter(frame.delimiter)) {
    transcript_.Add({end_us, TranscriptKind::kIgnored, {}, "not a request"});
    return;
  }
  if (!Dispatch(frame, end_us, now_us, false))
    transcript_.Add({end_us, TranscriptKind::kIgnored, {}, "no device answers this address and command"});
}

bool SimLine::Dispatch(const Frame &request, uint64_t end_us, uint64_t now_us, bool from_peer) {
  Device *target = nullptr;
  size_t index = 0;
  for (size_t i = 0; i < devices_.size() && !target; ++i) {
    Device &device = devices_[i];
    if (device.IsAddressedBy(request.IsLong(), request.address.data(), request.command) &&
        device.WouldAnswer(request.command, request.data)) {
      target = &device;
      index = i;
    }
  }
  if (!target) return false;

  Master master = MasterOf(request.address[0]);
  std::vector<Fault> faults = target->Faults().Take(request.command);
  std::string who = "device " + std::to_string(index) + " cmd " + std::to_string(request.command);
  if (Has(faults, FaultKind::kNoReply)) {
    ++counters_.silences;
    transcript_.Add({end_us, TranscriptKind::kNote, {}, who + ": no reply (fault)"});
    return true;
  }

  Reply reply;
  if (const Fault *error = Find(faults, FaultKind::kCommError)) {
    reply.response_code = static_cast<uint8_t>(error->value | 0x80);
  } else if (Has(faults, FaultKind::kBusy)) {
    reply = target->BusyReply(master, end_us);
  } else if (std::optional<Reply> answer = target->Answer(request.command, request.data, master, end_us)) {
    reply = std::move(*answer);
  } else {
    ++counters_.silences;
    return true;
  }

  Frame response;
  response.delimiter = request.IsLong() ? kLongResponse : kShortResponse;
  response.address = request.address;
  response.address[0] =
      static_cast<uint8_t>((request.address[0] & ~kBurstBit) | (target->Burst().enabled ? kBurstBit : 0));
  response.command = request.command;
  response.data = reply.FrameData();

  uint64_t delay_us = 0;
  for (const Fault &fault : faults)
    if (fault.kind == FaultKind::kDelay) delay_us += static_cast<uint64_t>(fault.value) * 1000;
  uint32_t preambles = target->Config().response_preambles;
  std::vector<Segment> segments = Spoil(EncodeTransmission(response, preambles), preambles, faults);
  uint64_t first_us = 0;
  uint64_t end = Transmit(segments, std::max(end_us + config_.turnaround_us + delay_us, now_us), &first_us);

  std::vector<uint8_t> sent;
  for (const Segment &segment : segments) sent.insert(sent.end(), segment.bytes.begin(), segment.bytes.end());
  std::string note = who + " rc " + std::to_string(reply.response_code);
  if (!faults.empty()) note += " faults " + FaultNames(faults);
  transcript_.Add({first_us, TranscriptKind::kReply, sent, note});
  if (from_peer) peer_.RecordReply(first_us, std::move(sent));

  ++counters_.replies;
  last_device_frame_end_us_ = end;
  last_device_frame_master_ = master;
  any_device_frame_ = true;
  return true;
}

std::vector<SimLine::Segment> SimLine::Spoil(const std::vector<uint8_t> &transmission, uint32_t preambles,
                                             const std::vector<Fault> &faults) {
  size_t lead = std::min<size_t>(preambles, transmission.size());
  std::vector<uint8_t> head(transmission.begin(), transmission.begin() + static_cast<std::ptrdiff_t>(lead));
  std::vector<uint8_t> proper(transmission.begin() + static_cast<std::ptrdiff_t>(lead), transmission.end());

  // The order is fixed so that combined faults give one answer: checksum, cut, noise, split.
  if (Has(faults, FaultKind::kBadChecksum) && !proper.empty()) proper.back() ^= 0xFF;
  if (const Fault *cut = Find(faults, FaultKind::kTruncate)) proper.resize(std::min<size_t>(cut->value, proper.size()));
  if (const Fault *noise = Find(faults, FaultKind::kNoiseInside)) {
    std::vector<uint8_t> junk;
    for (uint32_t i = 0; i < noise->extra; ++i) junk.push_back(NoiseByte());
    auto at = proper.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(noise->value, proper.size()));
    proper.insert(at, junk.begin(), junk.end());
  }
  if (const Fault *noise = Find(faults, FaultKind::kNoiseBefore)) {
    std::vector<uint8_t> junk;
    for (uint32_t i = 0; i < noise->value; ++i) junk.push_back(NoiseByte());
    head.insert(head.begin(), junk.begin(), junk.end());
  }

  std::vector<Segment> segments(1);
  segments[0].bytes = std::move(head);
  const Fault *split = Find(faults, FaultKind::kSplitGap);
  size_t split_at = split ? std::min<size_t>(split->value, proper.size()) : proper.size();
  segments[0].bytes.insert(segments[0].bytes.end(), proper.begin(),
                           proper.begin() + static_cast<std::ptrdiff_t>(split_at));
  if (split_at < proper.size()) {
    Segment tail;
    tail.gap_before_us = static_cast<uint64_t>(split->extra) * 1000;
    tail.bytes.assign(proper.begin() + static_cast<std::ptrdiff_t>(split_at), proper.end());
    segments.push_back(std::move(tail));
  }
  return segments;
}

uint64_t SimLine::Transmit(const std::vector<Segment> &segments, uint64_t start_us, uint64_t *first_us) {
  uint64_t at = std::max(start_us, tx_free_us_);
  *first_us = at;
  bool first = true;
  for (const Segment &segment : segments) {
    if (!first) at += segment.gap_before_us;
    first = false;
    for (size_t i = 0; i < segment.bytes.size(); ++i)
      pending_.push_back(OutByte{segment.bytes[i], at + CharMicros(config_.baud, i)});
    at += CharMicros(config_.baud, segment.bytes.size());
  }
  tx_free_us_ = at;
  sent_.emplace_back(*first_us, at);
  if (sent_.size() > 16) sent_.pop_front();
  return at;
}

void SimLine::Advance(uint64_t now_us) {
  if (receiver_.CheckGap(now_us) == FrameReceiver::Outcome::kAbandoned) {
    ++counters_.abandoned;
    transcript_.Add({now_us, TranscriptKind::kAbandoned, receiver_.LastRaw(), "frame stopped short"});
  }
  RunPeer(now_us);
  RunBursts(now_us);
}

void SimLine::RunPeer(uint64_t now_us) {
  if (peer_.Config().period_ms == 0 && peer_.Queued() == 0) return;
  SecondMaster::LineView view;
  view.now_us = now_us;
  view.busy = LineBusy(now_us);
  view.quiet_since_us = QuietSince();
  // The turn passes to this master when the last thing on the line was a device's frame
  // addressed to the other master.
  if (any_device_frame_ && last_device_frame_master_ != peer_.Config().role &&
      last_device_frame_end_us_ == tx_free_us_ && last_master_byte_us_ < last_device_frame_end_us_)
    view.turn_at_us = last_device_frame_end_us_ + static_cast<uint64_t>(peer_.Config().turn_gap_ms) * 1000;
  std::optional<PeerRequest> request = peer_.TakeDue(view);
  if (!request) return;

  Frame frame = peer_.BuildFrame(*request);
  std::vector<Segment> segments(1);
  segments[0].bytes = EncodeTransmission(frame, request->preambles);
  uint64_t first_us = 0;
  uint64_t end_us = Transmit(segments, now_us, &first_us);
  ++counters_.peer_requests;
  peer_.RecordSent(frame, first_us);
  transcript_.Add({first_us, TranscriptKind::kPeer, segments[0].bytes, Describe(frame)});
  // The devices hear the request when its last byte has gone out.
  if (!Dispatch(frame, end_us, now_us, true))
    transcript_.Add({end_us, TranscriptKind::kIgnored, {}, "second master: no device answers"});
}

void SimLine::RunBursts(uint64_t now_us) {
  for (size_t i = 0; i < devices_.size(); ++i) {
    Device &device = devices_[i];
    BurstState &state = bursts_[i];
    const BurstConfig &burst = device.Burst();
    if (!burst.enabled) {
      state.scheduled = false;
      continue;
    }
    if (!state.scheduled) {
      state.scheduled = true;
      state.next_due_us = now_us;
      state.next_primary = burst.target != BurstTarget::kSecondary;
    }
    if (LineBusy(now_us)) continue;
    uint64_t earliest = std::max(state.next_due_us, QuietSince() + static_cast<uint64_t>(burst.min_gap_ms) * 1000);
    if (earliest > now_us) continue;

    Master master = state.next_primary ? Master::kPrimary : Master::kSecondary;
    if (burst.target == BurstTarget::kAlternate) state.next_primary = !state.next_primary;
    Frame frame;
    if (burst.long_frame) {
      frame.delimiter = kLongBurst;
      frame.address = device.LongAddress();
    } else {
      frame.delimiter = kShortBurst;
      frame.address[0] = device.PollingAddress();
    }
    frame.address[0] |= static_cast<uint8_t>(kBurstBit | (master == Master::kPrimary ? kMasterBit : 0));
    frame.command = burst.command;
    frame.data = device.BurstReply(master, now_us).FrameData();

    std::vector<Segment> segments(1);
    segments[0].bytes = EncodeTransmission(frame, device.Config().response_preambles);
    uint64_t first_us = 0;
    uint64_t end_us = Transmit(segments, now_us, &first_us);
    state.next_due_us = first_us + static_cast<uint64_t>(burst.period_ms) * 1000;
    ++counters_.bursts;
    transcript_.Add(
        {first_us, TranscriptKind::kBurst, segments[0].bytes, "device " + std::to_string(i) + " " + Describe(frame)});
    last_device_frame_end_us_ = end_us;
    last_device_frame_master_ = master;
    any_device_frame_ = true;
  }
}

}  // namespace velmora::sim
