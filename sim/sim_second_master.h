// A second master on the simulated line: it sends its own requests to the devices with its own
// master bit, so that a master under test hears another master's traffic and has to share the
// line. Politely it waits for its turn (just after a frame addressed to the other master) or for
// a quiet line; on cue it sends at the moment it is told, whatever the line is doing.
#ifndef VELMORA_SIM_SIM_SECOND_MASTER_H
#define VELMORA_SIM_SIM_SECOND_MASTER_H

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "sim/sim_device.h"
#include "sim/sim_frame.h"

namespace velmora::sim {

struct PeerRequest {
  bool long_frame = true;
  uint8_t polling_address = 0;
  std::array<uint8_t, 5> long_address{};
  uint8_t command = 0;
  std::vector<uint8_t> data;
  uint32_t preambles = 5;
};

enum class PeerMode { kPolite, kOnCue };

struct SecondMasterConfig {
  Master role = Master::kSecondary;
  PeerMode mode = PeerMode::kPolite;
  // Its turn comes this long after a reply or burst frame addressed to the other master.
  uint32_t turn_gap_ms = 20;
  // A line quiet this long is free for it.
  uint32_t quiet_ms = 380;
  // Sends `periodic` every period; 0 sends only what is queued by hand.
  uint32_t period_ms = 0;
  PeerRequest periodic;
};

// One request of the second master and what came back.
struct PeerExchange {
  uint64_t sent_us = 0;  // first byte of the request
  Frame request;
  bool answered = false;
  uint64_t reply_start_us = 0;
  std::vector<uint8_t> reply_bytes;  // the transmission as sent, faults included
};

class SecondMaster {
 public:
  // How the line stands, as the simulated line tells it.
  struct LineView {
    uint64_t now_us = 0;
    bool busy = false;            // bytes are on the line or scheduled
    uint64_t quiet_since_us = 0;  // end of the last traffic in either direction
    std::optional<uint64_t> turn_at_us;
  };

  void Configure(const SecondMasterConfig &config);
  const SecondMasterConfig &Config() const { return config_; }
  // Queues a request to go out no earlier than not_before_us.
  void Send(const PeerRequest &request, uint64_t not_before_us);
  size_t Queued() const { return queue_.size(); }

  // The request that may go out now, taken off the queue.
  std::optional<PeerRequest> TakeDue(const LineView &line);
  Frame BuildFrame(const PeerRequest &request) const;

  void RecordSent(const Frame &request, uint64_t sent_us);
  void RecordReply(uint64_t start_us, std::vector<uint8_t> bytes);
  const std::vector<PeerExchange> &Exchanges() const { return exchanges_; }

 private:
  struct Waiting {
    PeerRequest request;
    uint64_t not_before_us;
    bool periodic;
  };

  SecondMasterConfig config_;
  std::deque<Waiting> queue_;
  uint64_t next_periodic_us_ = 0;
  bool periodic_started_ = false;
  std::vector<PeerExchange> exchanges_;
};

}  // namespace velmora::sim

#endif
