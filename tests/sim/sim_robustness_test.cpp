// Whatever a master under test sends, the simulator never crashes, never reads out of bounds
// (this runs under AddressSanitizer) and keeps listening. Seeded, with the seed printed; set
// VELMORA_SIM_SEED to repeat a run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <random>

#include "raw_peer.h"

namespace velmora::sim::testing {
namespace {

uint32_t Seed() {
  static const uint32_t seed = [] {
    const char *text = std::getenv("VELMORA_SIM_SEED");
    uint32_t value = text ? static_cast<uint32_t>(std::strtoul(text, nullptr, 10)) : std::random_device{}();
    std::cout << "simulator robustness seed: " << value << " (VELMORA_SIM_SEED=" << value << " repeats it)\n";
    return value;
  }();
  return seed;
}

// Garbage with a taste of the real thing: runs of preambles, delimiters, and whole frames.
Bytes Garbage(std::mt19937 &rng, size_t count, const Address5 &address) {
  Bytes out;
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_int_distribution<int> kind(0, 9);
  while (out.size() < count) {
    switch (kind(rng)) {
      case 0:
        out.insert(out.end(), static_cast<size_t>(byte(rng) % 25), 0xFF);
        break;
      case 1:
        out.push_back(static_cast<uint8_t>(byte(rng) % 2 ? 0x02 : 0x82));
        break;
      case 2: {
        Bytes frame =
            LongRequest(address, static_cast<uint8_t>(byte(rng)), Bytes(static_cast<size_t>(byte(rng)), 0x41));
        if (byte(rng) % 2) frame.back() ^= 0x01;
        out.insert(out.end(), frame.begin(), frame.end());
        break;
      }
      case 3:
        out.insert(out.end(), {0xFF, 0xFF, 0x82, static_cast<uint8_t>(byte(rng)), 0, 0, 0, 0, 0xFF});
        break;
      default:
        out.push_back(static_cast<uint8_t>(byte(rng)));
        break;
    }
  }
  out.resize(count);
  return out;
}

TEST(SimRobustness, RandomBytesOnTheLineThenAValidRequestIsAnswered) {
  std::mt19937 rng(Seed());
  LineConfig config;
  config.baud = 19200;
  VirtualBench bench(config, 2);
  bench.Dev(1).AddFault(Fault::NoiseInside(3, 4).Always());
  BurstConfig burst;
  burst.enabled = true;
  burst.period_ms = 700;
  bench.Dev(1).SetBurst(burst);
  SecondMasterConfig peer;
  peer.period_ms = 900;
  peer.quiet_ms = 50;
  peer.periodic.long_address = bench.LongAddressOf(0);
  peer.periodic.command = 3;
  bench.Core().Peer().Configure(peer);

  std::uniform_int_distribution<int> pause(0, 60);
  for (int round = 0; round < 500; ++round) {
    bench.Send(Garbage(rng, 1 + static_cast<size_t>(pause(rng)) * 5, bench.LongAddressOf(0)));
    bench.Collect(static_cast<uint32_t>(pause(rng)));
  }
  // Let the garbage still queued at the master end drain, then quiet the line.
  while (bench.Line().SenderFreeAt(MemoryLine::kMasterEnd) > bench.NowUs()) bench.Collect(100);
  bench.Collect(500);
  bench.Dev(1).SetBurst(BurstConfig{});
  bench.Core().Peer().Configure(SecondMasterConfig{});
  bench.Collect(500);

  // The garbage holds primary requests only; this one, from a secondary, is told apart.
  std::vector<RxFrame> frames = AllFrames(bench.Exchange(LongRequest(bench.LongAddressOf(0), 1, {}, false), 1500));
  auto reply = std::find_if(frames.begin(), frames.end(), [](const RxFrame &f) {
    return f.delimiter == 0x86 && f.command == 1 && (f.address[0] & 0x80) == 0;
  });
  ASSERT_NE(reply, frames.end()) << "seed " << Seed() << "\n" << bench.Core().Log().Format();
  EXPECT_TRUE(reply->checksum_ok);
  EXPECT_EQ(reply->ResponseCode(), 0);
  EXPECT_GT(bench.Core().Stats().frames_heard, 0u);
}

TEST(SimRobustness, TheCoreTakesAnyBytesAtAnyTimes) {
  std::mt19937 rng(Seed() ^ 0x9E3779B9u);
  SimLine line;
  for (size_t i = 0; i < 3; ++i) line.AddDevice(DefaultDevice(i));
  line.DeviceAt(0).AddFault(Fault::SplitGap(2, 5).Always());
  line.DeviceAt(2).AddFault(Fault::Truncate(3).Times(50));
  std::uniform_int_distribution<int> byte(0, 255);
  std::uniform_int_distribution<int> step(0, 20000);
  uint64_t now = 1000000;
  size_t out = 0;
  for (int i = 0; i < 200000; ++i) {
    now += static_cast<uint64_t>(step(rng));
    // Sometimes a byte arrives that is not the newest: the core must not mind.
    uint64_t arrival = byte(rng) == 0 ? now - 5000 : now;
    line.Receive(static_cast<uint8_t>(byte(rng) < 40 ? 0xFF : byte(rng)), arrival, now);
    if (i % 7 == 0) line.Advance(now);
    out += line.TakeOutput().size();
  }
  EXPECT_EQ(line.Stats().frames_heard + line.Stats().bad_checksums + line.Stats().abandoned > 0, true)
      << "seed " << Seed();
  (void)out;
}

TEST(SimRobustness, ARequestWithEveryDataLengthIsHandled) {
  VirtualBench bench(LineConfig{}, 1);
  size_t answered = 0;
  for (size_t length : {0u, 1u, 24u, 31u, 32u, 33u, 200u, 254u, 255u}) {
    std::vector<RxFrame> frames =
        AllFrames(bench.Exchange(LongRequest(bench.LongAddressOf(), 17, Bytes(length, 0x55)), 3500));
    ASSERT_EQ(frames.size(), 1u) << length;
    EXPECT_EQ(frames[0].ResponseCode(), length < 24 ? kTooFewDataBytes : 0) << length;
    ++answered;
  }
  EXPECT_EQ(answered, 9u);
}

}  // namespace
}  // namespace velmora::sim::testing
