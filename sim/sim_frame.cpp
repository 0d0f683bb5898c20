// The simulated device's frame builder and receiver.
#include "sim/sim_frame.h"

#include <algorithm>

namespace velmora::sim {

bool IsKnownDelimiter(uint8_t delimiter) {
  switch (delimiter) {
    case kShortBurst:
    case kShortRequest:
    case kShortResponse:
    case kLongBurst:
    case kLongRequest:
    case kLongResponse:
      return true;
    default:
      return false;
  }
}

uint8_t Checksum(const uint8_t *bytes, size_t count) {
  uint8_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum ^= bytes[i];
  return sum;
}

std::vector<uint8_t> EncodeFrame(const Frame &frame) {
  size_t count = std::min(frame.data.size(), kMaxData);
  std::vector<uint8_t> out;
  out.reserve(kMaxFrameProper);
  out.push_back(frame.delimiter);
  out.insert(out.end(), frame.address.begin(),
             frame.address.begin() + static_cast<std::ptrdiff_t>(frame.AddressSize()));
  out.push_back(frame.command);
  out.push_back(static_cast<uint8_t>(count));
  out.insert(out.end(), frame.data.begin(), frame.data.begin() + static_cast<std::ptrdiff_t>(count));
  out.push_back(Checksum(out.data(), out.size()));
  return out;
}

std::vector<uint8_t> EncodeTransmission(const Frame &frame, uint32_t preambles) {
  std::vector<uint8_t> out(preambles, kPreamble);
  std::vector<uint8_t> proper = EncodeFrame(frame);
  out.insert(out.end(), proper.begin(), proper.end());
  return out;
}

FrameReceiver::FrameReceiver(uint32_t min_preambles, uint64_t gap_limit_us)
    : min_preambles_(std::max<uint32_t>(min_preambles, 1)), gap_limit_us_(gap_limit_us) {}

void FrameReceiver::Reset() {
  state_ = State::kHunt;
  preambles_ = 0;
  raw_length_ = 0;
}

void FrameReceiver::Abandon() {
  last_raw_.assign(raw_.begin(), raw_.begin() + static_cast<std::ptrdiff_t>(raw_length_));
  discarded_ += raw_length_ + preambles_;
  Reset();
}

FrameReceiver::Outcome FrameReceiver::CheckGap(uint64_t now_us) {
  if (state_ == State::kHunt) {
    // Preambles alone are not a frame yet; a long pause just forgets them.
    if (preambles_ > 0 && now_us > last_byte_us_ + gap_limit_us_) {
      discarded_ += preambles_;
      preambles_ = 0;
    }
    return Outcome::kNone;
  }
  if (now_us <= last_byte_us_ + gap_limit_us_) return Outcome::kNone;
  Abandon();
  return Outcome::kAbandoned;
}

void FrameReceiver::Take(uint8_t byte) {
  // raw_ has room for the largest frame the byte count can announce, so this never overflows;
  // the check only guards the invariant.
  if (raw_length_ < raw_.size()) raw_[raw_length_++] = byte;
}

FrameReceiver::Outcome FrameReceiver::Push(uint8_t byte, uint64_t arrival_us) {
  Outcome outcome = Outcome::kNone;
  if (state_ != State::kHunt && arrival_us > last_byte_us_ + gap_limit_us_) {
    Abandon();
    outcome = Outcome::kAbandoned;
  }
  if (state_ == State::kHunt && preambles_ > 0 && arrival_us > last_byte_us_ + gap_limit_us_) {
    discarded_ += preambles_;
    preambles_ = 0;
  }
  last_byte_us_ = arrival_us;

  switch (state_) {
    case State::kHunt:
      if (byte == kPreamble) {
        if (preambles_ == 0) first_us_ = arrival_us;
        ++preambles_;
      } else if (preambles_ >= min_preambles_ && IsKnownDelimiter(byte)) {
        preambles_ = 0;
        raw_length_ = 0;
        Take(byte);
        address_size_ = IsLongDelimiter(byte) ? 5 : 1;
        state_ = State::kAddress;
      } else {
        discarded_ += preambles_ + 1;
        preambles_ = 0;
      }
      break;
    case State::kAddress:
      Take(byte);
      if (raw_length_ == 1 + address_size_) state_ = State::kCommand;
      break;
    case State::kCommand:
      Take(byte);
      state_ = State::kCount;
      break;
    case State::kCount:
      Take(byte);
      data_count_ = byte;
      state_ = data_count_ == 0 ? State::kChecksum : State::kData;
      break;
    case State::kData:
      Take(byte);
      if (raw_length_ == 3 + address_size_ + data_count_) state_ = State::kChecksum;
      break;
    case State::kChecksum: {
      uint8_t expected = Checksum(raw_.data(), raw_length_);
      Take(byte);
      last_raw_.assign(raw_.begin(), raw_.begin() + static_cast<std::ptrdiff_t>(raw_length_));
      last_end_us_ = arrival_us;
      last_first_us_ = first_us_;
      state_ = State::kHunt;
      preambles_ = 0;
      if (expected != byte) {
        discarded_ += raw_length_;
        return Outcome::kBadChecksum;
      }
      Frame frame;
      frame.delimiter = raw_[0];
      std::copy_n(raw_.begin() + 1, address_size_, frame.address.begin());
      frame.command = raw_[1 + address_size_];
      const uint8_t *data = raw_.data() + 3 + address_size_;
      frame.data.assign(data, data + data_count_);
      last_frame_ = std::move(frame);
      return Outcome::kFrame;
    }
  }
  return outcome;
}

}  // namespace velmora::sim
