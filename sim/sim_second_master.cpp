// The second master's queue and its rule for when it may send.
#include "sim/sim_second_master.h"

#include <algorithm>

namespace velmora::sim {

namespace {
constexpr size_t kExchangeLimit = 1000;
}  // namespace

void SecondMaster::Configure(const SecondMasterConfig &config) {
  config_ = config;
  periodic_started_ = false;
  std::erase_if(queue_, [](const Waiting &q) { return q.periodic; });
}

void SecondMaster::Send(const PeerRequest &request, uint64_t not_before_us) {
  queue_.push_back(Waiting{request, not_before_us, false});
}

std::optional<PeerRequest> SecondMaster::TakeDue(const LineView &line) {
  if (config_.period_ms > 0) {
    uint64_t period_us = static_cast<uint64_t>(config_.period_ms) * 1000;
    if (!periodic_started_) {
      periodic_started_ = true;
      next_periodic_us_ = line.now_us + period_us;
    }
    bool waiting = std::any_of(queue_.begin(), queue_.end(), [](const Waiting &q) { return q.periodic; });
    // One periodic request at a time: a line that stays busy does not pile them up.
    if (line.now_us >= next_periodic_us_ && !waiting) {
      queue_.push_back(Waiting{config_.periodic, next_periodic_us_, true});
      next_periodic_us_ += period_us;
      if (next_periodic_us_ <= line.now_us) next_periodic_us_ = line.now_us + period_us;
    }
  }
  if (queue_.empty() || line.now_us < queue_.front().not_before_us) return std::nullopt;
  if (config_.mode == PeerMode::kPolite) {
    if (line.busy) return std::nullopt;
    bool quiet = line.now_us >= line.quiet_since_us + static_cast<uint64_t>(config_.quiet_ms) * 1000;
    bool turn = line.turn_at_us && line.now_us >= *line.turn_at_us;
    if (!quiet && !turn) return std::nullopt;
  }
  PeerRequest request = queue_.front().request;
  queue_.pop_front();
  return request;
}

Frame SecondMaster::BuildFrame(const PeerRequest &request) const {
  Frame frame;
  uint8_t master_bit = config_.role == Master::kPrimary ? kMasterBit : 0;
  if (request.long_frame) {
    frame.delimiter = kLongRequest;
    frame.address = request.long_address;
    frame.address[0] = static_cast<uint8_t>((request.long_address[0] & 0x3F) | master_bit);
  } else {
    frame.delimiter = kShortRequest;
    frame.address[0] = static_cast<uint8_t>((request.polling_address & 0x3F) | master_bit);
  }
  frame.command = request.command;
  frame.data = request.data;
  if (frame.data.size() > kMaxData) frame.data.resize(kMaxData);
  return frame;
}

void SecondMaster::RecordSent(const Frame &request, uint64_t sent_us) {
  if (exchanges_.size() >= kExchangeLimit) exchanges_.erase(exchanges_.begin());
  PeerExchange exchange;
  exchange.sent_us = sent_us;
  exchange.request = request;
  exchanges_.push_back(std::move(exchange));
}

void SecondMaster::RecordReply(uint64_t start_us, std::vector<uint8_t> bytes) {
  if (exchanges_.empty()) return;
  PeerExchange &last = exchanges_.back();
  last.answered = true;
  last.reply_start_us = start_us;
  last.reply_bytes = std::move(bytes);
}

}  // namespace velmora::sim
