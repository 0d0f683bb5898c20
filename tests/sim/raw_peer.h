// A raw byte peer for the simulator's tests: it builds request frames by hand, puts them on the
// master end of an in-memory line in virtual time, and takes the replies apart byte by byte,
// without the library's link layer or the simulator's own frame code.
#ifndef VELMORA_TESTS_SIM_RAW_PEER_H
#define VELMORA_TESTS_SIM_RAW_PEER_H

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/memory_line.h"
#include "sim/sim_memory_runner.h"

namespace velmora::sim::testing {

using Bytes = std::vector<uint8_t>;
using Address5 = std::array<uint8_t, 5>;
using platform::MemoryLine;

inline uint8_t Xor(const Bytes &bytes, size_t from = 0) {
  uint8_t sum = 0;
  for (size_t i = from; i < bytes.size(); ++i) sum ^= bytes[i];
  return sum;
}

inline Bytes ShortRequest(uint8_t polling_address, uint8_t command, const Bytes &data = {}, bool primary = true,
                          size_t preambles = 5) {
  Bytes out(preambles, 0xFF);
  size_t start = out.size();
  out.push_back(0x02);
  out.push_back(static_cast<uint8_t>((primary ? 0x80 : 0x00) | polling_address));
  out.push_back(command);
  out.push_back(static_cast<uint8_t>(data.size()));
  out.insert(out.end(), data.begin(), data.end());
  out.push_back(Xor(out, start));
  return out;
}

inline Bytes LongRequest(const Address5 &address, uint8_t command, const Bytes &data = {}, bool primary = true,
                         size_t preambles = 5) {
  Bytes out(preambles, 0xFF);
  size_t start = out.size();
  out.push_back(0x82);
  out.push_back(static_cast<uint8_t>((primary ? 0x80 : 0x00) | (address[0] & 0x3F)));
  out.insert(out.end(), address.begin() + 1, address.end());
  out.push_back(command);
  out.push_back(static_cast<uint8_t>(data.size()));
  out.insert(out.end(), data.begin(), data.end());
  out.push_back(Xor(out, start));
  return out;
}

// One frame as received, taken apart by the test's own rules.
struct RxFrame {
  size_t offset = 0;  // index of the first preamble in the byte run
  size_t preambles = 0;
  uint8_t delimiter = 0;
  Bytes address;
  uint8_t command = 0;
  uint8_t count = 0;
  Bytes data;  // status bytes included
  uint8_t checksum = 0;
  bool checksum_ok = false;
  size_t end = 0;  // index after the checksum

  uint8_t ResponseCode() const { return data.size() > 0 ? data[0] : 0xFF; }
  uint8_t DeviceStatus() const { return data.size() > 1 ? data[1] : 0xFF; }
  Bytes Payload() const { return data.size() > 2 ? Bytes(data.begin() + 2, data.end()) : Bytes{}; }
};

// The first frame at or after `from`: preambles, a delimiter, and as many bytes as its count
// says; none if the run ends first.
inline std::optional<RxFrame> ParseFrame(const Bytes &bytes, size_t from = 0) {
  size_t i = from;
  while (i < bytes.size() && bytes[i] != 0xFF) ++i;
  RxFrame frame;
  frame.offset = i;
  while (i < bytes.size() && bytes[i] == 0xFF) {
    ++frame.preambles;
    ++i;
  }
  if (i >= bytes.size()) return std::nullopt;
  size_t start = i;
  frame.delimiter = bytes[i++];
  size_t address_size = (frame.delimiter & 0x80) ? 5 : 1;
  if (i + address_size + 2 > bytes.size()) return std::nullopt;
  frame.address.assign(bytes.begin() + static_cast<std::ptrdiff_t>(i),
                       bytes.begin() + static_cast<std::ptrdiff_t>(i + address_size));
  i += address_size;
  frame.command = bytes[i++];
  frame.count = bytes[i++];
  if (i + frame.count + 1 > bytes.size()) return std::nullopt;
  frame.data.assign(bytes.begin() + static_cast<std::ptrdiff_t>(i),
                    bytes.begin() + static_cast<std::ptrdiff_t>(i + frame.count));
  i += frame.count;
  frame.checksum = bytes[i++];
  uint8_t sum = 0;
  for (size_t k = start; k + 1 < i; ++k) sum ^= bytes[k];
  frame.checksum_ok = sum == frame.checksum;
  frame.end = i;
  return frame;
}

// Every complete frame in a run of bytes, in order; bytes that start none are skipped.
inline std::vector<RxFrame> AllFrames(const Bytes &bytes) {
  std::vector<RxFrame> frames;
  size_t at = 0;
  while (at < bytes.size()) {
    std::optional<RxFrame> frame = ParseFrame(bytes, at);
    if (!frame) break;
    at = frame->end;
    frames.push_back(*frame);
  }
  return frames;
}

inline float FloatAt(const Bytes &bytes, size_t at) {
  uint32_t bits = (static_cast<uint32_t>(bytes.at(at)) << 24) | (static_cast<uint32_t>(bytes.at(at + 1)) << 16) |
                  (static_cast<uint32_t>(bytes.at(at + 2)) << 8) | bytes.at(at + 3);
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

// A line with the simulator on its far end, in virtual time. The clock comes first, so that it
// outlives the runner that listens to it.
class VirtualBench {
 public:
  explicit VirtualBench(LineConfig config = {}, size_t devices = 1, const std::string &name = "sim-bench")
      : clock_(100000) {
    line_ = MemoryLine::Create(name);
    line_->SetEndBaud(MemoryLine::kMasterEnd, config.baud);
    runner_ = std::make_unique<MemoryLineRunner>(line_, config);
    for (size_t i = 0; i < devices; ++i) runner_->Core().AddDevice(DefaultDevice(i));
    runner_->AttachVirtual(clock_);
  }
  ~VirtualBench() { runner_->Stop(); }

  SimLine &Core() { return runner_->Core(); }
  Device &Dev(size_t i = 0) { return Core().DeviceAt(i); }
  platform::VirtualClock &Clock() { return clock_; }
  MemoryLine &Line() { return *line_; }
  uint64_t NowUs() const { return clock_.NowMicros(); }
  uint64_t CharUs() { return MemoryLine::CharMicros(Core().Config().baud); }

  // Sends bytes from the master end now; returns the arrival time of the last one.
  uint64_t Send(const Bytes &bytes) {
    sent_at_us_ = clock_.NowMicros();
    line_->WriteAt(MemoryLine::kMasterEnd, bytes.data(), static_cast<uint32_t>(bytes.size()), sent_at_us_);
    return sent_at_us_ +
           MemoryLine::CharMicros(line_->EndBaud(MemoryLine::kMasterEnd), static_cast<uint32_t>(bytes.size()));
  }
  // Lets `ms` virtual milliseconds pass and gives what arrived at the master end meanwhile.
  std::vector<MemoryLine::TimedByte> Collect(uint32_t ms) {
    std::vector<MemoryLine::TimedByte> got;
    for (uint32_t i = 0; i < ms; ++i) {
      clock_.AdvanceMs(1);
      MemoryLine::TimedByte chunk[256];
      uint32_t n;
      while ((n = line_->ReadTimed(MemoryLine::kMasterEnd, chunk, 256)) > 0) got.insert(got.end(), chunk, chunk + n);
    }
    return got;
  }
  static Bytes Values(const std::vector<MemoryLine::TimedByte> &timed) {
    Bytes out;
    for (const auto &t : timed) out.push_back(t.value);
    return out;
  }
  // Sends a request and gives the bytes that came back within `wait_ms`.
  Bytes Exchange(const Bytes &request, uint32_t wait_ms = 1500) {
    Send(request);
    return Values(Collect(wait_ms));
  }
  // Sends a request and parses the one reply; fails the test if there is none.
  RxFrame Ask(const Bytes &request, uint32_t wait_ms = 1500) {
    Bytes got = Exchange(request, wait_ms);
    std::optional<RxFrame> frame = ParseFrame(got);
    EXPECT_TRUE(frame.has_value()) << "no reply; transcript:\n" << Core().Log().Format();
    return frame.value_or(RxFrame{});
  }
  Address5 LongAddressOf(size_t device = 0) { return Dev(device).LongAddress(); }

 private:
  platform::VirtualClock clock_;
  std::shared_ptr<MemoryLine> line_;
  std::unique_ptr<MemoryLineRunner> runner_;
  uint64_t sent_at_us_ = 0;
};

}  // namespace velmora::sim::testing

#endif
