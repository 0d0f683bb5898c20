// Faults on cue: each kind spoils the reply as configured, for as many requests and for the
// commands it is set for, and the device is back to normal afterwards.
#include <gtest/gtest.h>

#include <functional>

#include "raw_peer.h"
#include "sim/sim_data.h"

namespace velmora::sim::testing {
namespace {

// A normal reply to command 1 in a long frame: 5 preambles, 1 + 5 + 1 + 1 + 7 + 1 bytes.
constexpr size_t kNormalLength = 5 + 16;

struct FaultCase {
  const char *name;
  Fault fault;
  // Checks the bytes that came back, with their times, and the end of the request.
  std::function<void(const std::vector<MemoryLine::TimedByte> &, uint64_t request_end_us)> check;
};

Bytes Values(const std::vector<MemoryLine::TimedByte> &got) { return VirtualBench::Values(got); }
uint64_t StartOf(const MemoryLine::TimedByte &byte) { return byte.arrival_us - MemoryLine::CharMicros(1200); }

std::vector<FaultCase> Cases() {
  return {
      {"Delay", Fault::Delay(150),
       [](const auto &got, uint64_t end) {
         ASSERT_EQ(got.size(), kNormalLength);
         EXPECT_EQ(StartOf(got[0]), end + 20000 + 150000);
         EXPECT_TRUE(ParseFrame(Values(got))->checksum_ok);
       }},
      {"Busy", Fault::Busy(),
       [](const auto &got, uint64_t) {
         std::optional<RxFrame> f = ParseFrame(Values(got));
         ASSERT_TRUE(f);
         EXPECT_EQ(f->ResponseCode(), kBusy);
         EXPECT_EQ(f->count, 2);
         EXPECT_TRUE(f->checksum_ok);
       }},
      {"CommError", Fault::CommError(0x90),
       [](const auto &got, uint64_t) {
         std::optional<RxFrame> f = ParseFrame(Values(got));
         ASSERT_TRUE(f);
         EXPECT_EQ(f->data, (Bytes{0x90, 0x00}));
         EXPECT_TRUE(f->checksum_ok);
       }},
      {"CommErrorForcesBitSeven", Fault::CommError(0x10),
       [](const auto &got, uint64_t) { EXPECT_EQ(ParseFrame(Values(got))->ResponseCode(), 0x90); }},
      {"NoReply", Fault::NoReply(), [](const auto &got, uint64_t) { EXPECT_TRUE(got.empty()); }},
      {"Truncate", Fault::Truncate(6),
       [](const auto &got, uint64_t) {
         Bytes v = Values(got);
         ASSERT_EQ(v.size(), 5u + 6);
         EXPECT_EQ(v[5], 0x86);
         EXPECT_FALSE(ParseFrame(v).has_value());
       }},
      {"BadChecksum", Fault::BadChecksum(),
       [](const auto &got, uint64_t) {
         std::optional<RxFrame> f = ParseFrame(Values(got));
         ASSERT_TRUE(f);
         EXPECT_EQ(got.size(), kNormalLength);
         EXPECT_FALSE(f->checksum_ok);
         EXPECT_EQ(f->ResponseCode(), 0) << "only the checksum is wrong";
       }},
      {"NoiseBefore", Fault::NoiseBefore(4),
       [](const auto &got, uint64_t end) {
         Bytes v = Values(got);
         ASSERT_EQ(v.size(), kNormalLength + 4);
         for (size_t i = 0; i < 4; ++i) EXPECT_NE(v[i], 0xFF) << i;
         EXPECT_EQ(StartOf(got[0]), end + 20000) << "noise takes the reply's place in time";
         std::optional<RxFrame> f = ParseFrame(v);
         ASSERT_TRUE(f);
         EXPECT_EQ(f->offset, 4u);
         EXPECT_TRUE(f->checksum_ok);
       }},
      {"NoiseInside", Fault::NoiseInside(7, 3),
       [](const auto &got, uint64_t) {
         Bytes v = Values(got);
         ASSERT_EQ(v.size(), kNormalLength + 3);
         // Delimiter, address and command come through, then noise where the byte count should stand.
         EXPECT_EQ(v[5], 0x86);
         std::optional<RxFrame> f = ParseFrame(v);
         EXPECT_TRUE(!f || !f->checksum_ok || f->count != 7);
       }},
      {"SplitGap", Fault::SplitGap(8, 60),
       [](const auto &got, uint64_t) {
         ASSERT_EQ(got.size(), kNormalLength);
         // Bytes before the split follow each other at the character time; after it, 60 ms later.
         uint64_t before = StartOf(got[5 + 8]) - got[5 + 7].arrival_us;
         EXPECT_EQ(before, 60000u + (MemoryLine::CharMicros(1200, 13) - MemoryLine::CharMicros(1200, 12) -
                                     MemoryLine::CharMicros(1200, 1)));
         EXPECT_TRUE(ParseFrame(Values(got))->checksum_ok) << "the bytes themselves are intact";
       }},
  };
}

void PrintTo(const FaultCase &c, std::ostream *os) { *os << c.name; }

class EachFault : public ::testing::TestWithParam<FaultCase> {};

TEST_P(EachFault, SpoilsTheNextReplyOnlyAsConfigured) {
  VirtualBench bench;
  bench.Dev().AddFault(GetParam().fault);
  uint64_t end = bench.Send(LongRequest(bench.LongAddressOf(), 1));
  GetParam().check(bench.Collect(1500), end);
  // Set for one request: the next one is answered normally.
  RxFrame next = bench.Ask(LongRequest(bench.LongAddressOf(), 1));
  EXPECT_EQ(next.ResponseCode(), 0);
  EXPECT_TRUE(next.checksum_ok);
  EXPECT_TRUE(bench.Dev().Faults().Empty());
}

INSTANTIATE_TEST_SUITE_P(Sim, EachFault, ::testing::ValuesIn(Cases()),
                         [](const ::testing::TestParamInfo<FaultCase> &info) { return std::string(info.param.name); });

TEST(SimFaults, BusyForNRequestsThenTheCommandIsCarriedOut) {
  VirtualBench bench;
  bench.Dev().AddFault(Fault::Busy().Times(2));
  Bytes write = LongRequest(bench.LongAddressOf(), 19, {9, 8, 7});
  EXPECT_EQ(bench.Ask(write).ResponseCode(), kBusy);
  EXPECT_EQ(bench.Ask(write).ResponseCode(), kBusy);
  EXPECT_EQ(bench.Dev().Config().final_assembly, 0x000100u) << "a busy device did nothing";
  EXPECT_EQ(bench.Ask(write).ResponseCode(), 0);
  EXPECT_EQ(bench.Dev().Config().final_assembly, 0x090807u);
}

TEST(SimFaults, AFaultForOneCommandLeavesTheOthersAlone) {
  VirtualBench bench;
  bench.Dev().AddFault(Fault::NoReply().ForCommand(2));
  EXPECT_EQ(bench.Ask(LongRequest(bench.LongAddressOf(), 1)).ResponseCode(), 0);
  EXPECT_EQ(bench.Ask(LongRequest(bench.LongAddressOf(), 3)).ResponseCode(), 0);
  EXPECT_TRUE(bench.Exchange(LongRequest(bench.LongAddressOf(), 2)).empty());
  EXPECT_EQ(bench.Ask(LongRequest(bench.LongAddressOf(), 2)).ResponseCode(), 0);
}

TEST(SimFaults, AStandingFaultStaysUntilCleared) {
  VirtualBench bench;
  bench.Dev().AddFault(Fault::CommError().Always());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(bench.Ask(LongRequest(bench.LongAddressOf(), 1)).ResponseCode(), 0x82);
  bench.Dev().Faults().Clear();
  EXPECT_EQ(bench.Ask(LongRequest(bench.LongAddressOf(), 1)).ResponseCode(), 0);
}

TEST(SimFaults, FaultsBelongToOneDevice) {
  VirtualBench bench(LineConfig{}, 2);
  bench.Dev(1).AddFault(Fault::NoReply().Always());
  EXPECT_EQ(bench.Ask(LongRequest(bench.LongAddressOf(0), 1)).ResponseCode(), 0);
  EXPECT_TRUE(bench.Exchange(LongRequest(bench.LongAddressOf(1), 1)).empty());
}

TEST(SimFaults, FaultsCombine) {
  VirtualBench bench;
  bench.Dev().AddFault(Fault::Delay(50));
  bench.Dev().AddFault(Fault::Busy());
  bench.Dev().AddFault(Fault::NoiseBefore(2));
  uint64_t end = bench.Send(LongRequest(bench.LongAddressOf(), 1));
  std::vector<MemoryLine::TimedByte> got = bench.Collect(1500);
  ASSERT_EQ(got.size(), 2u + 5 + 11);
  EXPECT_EQ(StartOf(got[0]), end + 20000 + 50000);
  EXPECT_EQ(ParseFrame(Values(got))->ResponseCode(), kBusy);
}

TEST(SimFaults, NoiseIsTheSameForTheSameSeed) {
  auto noise = [](uint32_t seed) {
    LineConfig config;
    config.seed = seed;
    VirtualBench bench(config);
    bench.Dev().AddFault(Fault::NoiseBefore(8));
    return bench.Exchange(LongRequest(bench.LongAddressOf(), 1));
  };
  EXPECT_EQ(noise(7), noise(7));
  EXPECT_NE(noise(7), noise(8));
}

TEST(SimFaults, TheTranscriptNamesTheFault) {
  VirtualBench bench;
  bench.Dev().AddFault(Fault::BadChecksum());
  bench.Exchange(LongRequest(bench.LongAddressOf(), 1));
  EXPECT_NE(bench.Core().Log().Format().find("faults bad-checksum"), std::string::npos) << bench.Core().Log().Format();
}

TEST(SimFaults, KindsHaveNamesBothWays) {
  for (FaultKind kind :
       {FaultKind::kDelay, FaultKind::kBusy, FaultKind::kCommError, FaultKind::kNoReply, FaultKind::kTruncate,
        FaultKind::kBadChecksum, FaultKind::kNoiseBefore, FaultKind::kNoiseInside, FaultKind::kSplitGap}) {
    FaultKind back = FaultKind::kNoReply;
    ASSERT_TRUE(ParseFaultKind(FaultKindName(kind), &back)) << FaultKindName(kind);
    EXPECT_EQ(back, kind);
  }
  FaultKind unused;
  EXPECT_FALSE(ParseFaultKind("melt", &unused));
}

}  // namespace
}  // namespace velmora::sim::testing
