// The simulated line's timing: in virtual time every reply byte starts at an exact microsecond
// (turnaround after the request's last byte, then one character time apart at the line's rate);
// the master's echo; and pacing in real time, with generous bounds.
#include <gtest/gtest.h>

#include "raw_peer.h"

namespace velmora::sim::testing {
namespace {

// Start times of the bytes the far end sent, from the line's record.
std::vector<uint64_t> FarEndStarts(MemoryLine &line) {
  std::vector<uint64_t> starts;
  for (const MemoryLine::Event &event : line.Record())
    if (event.kind == MemoryLine::EventKind::kByte && event.end == MemoryLine::kFarEnd) starts.push_back(event.time_us);
  return starts;
}

struct TimingCase {
  uint32_t baud;
  uint64_t turnaround_us;
};

class ReplyTiming : public ::testing::TestWithParam<TimingCase> {};

TEST_P(ReplyTiming, EveryReplyByteStartsAtAnExactMoment) {
  LineConfig config;
  config.baud = GetParam().baud;
  config.turnaround_us = GetParam().turnaround_us;
  VirtualBench bench(config);
  bench.Line().ClearRecord();
  Bytes request = LongRequest(bench.LongAddressOf(), 3);
  uint64_t request_end = bench.Send(request);
  std::vector<MemoryLine::TimedByte> got = bench.Collect(1500);
  ASSERT_EQ(got.size(), 5u + 8 + 2 + 24 + 1) << bench.Core().Log().Format();

  uint64_t first = request_end + GetParam().turnaround_us;
  std::vector<uint64_t> starts = FarEndStarts(bench.Line());
  ASSERT_EQ(starts.size(), got.size());
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(starts[i], first + MemoryLine::CharMicros(config.baud, static_cast<uint32_t>(i))) << "byte " << i;
    EXPECT_EQ(got[i].arrival_us, starts[i] + MemoryLine::CharMicros(config.baud)) << "byte " << i;
  }
  // The transcript tells the same moment.
  const auto &entries = bench.Core().Log().Entries();
  auto reply = std::find_if(entries.begin(), entries.end(),
                            [](const TranscriptEntry &e) { return e.kind == TranscriptKind::kReply; });
  ASSERT_NE(reply, entries.end());
  EXPECT_EQ(reply->time_us, first);
}

INSTANTIATE_TEST_SUITE_P(Sim, ReplyTiming,
                         ::testing::Values(TimingCase{1200, 20000}, TimingCase{9600, 20000}, TimingCase{19200, 20000},
                                           TimingCase{1200, 5000}, TimingCase{1200, 150000}, TimingCase{19200, 1000}),
                         [](const ::testing::TestParamInfo<TimingCase> &info) {
                           return std::to_string(info.param.baud) + "baud_" +
                                  std::to_string(info.param.turnaround_us / 1000) + "ms";
                         });

TEST(SimTiming, OneCharacterIsElevenBits) {
  EXPECT_EQ(CharMicros(1200), 9166u);
  EXPECT_EQ(CharMicros(9600), 1145u);
  EXPECT_EQ(CharMicros(19200), 572u);
  EXPECT_EQ(CharMicros(1200, 12), 110000u);
  for (uint32_t baud : {1200u, 9600u, 19200u})
    for (uint32_t n : {1u, 7u, 34u, 264u}) EXPECT_EQ(CharMicros(baud, n), MemoryLine::CharMicros(baud, n));
}

TEST(SimTiming, RepliesFollowEachOtherWithoutOverlap) {
  LineConfig config;
  config.turnaround_us = 150000;
  VirtualBench bench(config, 2);
  // Two short requests back to back, both over before the first reply begins: the second
  // reply waits until the first has left the line.
  Bytes both = ShortRequest(0, 0);
  Bytes second = ShortRequest(1, 0);
  both.insert(both.end(), second.begin(), second.end());
  bench.Line().ClearRecord();
  bench.Send(both);
  std::vector<RxFrame> frames = AllFrames(VirtualBench::Values(bench.Collect(2000)));
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].address, Bytes{0x80});
  EXPECT_EQ(frames[1].address, Bytes{0x81});
  std::vector<uint64_t> starts = FarEndStarts(bench.Line());
  for (size_t i = 1; i < starts.size(); ++i) EXPECT_GE(starts[i] - starts[i - 1], bench.CharUs()) << i;
}

TEST(SimTiming, ARequestThatOverlapsTheReplyCollidesAndIsLost) {
  VirtualBench bench;
  Bytes both = LongRequest(bench.LongAddressOf(), 1);
  Bytes second = LongRequest(bench.LongAddressOf(), 2);
  both.insert(both.end(), second.begin(), second.end());
  std::vector<RxFrame> frames = AllFrames(bench.Exchange(both, 2000));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].command, 1);
  EXPECT_EQ(bench.Core().Stats().collisions, 1u);
}

TEST(SimTiming, EchoGivesTheMasterItsOwnBytesFirst) {
  LineConfig config;
  config.echo = true;
  VirtualBench bench(config);
  Bytes request = ShortRequest(0, 0);
  uint64_t start = bench.NowUs();
  bench.Send(request);
  std::vector<MemoryLine::TimedByte> got = bench.Collect(1500);
  ASSERT_GT(got.size(), request.size());
  for (size_t i = 0; i < request.size(); ++i) {
    EXPECT_EQ(got[i].value, request[i]);
    EXPECT_EQ(got[i].arrival_us, start + MemoryLine::CharMicros(1200, static_cast<uint32_t>(i + 1)));
  }
  Bytes all = VirtualBench::Values(got);
  Bytes rest(all.begin() + static_cast<std::ptrdiff_t>(request.size()), all.end());
  std::optional<RxFrame> reply = ParseFrame(rest);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->delimiter, 0x06);
}

TEST(SimTiming, BytesAtAnotherBaudRateAreNotUnderstood) {
  VirtualBench bench;
  bench.Line().SetEndBaud(MemoryLine::kMasterEnd, 9600);
  EXPECT_TRUE(bench.Exchange(ShortRequest(0, 0)).empty());
  bench.Line().SetEndBaud(MemoryLine::kMasterEnd, 1200);
  EXPECT_EQ(bench.Ask(ShortRequest(0, 0)).command, 0);
}

TEST(SimTiming, ARequestSpreadOverSeveralWritesIsStillOneFrame) {
  VirtualBench bench;
  Bytes request = LongRequest(bench.LongAddressOf(), 1);
  // Pieces with pauses shorter than the gap limit (three characters plus 10 ms).
  Bytes head(request.begin(), request.begin() + 8);
  Bytes tail(request.begin() + 8, request.end());
  bench.Send(head);
  bench.Collect(static_cast<uint32_t>(8 * 9.2 + 20));
  bench.Send(tail);
  EXPECT_EQ(ParseFrame(VirtualBench::Values(bench.Collect(1500)))->command, 1);
}

TEST(SimTiming, APauseInsideARequestAbandonsIt) {
  VirtualBench bench;
  Bytes request = LongRequest(bench.LongAddressOf(), 1);
  Bytes head(request.begin(), request.begin() + 8);
  Bytes tail(request.begin() + 8, request.end());
  bench.Send(head);
  bench.Collect(8 * 10 + 60);
  bench.Send(tail);
  EXPECT_TRUE(bench.Exchange({}, 1500).empty());
  EXPECT_EQ(bench.Core().Stats().abandoned, 1u);
}

// Real time on the in-memory line: the runner's own thread, no virtual clock.
TEST(SimRealTime, MemoryLineRunnerAnswersInRealTime) {
  auto line = MemoryLine::Create("sim-real-time");
  ASSERT_TRUE(line);
  LineConfig config;
  config.baud = 9600;
  line->SetEndBaud(MemoryLine::kMasterEnd, 9600);
  MemoryLineRunner runner(line, config);
  runner.Core().AddDevice(DefaultDevice(0));
  runner.StartRealTime();

  Bytes request = ShortRequest(0, 0);
  uint64_t sent = platform::NowMicros();
  line->WriteAt(MemoryLine::kMasterEnd, request.data(), static_cast<uint32_t>(request.size()), sent);
  uint64_t request_end = sent + MemoryLine::CharMicros(9600, static_cast<uint32_t>(request.size()));
  std::vector<MemoryLine::TimedByte> got;
  uint64_t deadline = sent + 3000000;
  while (platform::NowMicros() < deadline && got.size() < 34) {
    MemoryLine::TimedByte chunk[64];
    uint32_t n = line->ReadTimed(MemoryLine::kMasterEnd, chunk, 64);
    got.insert(got.end(), chunk, chunk + n);
    platform::os::SleepMicros(1000);
  }
  runner.Stop();
  ASSERT_EQ(got.size(), 34u);
  uint64_t first_start = got[0].arrival_us - MemoryLine::CharMicros(9600);
  EXPECT_GE(first_start, request_end + config.turnaround_us);
  EXPECT_LE(first_start, request_end + config.turnaround_us + 200000) << "generous bound for a loaded machine";
  // Paced: one character time from each byte to the next.
  EXPECT_EQ(got.back().arrival_us - got.front().arrival_us, MemoryLine::CharMicros(9600, 33));
  std::optional<RxFrame> frame = ParseFrame(VirtualBench::Values(got));
  ASSERT_TRUE(frame);
  EXPECT_TRUE(frame->checksum_ok);
}

TEST(SimRealTime, ConfigurationUnderTheLockWhileTheThreadRuns) {
  auto line = MemoryLine::Create("sim-real-time-lock");
  MemoryLineRunner runner(line);
  runner.Core().AddDevice(DefaultDevice(0));
  runner.StartRealTime();
  for (int i = 0; i < 50; ++i) {
    runner.WithCore([](SimLine &core) { core.DeviceAt(0).AddFault(Fault::Delay(1)); });
    platform::os::SleepMicros(200);
  }
  size_t faults = runner.WithCore([](SimLine &core) { return core.DeviceAt(0).Faults().Pending().size(); });
  runner.Stop();
  EXPECT_EQ(faults, 50u);
}

}  // namespace
}  // namespace velmora::sim::testing
