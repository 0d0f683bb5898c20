// The universal commands of the simulated device, asked by a raw byte peer: every reply is a
// well-formed frame with the right checksum, byte count and data, and what one command writes
// another reads back.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "raw_peer.h"
#include "sim/sim_data.h"

namespace velmora::sim::testing {
namespace {

constexpr uint8_t kColdStart = 0x20;

Bytes Text(const std::string &text, size_t width) { return FixedText(text, width); }

struct CommandCase {
  const char *name;
  uint8_t command;
  Bytes data;
  bool broadcast;
  size_t payload;  // bytes after the two status bytes
  std::function<void(const RxFrame &, VirtualBench &, uint64_t t_end_us)> check;
};

void CheckIdentity(const Bytes &p, VirtualBench &bench) {
  const DeviceConfig &config = bench.Dev().Config();
  EXPECT_EQ(p[0], 254);
  EXPECT_EQ(p[1], config.manufacturer_id);
  EXPECT_EQ(p[2], config.device_type);
  EXPECT_EQ(p[3], config.request_preambles);
  EXPECT_EQ(p[4], 7);
  EXPECT_EQ(p[5], config.device_revision);
  EXPECT_EQ(p[6], config.software_revision);
  EXPECT_EQ(p[7] >> 3, config.hardware_revision);
  EXPECT_EQ((p[9] << 16) | (p[10] << 8) | p[11], static_cast<int>(config.device_id));
  EXPECT_EQ(p[12], config.response_preambles);
  EXPECT_EQ(p[13], 3);                 // last device variable
  EXPECT_EQ((p[14] << 8) | p[15], 0);  // nothing written yet
  EXPECT_EQ((p[17] << 8) | p[18], config.manufacturer_id);
}

std::vector<CommandCase> Cases() {
  return {
      {"ReadUniqueIdentifier",
       0,
       {},
       false,
       22,
       [](const RxFrame &f, VirtualBench &b, uint64_t) { CheckIdentity(f.Payload(), b); }},
      {"ReadPrimaryVariable",
       1,
       {},
       false,
       5,
       [](const RxFrame &f, VirtualBench &b, uint64_t t) {
         Bytes p = f.Payload();
         EXPECT_EQ(p[0], kUnitKiloPascal);
         EXPECT_EQ(FloatAt(p, 1), b.Dev().VariableValue(0, t));
       }},
      {"ReadCurrentAndPercent",
       2,
       {},
       false,
       8,
       [](const RxFrame &f, VirtualBench &b, uint64_t t) {
         Bytes p = f.Payload();
         EXPECT_EQ(FloatAt(p, 0), b.Dev().LoopCurrent(t));
         EXPECT_EQ(FloatAt(p, 4), b.Dev().PercentOfRange(t));
         EXPECT_NEAR(FloatAt(p, 0), 4.0f + 16.0f * FloatAt(p, 4) / 100.0f, 1e-4);
       }},
      {"ReadDynamicVariables",
       3,
       {},
       false,
       24,
       [](const RxFrame &f, VirtualBench &b, uint64_t t) {
         Bytes p = f.Payload();
         EXPECT_EQ(FloatAt(p, 0), b.Dev().LoopCurrent(t));
         for (size_t i = 0; i < 4; ++i) {
           EXPECT_EQ(p[4 + 5 * i], b.Dev().Config().variables[i].unit) << i;
           EXPECT_EQ(FloatAt(p, 5 + 5 * i), b.Dev().VariableValue(i, t)) << i;
         }
       }},
      {"WritePollingAddress",
       6,
       {5, 1},
       false,
       2,
       [](const RxFrame &f, VirtualBench &b, uint64_t) {
         EXPECT_EQ(f.Payload(), (Bytes{5, 1}));
         EXPECT_EQ(b.Dev().PollingAddress(), 5);
       }},
      {"ReadLoopConfiguration",
       7,
       {},
       false,
       2,
       [](const RxFrame &f, VirtualBench &, uint64_t) {
         EXPECT_EQ(f.Payload(), (Bytes{0, 1}));
       }},
      {"ReadClassifications",
       8,
       {},
       false,
       4,
       [](const RxFrame &f, VirtualBench &, uint64_t) {
         EXPECT_EQ(f.Payload(), (Bytes{65, 64, 64, 0}));
       }},
      {"ReadDeviceVariables",
       9,
       {1, kVarLoopCurrent},
       false,
       1 + 2 * 8 + 4,
       [](const RxFrame &f, VirtualBench &b, uint64_t t) {
         Bytes p = f.Payload();
         EXPECT_EQ(p[0], 0);  // extended status
         EXPECT_EQ(p[1], 1);
         EXPECT_EQ(p[2], 64);
         EXPECT_EQ(p[3], kUnitDegreesC);
         EXPECT_EQ(FloatAt(p, 4), b.Dev().VariableValue(1, t));
         EXPECT_EQ(p[8], 0xC0);
         EXPECT_EQ(p[9], kVarLoopCurrent);
         EXPECT_EQ(p[11], kUnitMilliAmps);
         EXPECT_EQ(FloatAt(p, 12), b.Dev().LoopCurrent(t));
         uint32_t stamp = (p[17] << 24) | (p[18] << 16) | (p[19] << 8) | p[20];
         EXPECT_EQ(stamp, (t / 1000) % 86400000u * 32u);
       }},
      {"ReadUniqueIdentifierByTag", 11, PackAscii("SIM0", 8), true, 22,
       [](const RxFrame &f, VirtualBench &b, uint64_t) {
         CheckIdentity(f.Payload(), b);
         EXPECT_EQ(f.address, (Bytes{0x80, 0, 0, 0, 0}));  // the broadcast address comes back
       }},
      {"ReadMessage",
       12,
       {},
       false,
       24,
       [](const RxFrame &f, VirtualBench &, uint64_t) {
         Bytes p = f.Payload();
         EXPECT_EQ(UnpackAscii(p.data(), 24), PackedForm("SIMULATED FIELD DEVICE", 32));
       }},
      {"ReadTagDescriptorDate",
       13,
       {},
       false,
       21,
       [](const RxFrame &f, VirtualBench &, uint64_t) {
         Bytes p = f.Payload();
         EXPECT_EQ(UnpackAscii(p.data(), 6), "SIM0    ");
         EXPECT_EQ(UnpackAscii(p.data() + 6, 12), PackedForm("SIMULATOR", 16));
         EXPECT_EQ(Bytes(p.begin() + 18, p.end()), (Bytes{1, 1, 125}));
       }},
      {"ReadTransducerInformation",
       14,
       {},
       false,
       16,
       [](const RxFrame &f, VirtualBench &b, uint64_t) {
         Bytes p = f.Payload();
         EXPECT_EQ((p[0] << 16) | (p[1] << 8) | p[2], static_cast<int>(b.Dev().Config().transducer_serial));
         EXPECT_EQ(p[3], kUnitKiloPascal);
         EXPECT_EQ(FloatAt(p, 4), 400.0f);
         EXPECT_EQ(FloatAt(p, 8), -100.0f);
         EXPECT_EQ(FloatAt(p, 12), 10.0f);
       }},
      {"ReadDeviceInformation",
       15,
       {},
       false,
       18,
       [](const RxFrame &f, VirtualBench &, uint64_t) {
         Bytes p = f.Payload();
         EXPECT_EQ(p[2], kUnitKiloPascal);
         EXPECT_EQ(FloatAt(p, 3), 200.0f);
         EXPECT_EQ(FloatAt(p, 7), 0.0f);
         EXPECT_EQ(FloatAt(p, 11), 0.5f);
         EXPECT_EQ(p[15], 0);  // not write protected
         EXPECT_EQ(p[16], kUnitNotUsed);
       }},
      {"ReadFinalAssembly",
       16,
       {},
       false,
       3,
       [](const RxFrame &f, VirtualBench &, uint64_t) {
         EXPECT_EQ(f.Payload(), (Bytes{0x00, 0x01, 0x00}));
       }},
      {"WriteMessage", 17, PackAscii("NEW MESSAGE TEXT", 32), false, 24,
       [](const RxFrame &f, VirtualBench &b, uint64_t) {
         EXPECT_EQ(f.Payload(), PackAscii("NEW MESSAGE TEXT", 32));
         EXPECT_EQ(b.Dev().Config().message, PackedForm("NEW MESSAGE TEXT", 32));
       }},
      {"WriteTagDescriptorDate", 18,
       [] {
         Bytes d = PackAscii("TT-101", 8);
         PutBytes(d, PackAscii("BOILER FEED", 16));
         PutBytes(d, {24, 12, 125});
         return d;
       }(),
       false, 21,
       [](const RxFrame &f, VirtualBench &b, uint64_t) {
         Bytes p = f.Payload();
         EXPECT_EQ(Bytes(p.begin() + 18, p.end()), (Bytes{24, 12, 125}));
         EXPECT_EQ(b.Dev().Config().tag, "TT-101  ");
       }},
      {"WriteFinalAssembly",
       19,
       {0x12, 0x34, 0x56},
       false,
       3,
       [](const RxFrame &f, VirtualBench &b, uint64_t) {
         EXPECT_EQ(f.Payload(), (Bytes{0x12, 0x34, 0x56}));
         EXPECT_EQ(b.Dev().Config().final_assembly, 0x123456u);
       }},
      {"ReadLongTag",
       20,
       {},
       false,
       32,
       [](const RxFrame &f, VirtualBench &, uint64_t) {
         EXPECT_EQ(f.Payload(), Text("VELMORA SIMULATED DEVICE 0", 32));
       }},
      {"ReadUniqueIdentifierByLongTag", 21, Text("VELMORA SIMULATED DEVICE 0", 32), true, 22,
       [](const RxFrame &f, VirtualBench &b, uint64_t) { CheckIdentity(f.Payload(), b); }},
      {"WriteLongTag", 22, Text("Boiler feed pump, north wing", 32), false, 32,
       [](const RxFrame &f, VirtualBench &b, uint64_t) {
         EXPECT_EQ(f.Payload(), Text("Boiler feed pump, north wing", 32));
         EXPECT_EQ(b.Dev().Config().long_tag, "Boiler feed pump, north wing");
       }},
      {"ResetConfigurationChanged",
       38,
       {},
       false,
       2,
       [](const RxFrame &f, VirtualBench &, uint64_t) {
         EXPECT_EQ(f.Payload(), (Bytes{0, 0}));
       }},
      {"ReadAdditionalStatus",
       48,
       {},
       false,
       25,
       [](const RxFrame &f, VirtualBench &, uint64_t) { EXPECT_EQ(f.Payload(), Bytes(25, 0)); }},
  };
}

void PrintTo(const CommandCase &c, std::ostream *os) { *os << c.name; }

class UniversalCommand : public ::testing::TestWithParam<CommandCase> {};

TEST_P(UniversalCommand, GivesAWellFormedReplyWithTheRightData) {
  const CommandCase &c = GetParam();
  VirtualBench bench;
  Address5 address = c.broadcast ? Address5{} : bench.LongAddressOf();
  Bytes request = LongRequest(address, c.command, c.data);
  uint64_t t_end = bench.Send(request);
  Bytes got = VirtualBench::Values(bench.Collect(1500));
  std::optional<RxFrame> frame = ParseFrame(got);
  ASSERT_TRUE(frame) << bench.Core().Log().Format();

  EXPECT_EQ(frame->preambles, 5u);
  EXPECT_EQ(frame->delimiter, 0x86);
  Bytes expected_address(address.begin(), address.end());
  expected_address[0] = static_cast<uint8_t>(0x80 | (address[0] & 0x3F));
  EXPECT_EQ(frame->address, expected_address);
  EXPECT_EQ(frame->command, c.command);
  EXPECT_TRUE(frame->checksum_ok);
  EXPECT_EQ(frame->count, frame->data.size());
  EXPECT_EQ(frame->end, got.size()) << "bytes after the reply";
  EXPECT_EQ(frame->ResponseCode(), 0);
  bool writes = c.command == 6 || c.command == 17 || c.command == 18 || c.command == 19 || c.command == 22;
  EXPECT_EQ(frame->DeviceStatus(), kColdStart | (writes ? kStatusConfigChanged : 0));
  ASSERT_EQ(frame->Payload().size(), c.payload);
  c.check(*frame, bench, t_end);
}

INSTANTIATE_TEST_SUITE_P(Sim, UniversalCommand, ::testing::ValuesIn(Cases()),
                         [](const ::testing::TestParamInfo<CommandCase> &info) {
                           return std::string(info.param.name);
                         });

TEST(SimCommands, CommandZeroWorksInTheShortForm) {
  VirtualBench bench;
  RxFrame frame = bench.Ask(ShortRequest(0, 0));
  EXPECT_EQ(frame.delimiter, 0x06);
  EXPECT_EQ(frame.address, Bytes{0x80});
  EXPECT_TRUE(frame.checksum_ok);
  EXPECT_EQ(frame.Payload().size(), 22u);
}

TEST(SimCommands, UnknownCommandsAnswerNotImplemented) {
  for (uint8_t command : {4, 5, 10, 23, 33, 200, 255}) {
    VirtualBench bench;
    RxFrame frame = bench.Ask(LongRequest(bench.LongAddressOf(), command));
    EXPECT_EQ(frame.ResponseCode(), kNotImplemented) << int{command};
    EXPECT_EQ(frame.count, 2) << int{command};
    EXPECT_TRUE(frame.checksum_ok);
  }
}

TEST(SimCommands, TooFewDataBytesAreRefused) {
  struct Short {
    uint8_t command;
    size_t bytes;
  };
  for (Short s : {Short{6, 0}, Short{9, 0}, Short{17, 23}, Short{18, 20}, Short{19, 2}, Short{22, 31}, Short{38, 1}}) {
    VirtualBench bench;
    RxFrame frame = bench.Ask(LongRequest(bench.LongAddressOf(), s.command, Bytes(s.bytes, 0x41)));
    EXPECT_EQ(frame.ResponseCode(), kTooFewDataBytes) << int{s.command};
    EXPECT_EQ(frame.count, 2);
    EXPECT_EQ(bench.Dev().ConfigChangeCounter(), 0) << "nothing written";
  }
}

TEST(SimCommands, WriteProtectionRefusesEveryWrite) {
  Bytes tag_block = PackAscii("X", 8);
  PutBytes(tag_block, Bytes(15, 0));
  struct Write {
    uint8_t command;
    Bytes data;
  };
  for (const Write &w : {Write{6, {3}}, Write{17, Bytes(24, 0)}, Write{18, tag_block}, Write{19, {1, 2, 3}},
                         Write{22, Bytes(32, 'x')}}) {
    VirtualBench bench;
    bench.Dev().SetWriteProtected(true);
    RxFrame frame = bench.Ask(LongRequest(bench.LongAddressOf(), w.command, w.data));
    EXPECT_EQ(frame.ResponseCode(), kWriteProtected) << int{w.command};
    EXPECT_EQ(bench.Dev().ConfigChangeCounter(), 0);
  }
  VirtualBench bench;
  bench.Dev().SetWriteProtected(true);
  EXPECT_EQ(bench.Ask(LongRequest(bench.LongAddressOf(), 15)).Payload()[15], 1);
}

TEST(SimCommands, PollingAddressOutOfRangeIsAnInvalidSelection) {
  VirtualBench bench;
  EXPECT_EQ(bench.Ask(LongRequest(bench.LongAddressOf(), 6, {64, 0})).ResponseCode(), kInvalidSelection);
  EXPECT_EQ(bench.Ask(LongRequest(bench.LongAddressOf(), 6, {3, 2})).ResponseCode(), kInvalidMode);
  EXPECT_EQ(bench.Dev().PollingAddress(), 0);
}

class WriteThenRead : public ::testing::Test {
 protected:
  RxFrame Long(uint8_t command, const Bytes &data = {}, bool primary = true) {
    return bench.Ask(LongRequest(bench.LongAddressOf(), command, data, primary));
  }
  VirtualBench bench;
};

TEST_F(WriteThenRead, TagDescriptorAndDateComeBackThroughCommand13) {
  Bytes block = PackAscii("FT-7", 8);
  PutBytes(block, PackAscii("Cooling water", 16));
  PutBytes(block, {3, 4, 126});
  ASSERT_EQ(Long(18, block).ResponseCode(), 0);
  EXPECT_EQ(Long(13).Payload(), block);
}

TEST_F(WriteThenRead, FinalAssemblyComesBackThroughCommand16) {
  ASSERT_EQ(Long(19, {0xAB, 0xCD, 0xEF}).ResponseCode(), 0);
  EXPECT_EQ(Long(16).Payload(), (Bytes{0xAB, 0xCD, 0xEF}));
}

TEST_F(WriteThenRead, MessageComesBackThroughCommand12) {
  Bytes message = PackAscii("CALIBRATED 2025-03-01 BY QA", 32);
  ASSERT_EQ(Long(17, message).ResponseCode(), 0);
  EXPECT_EQ(Long(12).Payload(), message);
}

TEST_F(WriteThenRead, LongTagComesBackAndFindsTheDevice) {
  ASSERT_EQ(Long(22, Text("Reactor 4 inlet", 32)).ResponseCode(), 0);
  EXPECT_EQ(Long(20).Payload(), Text("Reactor 4 inlet", 32));
  EXPECT_EQ(bench.Ask(LongRequest(Address5{}, 21, Text("Reactor 4 inlet", 32))).Payload().size(), 22u);
  EXPECT_TRUE(bench.Exchange(LongRequest(Address5{}, 21, Text("VELMORA SIMULATED DEVICE 0", 32))).empty());
}

TEST_F(WriteThenRead, NewTagIsFoundByCommand11AndTheOldOneIsNot) {
  Bytes block = PackAscii("PT-42", 8);
  PutBytes(block, Bytes(15, 0));
  ASSERT_EQ(Long(18, block).ResponseCode(), 0);
  EXPECT_EQ(bench.Ask(LongRequest(Address5{}, 11, PackAscii("PT-42", 8))).Payload().size(), 22u);
  EXPECT_TRUE(bench.Exchange(LongRequest(Address5{}, 11, PackAscii("SIM0", 8))).empty());
}

TEST_F(WriteThenRead, PollingAddressMovesTheDeviceAndParksTheCurrent) {
  RxFrame written = Long(6, {7, 0});
  ASSERT_EQ(written.ResponseCode(), 0);
  EXPECT_TRUE(bench.Exchange(ShortRequest(0, 0)).empty()) << "old address still answers";
  EXPECT_EQ(bench.Ask(ShortRequest(7, 0)).address, Bytes{0x87});
  EXPECT_EQ(Long(7).Payload(), (Bytes{7, 0}));
  RxFrame current = Long(2);
  EXPECT_EQ(FloatAt(current.Payload(), 0), 4.0f);
  EXPECT_TRUE(current.DeviceStatus() & kStatusCurrentFixed);
}

TEST_F(WriteThenRead, OneByteAddressWriteFollowsTheOlderRule) {
  ASSERT_EQ(Long(6, {3}).ResponseCode(), 0);
  EXPECT_EQ(Long(7).Payload(), (Bytes{3, 0}));
  ASSERT_EQ(Long(6, {0}).ResponseCode(), 0);
  EXPECT_EQ(Long(7).Payload(), (Bytes{0, 1}));
}

TEST_F(WriteThenRead, ConfigurationChangedIsKeptPerMasterUntilCommand38) {
  EXPECT_EQ(Long(1).DeviceStatus() & kStatusConfigChanged, 0);
  ASSERT_EQ(Long(19, {1, 2, 3}).ResponseCode(), 0);
  EXPECT_TRUE(Long(1).DeviceStatus() & kStatusConfigChanged);
  EXPECT_TRUE(Long(1, {}, false).DeviceStatus() & kStatusConfigChanged);

  EXPECT_EQ(Long(38, {0x00, 0x05}).ResponseCode(), kCounterMismatch);
  RxFrame reset = Long(38, {0x00, 0x01});
  EXPECT_EQ(reset.ResponseCode(), 0);
  EXPECT_EQ(reset.Payload(), (Bytes{0x00, 0x01}));
  EXPECT_EQ(Long(1).DeviceStatus() & kStatusConfigChanged, 0);
  EXPECT_TRUE(Long(1, {}, false).DeviceStatus() & kStatusConfigChanged) << "the secondary has not reset it";

  Bytes identity = Long(0).Payload();
  EXPECT_EQ((identity[14] << 8) | identity[15], 1);
}

TEST_F(WriteThenRead, ColdStartIsReportedOncePerMaster) {
  EXPECT_TRUE(Long(1).DeviceStatus() & kColdStart);
  EXPECT_FALSE(Long(1).DeviceStatus() & kColdStart);
  EXPECT_TRUE(Long(1, {}, false).DeviceStatus() & kColdStart);
  EXPECT_FALSE(Long(1, {}, false).DeviceStatus() & kColdStart);
}

TEST_F(WriteThenRead, MoreStatusAvailableUntilCommand48IsRead) {
  Long(1);
  std::array<uint8_t, 25> status{};
  status[0] = 0x04;
  bench.Dev().SetAdditionalStatus(status);
  EXPECT_TRUE(Long(1).DeviceStatus() & kStatusMoreStatus);
  RxFrame more = Long(48);
  EXPECT_EQ(more.Payload()[0], 0x04);
  EXPECT_FALSE(Long(1).DeviceStatus() & kStatusMoreStatus);
  EXPECT_TRUE(Long(1, {}, false).DeviceStatus() & kStatusMoreStatus);
}

TEST_F(WriteThenRead, MalfunctionShowsInEveryReply) {
  bench.Dev().SetMalfunction(true);
  EXPECT_TRUE(Long(1).DeviceStatus() & kStatusMalfunction);
  EXPECT_TRUE(Long(13).DeviceStatus() & kStatusMalfunction);
}

TEST_F(WriteThenRead, ProcessValuesAgreeAcrossCommandsAndMoveSlowly) {
  RxFrame pv = Long(1);
  RxFrame dynamic = Long(3);
  float first = FloatAt(pv.Payload(), 1);
  float again = FloatAt(dynamic.Payload(), 5);
  EXPECT_NEAR(first, again, 1.0f);
  EXPECT_GE(first, 95.0f);
  EXPECT_LE(first, 105.0f);
  bench.Collect(10000);
  float later = FloatAt(Long(1).Payload(), 1);
  EXPECT_NE(later, first) << "the value should move";
  EXPECT_NEAR(later, first, 6.0f);
}

TEST_F(WriteThenRead, BurstModeIsSwitchedByCommands108And109) {
  EXPECT_EQ(Long(108, {3}).ResponseCode(), 0);
  EXPECT_EQ(Long(108, {7}).ResponseCode(), kInvalidSelection);
  RxFrame on = Long(109, {1});
  EXPECT_EQ(on.ResponseCode(), 0);
  EXPECT_TRUE(on.address[0] & 0x40) << "a device in burst mode sets the burst bit in its replies";
  EXPECT_TRUE(bench.Dev().Burst().enabled);
  EXPECT_EQ(bench.Dev().Burst().command, 3);

  // Burst frames now share the line: like a real master, send in the gap after one.
  size_t bursts = bench.Core().Log().Count(TranscriptKind::kBurst);
  while (bench.Core().Log().Count(TranscriptKind::kBurst) == bursts) bench.Collect(1);
  while (bench.Core().TransmitterFreeAt() > bench.NowUs()) bench.Collect(1);
  std::vector<RxFrame> frames = AllFrames(bench.Exchange(LongRequest(bench.LongAddressOf(), 109, {0})));
  auto reply = std::find_if(frames.begin(), frames.end(),
                            [](const RxFrame &f) { return f.delimiter == 0x86 && f.command == 109; });
  ASSERT_NE(reply, frames.end());
  EXPECT_EQ(reply->ResponseCode(), 0);
  EXPECT_FALSE(bench.Dev().Burst().enabled);
  EXPECT_GT(bench.Core().Log().Count(TranscriptKind::kBurst), 0u);
}

}  // namespace
}  // namespace velmora::sim::testing
