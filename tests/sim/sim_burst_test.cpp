// Burst mode of the simulated device: frames of the chosen command at the set period, with the
// burst bit, the master bit as configured, and the line left free for masters between them.
#include <gtest/gtest.h>

#include "raw_peer.h"

namespace velmora::sim::testing {
namespace {

struct TimedFrame {
  RxFrame frame;
  uint64_t start_us;  // start of its first preamble
};

// Frames the far end sent, with the start time of each from the arrival of its first byte.
std::vector<TimedFrame> Frames(const std::vector<MemoryLine::TimedByte> &got, uint32_t baud) {
  Bytes values = VirtualBench::Values(got);
  std::vector<TimedFrame> out;
  for (const RxFrame &frame : AllFrames(values))
    out.push_back({frame, got[frame.offset].arrival_us - MemoryLine::CharMicros(baud)});
  return out;
}

class Burst : public ::testing::Test {
 protected:
  void Enable(BurstConfig burst, size_t device = 0) {
    burst.enabled = true;
    bench.Dev(device).SetBurst(burst);
  }
  VirtualBench bench;
};

TEST_F(Burst, FramesComeAtTheExactPeriodWithTheBurstBit) {
  BurstConfig burst;
  burst.command = 1;
  burst.period_ms = 500;
  burst.target = BurstTarget::kPrimary;
  uint64_t enabled_at = bench.NowUs();
  Enable(burst);
  std::vector<TimedFrame> frames = Frames(bench.Collect(2750), 1200);
  ASSERT_EQ(frames.size(), 6u) << bench.Core().Log().Format();
  Address5 address = bench.LongAddressOf();
  for (size_t i = 0; i < frames.size(); ++i) {
    const RxFrame &f = frames[i].frame;
    EXPECT_EQ(f.delimiter, 0x81);
    EXPECT_EQ(f.address[0], 0x80 | 0x40 | address[0]) << "master and burst bits";
    EXPECT_EQ(Bytes(f.address.begin() + 1, f.address.end()), Bytes(address.begin() + 1, address.end()));
    EXPECT_EQ(f.command, 1);
    EXPECT_EQ(f.count, 7);
    EXPECT_TRUE(f.checksum_ok);
    EXPECT_EQ(f.ResponseCode(), 0);
    // The first burst goes at the first tick after it was switched on.
    EXPECT_EQ(frames[i].start_us, enabled_at + 1000 + 500000 * i) << i;
  }
}

TEST_F(Burst, AlternatingTargetsGiveEachMasterItsTurn) {
  BurstConfig burst;
  burst.period_ms = 400;
  Enable(burst);
  std::vector<TimedFrame> frames = Frames(bench.Collect(2000), 1200);
  ASSERT_GE(frames.size(), 4u);
  for (size_t i = 0; i < frames.size(); ++i)
    EXPECT_EQ(frames[i].frame.address[0] & 0x80, i % 2 == 0 ? 0x80 : 0x00) << i;
}

TEST_F(Burst, SecondaryTargetAndShortFrames) {
  BurstConfig burst;
  burst.period_ms = 400;
  burst.target = BurstTarget::kSecondary;
  burst.long_frame = false;
  burst.command = 9;
  Enable(burst);
  std::vector<TimedFrame> frames = Frames(bench.Collect(1000), 1200);
  ASSERT_GE(frames.size(), 2u);
  for (const TimedFrame &t : frames) {
    EXPECT_EQ(t.frame.delimiter, 0x01);
    EXPECT_EQ(t.frame.address, Bytes{0x40});
    EXPECT_EQ(t.frame.command, 9);
    EXPECT_EQ(t.frame.Payload().size(), 1u + 4 * 8 + 4) << "command 9 bursts the four variables";
  }
}

TEST_F(Burst, ARequestBetweenBurstsIsAnsweredAndTheNextBurstLeavesAGap) {
  BurstConfig burst;
  burst.period_ms = 1000;
  burst.min_gap_ms = 75;
  burst.target = BurstTarget::kPrimary;
  Enable(burst);
  bench.Collect(400);  // the first burst is out, the next is due in 600 ms
  bench.Send(LongRequest(bench.LongAddressOf(), 2));
  std::vector<TimedFrame> frames = Frames(bench.Collect(1500), 1200);
  ASSERT_GE(frames.size(), 2u);
  const RxFrame &reply = frames[0].frame;
  EXPECT_EQ(reply.delimiter, 0x86);
  EXPECT_EQ(reply.command, 2);
  EXPECT_TRUE(reply.address[0] & 0x40) << "burst mode shows in replies";
  uint64_t reply_end =
      frames[0].start_us + MemoryLine::CharMicros(1200, static_cast<uint32_t>(reply.end - reply.offset));
  EXPECT_EQ(frames[1].frame.delimiter, 0x81);
  EXPECT_GE(frames[1].start_us, reply_end + 75000);
}

TEST_F(Burst, NoBurstStartsWhileAMasterIsSending) {
  BurstConfig burst;
  burst.period_ms = 300;
  burst.min_gap_ms = 20;
  Enable(burst);
  bench.Line().ClearRecord();
  // Requests every 250 ms that nobody answers keep the line busy at changing moments.
  for (int i = 0; i < 8; ++i) {
    bench.Send(ShortRequest(9, 0));
    bench.Collect(250);
  }
  // Each master request as heard: from the arrival of its first byte to the end of its last.
  std::vector<std::pair<uint64_t, uint64_t>> heard;
  for (const MemoryLine::Event &e : bench.Line().Record()) {
    if (e.kind != MemoryLine::EventKind::kByte || e.end != MemoryLine::kMasterEnd) continue;
    if (heard.empty() || e.time_us > heard.back().second + 1000) heard.push_back({e.end_us, e.end_us});
    heard.back().second = e.end_us;
  }
  ASSERT_EQ(heard.size(), 8u);
  size_t bursts = 0;
  for (const TranscriptEntry &entry : bench.Core().Log().Entries()) {
    if (entry.kind != TranscriptKind::kBurst) continue;
    ++bursts;
    for (const auto &[begin, end] : heard)
      EXPECT_FALSE(entry.time_us >= begin && entry.time_us < end + 20000)
          << "burst at " << entry.time_us << " inside a request heard " << begin << ".." << end;
  }
  EXPECT_GT(bursts, 3u);
}

TEST_F(Burst, TwoBurstDevicesShareTheLine) {
  bench.Core().AddDevice(DefaultDevice(1));
  BurstConfig burst;
  burst.period_ms = 500;
  burst.min_gap_ms = 30;
  Enable(burst, 0);
  Enable(burst, 1);
  bench.Line().ClearRecord();
  std::vector<TimedFrame> frames = Frames(bench.Collect(3000), 1200);
  ASSERT_GE(frames.size(), 8u);
  for (size_t i = 1; i < frames.size(); ++i) {
    uint64_t previous_end =
        frames[i - 1].start_us +
        MemoryLine::CharMicros(1200, static_cast<uint32_t>(frames[i - 1].frame.end - frames[i - 1].frame.offset));
    EXPECT_GE(frames[i].start_us, previous_end + 30000) << i;
  }
}

}  // namespace
}  // namespace velmora::sim::testing
