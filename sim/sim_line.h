// The simulated line: one or more devices and an optional second master on the far end of a
// HART line. It is a pure state machine: it is fed the master's bytes with their arrival times
// and told the time, and it produces the bytes to send, each with the moment its first bit
// starts. The in-memory runner and the pseudo-terminal runner both drive this one core.
//
// The line is half duplex: a request that overlaps the simulator's own transmission collides
// with it and is lost, as on a real line where both would be garbled.
//
// Timing: a reply starts `turnaround_us` after the last byte of the request has arrived (plus
// any delay fault), and its bytes follow each other at the line's rate, 11 bits a character.
// Nothing starts before the present moment or while an earlier transmission is still going out.
#ifndef VELMORA_SIM_SIM_LINE_H
#define VELMORA_SIM_SIM_LINE_H

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "sim/sim_device.h"
#include "sim/sim_frame.h"
#include "sim/sim_second_master.h"
#include "sim/sim_transcript.h"

namespace velmora::sim {

struct LineConfig {
  uint32_t baud = 1200;
  // From the end of the request's last byte to the start of the reply's first byte. A real
  // master keeps its carrier up for several milliseconds after its last byte, so replies wait.
  uint64_t turnaround_us = 20000;
  // A pause longer than this inside a frame abandons it; 0 takes three characters plus 10 ms.
  uint64_t rx_gap_limit_us = 0;
  // Preambles a request needs before its delimiter.
  uint32_t min_request_preambles = 2;
  // The master's bytes come back to it, as from a half-duplex modem (done by the runner).
  bool echo = false;
  uint32_t seed = 1;  // noise bytes
  size_t transcript_limit = 10000;
};

struct OutByte {
  uint8_t value;
  uint64_t start_us;  // start of the byte's first bit on the line
};

class SimLine {
 public:
  explicit SimLine(LineConfig config = {});

  const LineConfig &Config() const { return config_; }
  uint64_t CharTimeUs() const { return CharMicros(config_.baud); }

  Device &AddDevice(const DeviceConfig &config);
  size_t DeviceCount() const { return devices_.size(); }
  Device &DeviceAt(size_t index) { return devices_.at(index); }
  Device *FindByPollingAddress(uint8_t address);

  SecondMaster &Peer() { return peer_; }
  Transcript &Log() { return transcript_; }

  // A byte from the master that has fully arrived at arrival_us; now_us is the present.
  void Receive(uint8_t value, uint64_t arrival_us, uint64_t now_us);
  // Runs what is due by now_us: abandoned frames, the second master, burst frames.
  void Advance(uint64_t now_us);
  // The bytes to send, in order, each once.
  std::vector<OutByte> TakeOutput();
  // When the last byte scheduled so far has left.
  uint64_t TransmitterFreeAt() const { return tx_free_us_; }

  struct Counters {
    uint64_t frames_heard = 0;
    uint64_t bad_checksums = 0;
    uint64_t abandoned = 0;
    uint64_t replies = 0;
    uint64_t silences = 0;
    uint64_t bursts = 0;
    uint64_t peer_requests = 0;
    uint64_t collisions = 0;
  };
  const Counters &Stats() const { return counters_; }

 private:
  struct Segment {
    uint64_t gap_before_us = 0;
    std::vector<uint8_t> bytes;
  };
  struct BurstState {
    bool scheduled = false;
    uint64_t next_due_us = 0;
    bool next_primary = true;
  };

  void OnFrame(const Frame &frame, const std::vector<uint8_t> &raw, uint64_t start_us, uint64_t end_us,
               uint64_t now_us);
  // Whether the simulator was sending at any moment between start_us and end_us.
  bool SentDuring(uint64_t start_us, uint64_t end_us) const;
  // Hands a request to the device it addresses; true if a device took it.
  bool Dispatch(const Frame &request, uint64_t end_us, uint64_t now_us, bool from_peer);
  std::vector<Segment> Spoil(const std::vector<uint8_t> &transmission, uint32_t preambles,
                             const std::vector<Fault> &faults);
  // Schedules segments from start_us (or later, when the line is free); returns the end.
  uint64_t Transmit(const std::vector<Segment> &segments, uint64_t start_us, uint64_t *first_us);
  void RunPeer(uint64_t now_us);
  void RunBursts(uint64_t now_us);
  bool LineBusy(uint64_t now_us) const;
  uint64_t QuietSince() const;
  uint8_t NoiseByte();

  LineConfig config_;
  FrameReceiver receiver_;
  std::deque<Device> devices_;
  std::deque<BurstState> bursts_;
  SecondMaster peer_;
  Transcript transcript_;
  std::vector<OutByte> pending_;
  // The last transmissions, start and end: a request heard meanwhile was garbled by them.
  std::deque<std::pair<uint64_t, uint64_t>> sent_;
  uint64_t tx_free_us_ = 0;
  uint64_t last_master_byte_us_ = 0;
  // The last frame a device sent, and the master it was addressed to: the other master's turn.
  uint64_t last_device_frame_end_us_ = 0;
  Master last_device_frame_master_ = Master::kPrimary;
  bool any_device_frame_ = false;
  uint32_t noise_state_;
  Counters counters_;
};

}  // namespace velmora::sim

#endif
