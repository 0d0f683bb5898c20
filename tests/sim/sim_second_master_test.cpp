// The second master on the simulated line: its requests carry its own master bit, the devices
// answer it with that bit, and it waits for its turn or a quiet line unless it is sent on cue.
#include <gtest/gtest.h>

#include "raw_peer.h"

namespace velmora::sim::testing {
namespace {

struct Heard {
  RxFrame frame;
  uint64_t start_us;
};

std::vector<Heard> FramesWithTimes(const std::vector<MemoryLine::TimedByte> &got) {
  std::vector<Heard> out;
  for (const RxFrame &frame : AllFrames(VirtualBench::Values(got)))
    out.push_back({frame, got[frame.offset].arrival_us - MemoryLine::CharMicros(1200)});
  return out;
}

uint64_t EndOf(const Heard &heard) {
  return heard.start_us + MemoryLine::CharMicros(1200, static_cast<uint32_t>(heard.frame.end - heard.frame.offset));
}

PeerRequest ReadPv(VirtualBench &bench) {
  PeerRequest request;
  request.long_address = bench.LongAddressOf();
  request.command = 1;
  return request;
}

TEST(SimSecondMaster, TakesItsTurnAfterTheReplyToTheOtherMaster) {
  VirtualBench bench;
  bench.Core().Peer().Configure(SecondMasterConfig{});
  // Our master (primary) asks first; the peer, queued meanwhile, waits for the reply to end.
  bench.Send(LongRequest(bench.LongAddressOf(), 2));
  std::vector<MemoryLine::TimedByte> got = bench.Collect(20);
  bench.Core().Peer().Send(ReadPv(bench), 0);
  std::vector<MemoryLine::TimedByte> rest = bench.Collect(1500);
  got.insert(got.end(), rest.begin(), rest.end());
  std::vector<Heard> frames = FramesWithTimes(got);
  ASSERT_EQ(frames.size(), 3u) << bench.Core().Log().Format();

  const Heard &our_reply = frames[0];
  EXPECT_EQ(our_reply.frame.command, 2);
  EXPECT_EQ(our_reply.frame.address[0] & 0x80, 0x80);

  const Heard &peer_request = frames[1];
  EXPECT_EQ(peer_request.frame.delimiter, 0x82);
  EXPECT_EQ(peer_request.frame.address[0] & 0x80, 0x00) << "a secondary master";
  EXPECT_EQ(peer_request.frame.command, 1);
  EXPECT_TRUE(peer_request.frame.checksum_ok);
  uint64_t turn = EndOf(our_reply) + 20000;
  EXPECT_EQ(peer_request.start_us, (turn + 999) / 1000 * 1000) << "at the first tick of its turn";

  const Heard &peer_reply = frames[2];
  EXPECT_EQ(peer_reply.frame.delimiter, 0x86);
  EXPECT_EQ(peer_reply.frame.address[0] & 0x80, 0x00) << "answered to the secondary";
  EXPECT_EQ(peer_reply.start_us, EndOf(peer_request) + 20000);

  ASSERT_EQ(bench.Core().Peer().Exchanges().size(), 1u);
  const PeerExchange &exchange = bench.Core().Peer().Exchanges()[0];
  EXPECT_TRUE(exchange.answered);
  EXPECT_EQ(exchange.sent_us, peer_request.start_us);
  EXPECT_EQ(exchange.reply_start_us, peer_reply.start_us);
}

TEST(SimSecondMaster, WaitsForAQuietLineWhenNoTurnComes) {
  VirtualBench bench;
  SecondMasterConfig config;
  config.quiet_ms = 380;
  bench.Core().Peer().Configure(config);
  uint64_t queued_at = bench.NowUs();
  bench.Core().Peer().Send(ReadPv(bench), 0);
  std::vector<Heard> frames = FramesWithTimes(bench.Collect(400));
  ASSERT_EQ(frames.size(), 2u);
  // Nothing was ever on the line, so the line has been quiet all along.
  EXPECT_EQ(frames[0].start_us, queued_at + 1000);

  // After the exchange the line must be quiet for 380 ms again.
  bench.Core().Peer().Send(ReadPv(bench), 0);
  std::vector<Heard> next = FramesWithTimes(bench.Collect(1200));
  ASSERT_EQ(next.size(), 2u);
  EXPECT_GE(next[0].start_us, EndOf(frames[1]) + 380000);
  EXPECT_LT(next[0].start_us, EndOf(frames[1]) + 382000);
}

TEST(SimSecondMaster, APoliteMasterDoesNotInterruptTraffic) {
  VirtualBench bench;
  bench.Core().Peer().Configure(SecondMasterConfig{});
  bench.Send(LongRequest(bench.LongAddressOf(), 3));
  bench.Collect(30);  // our request is coming in
  bench.Core().Peer().Send(ReadPv(bench), 0);
  std::vector<Heard> frames = FramesWithTimes(bench.Collect(1500));
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0].frame.command, 3) << "the reply to our master comes first";
  EXPECT_EQ(frames[1].frame.delimiter, 0x82);
  EXPECT_GE(frames[1].start_us, EndOf(frames[0]) + 20000);
}

TEST(SimSecondMaster, OnCueItSendsAtTheMomentGiven) {
  VirtualBench bench;
  SecondMasterConfig config;
  config.mode = PeerMode::kOnCue;
  bench.Core().Peer().Configure(config);
  uint64_t cue = bench.NowUs() + 50000;
  bench.Core().Peer().Send(ReadPv(bench), cue);
  bench.Send(LongRequest(bench.LongAddressOf(), 0));  // still on the line at the cue
  std::vector<Heard> frames = FramesWithTimes(bench.Collect(1500));
  ASSERT_GE(frames.size(), 1u);
  EXPECT_EQ(frames[0].frame.delimiter, 0x82);
  EXPECT_EQ(frames[0].start_us, cue);
}

TEST(SimSecondMaster, APrimaryPeerSetsTheMasterBit) {
  VirtualBench bench;
  SecondMasterConfig config;
  config.role = Master::kPrimary;
  bench.Core().Peer().Configure(config);
  bench.Core().Peer().Send(ReadPv(bench), 0);
  std::vector<Heard> frames = FramesWithTimes(bench.Collect(1200));
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].frame.address[0] & 0x80, 0x80);
  EXPECT_EQ(frames[1].frame.address[0] & 0x80, 0x80);
}

TEST(SimSecondMaster, PeriodicRequestsAtTheSetPeriod) {
  VirtualBench bench;
  SecondMasterConfig config;
  config.period_ms = 1000;
  config.quiet_ms = 100;
  config.periodic = ReadPv(bench);
  bench.Core().Peer().Configure(config);
  bench.Collect(5500);
  EXPECT_EQ(bench.Core().Stats().peer_requests, 5u);
  EXPECT_EQ(bench.Core().Peer().Exchanges().size(), 5u);
  for (const PeerExchange &exchange : bench.Core().Peer().Exchanges()) EXPECT_TRUE(exchange.answered);
}

TEST(SimSecondMaster, ARequestToNobodyIsRecordedUnanswered) {
  VirtualBench bench;
  bench.Core().Peer().Configure(SecondMasterConfig{});
  PeerRequest request;
  request.long_address = {1, 2, 3, 4, 5};
  bench.Core().Peer().Send(request, 0);
  std::vector<Heard> frames = FramesWithTimes(bench.Collect(1200));
  ASSERT_EQ(frames.size(), 1u);
  ASSERT_EQ(bench.Core().Peer().Exchanges().size(), 1u);
  EXPECT_FALSE(bench.Core().Peer().Exchanges()[0].answered);
}

TEST(SimSecondMaster, BurstFramesToTheOtherMasterGiveItTheTurn) {
  VirtualBench bench;
  BurstConfig burst;
  burst.enabled = true;
  burst.period_ms = 2000;
  burst.target = BurstTarget::kPrimary;
  bench.Dev().SetBurst(burst);
  bench.Core().Peer().Configure(SecondMasterConfig{});
  std::vector<MemoryLine::TimedByte> got = bench.Collect(5);  // the burst frame is going out
  bench.Core().Peer().Send(ReadPv(bench), 0);
  std::vector<MemoryLine::TimedByte> rest = bench.Collect(1000);
  got.insert(got.end(), rest.begin(), rest.end());
  std::vector<Heard> frames = FramesWithTimes(got);
  ASSERT_GE(frames.size(), 2u);
  EXPECT_EQ(frames[0].frame.delimiter, 0x81);
  EXPECT_EQ(frames[1].frame.delimiter, 0x82);
  EXPECT_LT(frames[1].start_us, EndOf(frames[0]) + 22000);
}

}  // namespace
}  // namespace velmora::sim::testing
