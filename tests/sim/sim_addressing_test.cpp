// Which requests the simulated devices answer: polling addresses in short frames, long
// addresses in long frames, the broadcast address for the tag commands, and no answer to a
// request that arrives damaged.
#include <gtest/gtest.h>

#include "raw_peer.h"
#include "sim/sim_data.h"

namespace velmora::sim::testing {
namespace {

uint32_t DeviceIdOf(const RxFrame &identity) {
  Bytes p = identity.Payload();
  return (static_cast<uint32_t>(p.at(9)) << 16) | (p.at(10) << 8) | p.at(11);
}

TEST(SimAddressing, EachDeviceAnswersCommandZeroAtItsOwnPollingAddress) {
  VirtualBench bench(LineConfig{}, 3);
  for (uint8_t address = 0; address < 3; ++address) {
    RxFrame frame = bench.Ask(ShortRequest(address, 0));
    EXPECT_EQ(frame.address, Bytes{static_cast<uint8_t>(0x80 | address)});
    EXPECT_EQ(DeviceIdOf(frame), bench.Dev(address).Config().device_id);
  }
  EXPECT_TRUE(bench.Exchange(ShortRequest(3, 0)).empty()) << "nobody at address 3";
  EXPECT_TRUE(bench.Exchange(ShortRequest(63, 0)).empty());
}

TEST(SimAddressing, PollingAddressesUpTo63AreReachable) {
  VirtualBench bench(LineConfig{}, 0);
  DeviceConfig config = DefaultDevice(0);
  config.polling_address = 63;
  bench.Core().AddDevice(config);
  EXPECT_EQ(bench.Ask(ShortRequest(63, 0)).address, Bytes{0x80 | 63});
}

TEST(SimAddressing, ShortFramesCarryOnlyCommandZero) {
  VirtualBench bench;
  EXPECT_TRUE(bench.Exchange(ShortRequest(0, 1)).empty());
  EXPECT_TRUE(bench.Exchange(ShortRequest(0, 13)).empty());
  EXPECT_EQ(bench.Core().Log().Count(TranscriptKind::kIgnored), 2u);
}

TEST(SimAddressing, OlderDevicesAnswerEveryCommandInAShortFrame) {
  VirtualBench bench(LineConfig{}, 0);
  DeviceConfig config = DefaultDevice(0);
  config.short_frame_all_commands = true;
  bench.Core().AddDevice(config);
  RxFrame frame = bench.Ask(ShortRequest(0, 1));
  EXPECT_EQ(frame.delimiter, 0x06);
  EXPECT_EQ(frame.command, 1);
  EXPECT_EQ(frame.Payload().size(), 5u);
}

TEST(SimAddressing, LongFramesReachOnlyTheMatchingDevice) {
  VirtualBench bench(LineConfig{}, 2);
  for (size_t i = 0; i < 2; ++i) {
    RxFrame frame = bench.Ask(LongRequest(bench.LongAddressOf(i), 0));
    EXPECT_EQ(DeviceIdOf(frame), bench.Dev(i).Config().device_id);
  }
  // One byte off in any position is somebody else.
  for (size_t position = 0; position < 5; ++position) {
    Address5 wrong = bench.LongAddressOf(0);
    wrong[position] ^= 0x01;
    EXPECT_TRUE(bench.Exchange(LongRequest(wrong, 0)).empty()) << "position " << position;
  }
}

TEST(SimAddressing, TheMasterBitComesBackAndTheBurstBitIsNoPartOfTheAddress) {
  VirtualBench bench;
  Address5 address = bench.LongAddressOf();
  EXPECT_EQ(bench.Ask(LongRequest(address, 1, {}, true)).address[0], 0x80 | address[0]);
  EXPECT_EQ(bench.Ask(LongRequest(address, 1, {}, false)).address[0], address[0]);
  Bytes request = LongRequest(address, 1);
  request[6] |= 0x40;
  request.back() ^= 0x40;
  RxFrame frame = bench.Ask(request);
  EXPECT_EQ(frame.address[0], 0x80 | address[0]) << "not in burst mode: burst bit clear";
}

TEST(SimAddressing, BroadcastAddressServesOnlyTheTagCommands) {
  VirtualBench bench(LineConfig{}, 3);
  EXPECT_TRUE(bench.Exchange(LongRequest(Address5{}, 0)).empty());
  EXPECT_TRUE(bench.Exchange(LongRequest(Address5{}, 1)).empty());
  RxFrame found = bench.Ask(LongRequest(Address5{}, 11, PackAscii("SIM2", 8)));
  EXPECT_EQ(DeviceIdOf(found), bench.Dev(2).Config().device_id);
  EXPECT_TRUE(bench.Exchange(LongRequest(Address5{}, 11, PackAscii("NOBODY", 8))).empty());
  EXPECT_TRUE(bench.Exchange(LongRequest(Address5{}, 11, Bytes{1, 2})).empty()) << "too short to be a tag";
}

TEST(SimAddressing, CommandElevenAtTheDevicesOwnAddressNeedsItsTag) {
  VirtualBench bench;
  EXPECT_EQ(bench.Ask(LongRequest(bench.LongAddressOf(), 11, PackAscii("SIM0", 8))).ResponseCode(), 0);
  EXPECT_TRUE(bench.Exchange(LongRequest(bench.LongAddressOf(), 11, PackAscii("SIM9", 8))).empty());
}

TEST(SimAddressing, ABadChecksumGetsNoAnswerAndTheNextRequestDoes) {
  VirtualBench bench;
  Bytes request = LongRequest(bench.LongAddressOf(), 1);
  request.back() ^= 0x01;
  EXPECT_TRUE(bench.Exchange(request).empty());
  EXPECT_EQ(bench.Core().Stats().bad_checksums, 1u);
  EXPECT_EQ(bench.Core().Log().Count(TranscriptKind::kBadChecksum), 1u);
  EXPECT_EQ(bench.Ask(LongRequest(bench.LongAddressOf(), 1)).ResponseCode(), 0);
}

TEST(SimAddressing, TwoPreamblesAreEnoughAndOneIsNot) {
  VirtualBench bench;
  EXPECT_TRUE(bench.Exchange(ShortRequest(0, 0, {}, true, 1)).empty());
  EXPECT_EQ(bench.Ask(ShortRequest(0, 0, {}, true, 2)).command, 0);
  EXPECT_EQ(bench.Ask(ShortRequest(0, 0, {}, true, 20)).command, 0);
}

TEST(SimAddressing, FramesOtherThanRequestsAreHeardButNotAnswered) {
  VirtualBench bench;
  Bytes response = ShortRequest(0, 0);
  response[5] = 0x06;
  response.back() ^= 0x02 ^ 0x06;
  EXPECT_TRUE(bench.Exchange(response).empty());
  EXPECT_EQ(bench.Core().Stats().frames_heard, 1u);
}

TEST(SimAddressing, ResponsePreamblesFollowTheDeviceConfiguration) {
  VirtualBench bench(LineConfig{}, 0);
  DeviceConfig config = DefaultDevice(0);
  config.response_preambles = 12;
  bench.Core().AddDevice(config);
  EXPECT_EQ(bench.Ask(ShortRequest(0, 0)).preambles, 12u);
}

}  // namespace
}  // namespace velmora::sim::testing
