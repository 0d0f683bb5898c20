// HART frames as the simulated device reads and writes them: its own builder and its own
// byte-at-a-time receiver, kept apart from the library's link layer so that each checks the other.
//
// A transmission is preambles (0xFF) and then the frame proper: delimiter, address (1 byte in a
// short frame, 5 in a long one), command, byte count, data, and a checksum that is the exclusive
// OR of the frame proper from the delimiter through the last data byte.
#ifndef VELMORA_SIM_SIM_FRAME_H
#define VELMORA_SIM_SIM_FRAME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace velmora::sim {

inline constexpr uint8_t kPreamble = 0xFF;
inline constexpr uint8_t kShortBurst = 0x01;
inline constexpr uint8_t kShortRequest = 0x02;
inline constexpr uint8_t kShortResponse = 0x06;
inline constexpr uint8_t kLongBurst = 0x81;
inline constexpr uint8_t kLongRequest = 0x82;
inline constexpr uint8_t kLongResponse = 0x86;

inline constexpr uint8_t kMasterBit = 0x80;
inline constexpr uint8_t kBurstBit = 0x40;
inline constexpr size_t kMaxData = 255;
// Delimiter, 5 address bytes, command, count, 255 data bytes, checksum.
inline constexpr size_t kMaxFrameProper = 1 + 5 + 1 + 1 + kMaxData + 1;

bool IsKnownDelimiter(uint8_t delimiter);
inline bool IsLongDelimiter(uint8_t delimiter) { return (delimiter & 0x80) != 0; }
inline bool IsRequestDelimiter(uint8_t delimiter) { return (delimiter & 0x7F) == kShortRequest; }

// Time one character takes on the line at `baud`: 11 bits (start, 8 data, odd parity, stop).
// Counted for the whole run, so that long runs do not drift by rounding each character.
inline uint64_t CharMicros(uint32_t baud, uint64_t count = 1) { return count * 11u * 1000000u / (baud ? baud : 1200u); }

struct Frame {
  uint8_t delimiter = kShortRequest;
  // Short frames use address[0] only.
  std::array<uint8_t, 5> address{};
  uint8_t command = 0;
  std::vector<uint8_t> data;

  bool IsLong() const { return IsLongDelimiter(delimiter); }
  size_t AddressSize() const { return IsLong() ? 5 : 1; }
  bool MasterBit() const { return (address[0] & kMasterBit) != 0; }
  bool BurstBit() const { return (address[0] & kBurstBit) != 0; }
};

uint8_t Checksum(const uint8_t *bytes, size_t count);
// The frame proper, delimiter through checksum; data beyond 255 bytes is not sent.
std::vector<uint8_t> EncodeFrame(const Frame &frame);
// Preambles and the frame proper.
std::vector<uint8_t> EncodeTransmission(const Frame &frame, uint32_t preambles);

// Byte-at-a-time receiver. It hunts for at least `min_preambles` preambles followed by a known
// delimiter, then follows the byte count. A gap longer than `gap_limit_us` between two bytes of
// one frame abandons it. Its buffers are fixed, so no input can make it read or write out of
// bounds.
class FrameReceiver {
 public:
  enum class Outcome {
    kNone,         // the byte was taken; nothing finished
    kFrame,        // a frame with a good checksum is in LastFrame()
    kBadChecksum,  // a frame ended with a wrong checksum
    kAbandoned,    // a frame under way was given up (gap)
  };

  FrameReceiver(uint32_t min_preambles, uint64_t gap_limit_us);

  Outcome Push(uint8_t byte, uint64_t arrival_us);
  // Gives up a frame whose next byte is overdue at now_us; kAbandoned if it did.
  Outcome CheckGap(uint64_t now_us);
  void Reset();

  const Frame &LastFrame() const { return last_frame_; }
  // Frame proper of the frame that finished last (good or bad), or of the abandoned part.
  const std::vector<uint8_t> &LastRaw() const { return last_raw_; }
  uint64_t LastEndUs() const { return last_end_us_; }
  // Arrival of the first preamble of the frame that finished last.
  uint64_t LastFirstByteUs() const { return last_first_us_; }
  // True while preambles or a frame are coming in.
  bool Busy() const { return state_ != State::kHunt || preambles_ > 0; }
  uint64_t LastByteUs() const { return last_byte_us_; }
  uint64_t DiscardedBytes() const { return discarded_; }

 private:
  enum class State { kHunt, kAddress, kCommand, kCount, kData, kChecksum };

  void Take(uint8_t byte);
  void Abandon();

  uint32_t min_preambles_;
  uint64_t gap_limit_us_;
  State state_ = State::kHunt;
  uint32_t preambles_ = 0;
  std::array<uint8_t, kMaxFrameProper> raw_{};
  size_t raw_length_ = 0;
  size_t address_size_ = 1;
  size_t data_count_ = 0;
  uint64_t last_byte_us_ = 0;
  uint64_t last_end_us_ = 0;
  uint64_t first_us_ = 0;
  uint64_t last_first_us_ = 0;
  uint64_t discarded_ = 0;
  Frame last_frame_;
  std::vector<uint8_t> last_raw_;
};

}  // namespace velmora::sim

#endif
