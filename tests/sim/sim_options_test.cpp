// velmora-sim's command line: what each option sets, and what it refuses.
#include "sim/sim_options.h"

#include <gtest/gtest.h>

namespace velmora::sim {
namespace {

SimOptions Parse(const std::vector<std::string> &args) {
  SimOptions options;
  std::string error;
  EXPECT_TRUE(ParseOptions(args, &options, &error)) << error;
  return options;
}

std::string Refusal(const std::vector<std::string> &args) {
  SimOptions options;
  std::string error;
  EXPECT_FALSE(ParseOptions(args, &options, &error));
  return error;
}

TEST(SimOptions, DefaultsGiveOneDeviceAtAddressZero) {
  SimOptions options = Parse({});
  ASSERT_EQ(options.devices.size(), 1u);
  EXPECT_EQ(options.devices[0].polling_address, 0);
  EXPECT_TRUE(options.devices[0].loop_current_enabled);
  EXPECT_EQ(options.line.baud, 1200u);
  EXPECT_EQ(options.line.turnaround_us, 20000u);
  EXPECT_FALSE(options.line.echo);
  EXPECT_FALSE(options.second_master);
  EXPECT_FALSE(options.transcript);
}

TEST(SimOptions, DevicesAndAddresses) {
  SimOptions three = Parse({"--devices", "3"});
  ASSERT_EQ(three.devices.size(), 3u);
  EXPECT_EQ(three.devices[2].polling_address, 2);
  EXPECT_FALSE(three.devices[2].loop_current_enabled) << "multidrop devices park their current";
  EXPECT_NE(three.devices[0].device_id, three.devices[1].device_id);

  SimOptions chosen = Parse({"--addresses=5,0,63"});
  ASSERT_EQ(chosen.devices.size(), 3u);
  EXPECT_EQ(chosen.devices[0].polling_address, 5);
  EXPECT_EQ(chosen.devices[1].polling_address, 0);
  EXPECT_TRUE(chosen.devices[1].loop_current_enabled);
  EXPECT_EQ(chosen.devices[2].polling_address, 63);
}

TEST(SimOptions, LineSettings) {
  SimOptions options = Parse({"--baud", "19200", "--turnaround", "7", "--echo", "--preambles", "10", "--short-all",
                              "--write-protect", "--seed", "0x10", "--transcript"});
  EXPECT_EQ(options.line.baud, 19200u);
  EXPECT_EQ(options.line.turnaround_us, 7000u);
  EXPECT_TRUE(options.line.echo);
  EXPECT_EQ(options.line.seed, 16u);
  EXPECT_EQ(options.devices[0].response_preambles, 10);
  EXPECT_TRUE(options.devices[0].short_frame_all_commands);
  EXPECT_TRUE(options.devices[0].write_protected);
  EXPECT_TRUE(options.transcript);
  EXPECT_TRUE(options.transcript_path.empty());
  EXPECT_EQ(Parse({"--transcript=/tmp/t.txt"}).transcript_path, "/tmp/t.txt");
}

TEST(SimOptions, Burst) {
  SimOptions options =
      Parse({"--devices", "2", "--burst", "command=3,period=250,device=1,target=secondary,gap=40,short"});
  EXPECT_FALSE(options.devices[0].burst.enabled);
  const BurstConfig &burst = options.devices[1].burst;
  EXPECT_TRUE(burst.enabled);
  EXPECT_EQ(burst.command, 3);
  EXPECT_EQ(burst.period_ms, 250u);
  EXPECT_EQ(burst.min_gap_ms, 40u);
  EXPECT_EQ(burst.target, BurstTarget::kSecondary);
  EXPECT_FALSE(burst.long_frame);
}

struct FaultLine {
  std::string text;
  FaultKind kind;
  uint32_t value;
  uint32_t extra;
};

TEST(SimOptions, EveryFaultKindWithItsNumbers) {
  for (const FaultLine &f :
       {FaultLine{"delay:ms=250", FaultKind::kDelay, 250, 0}, FaultLine{"busy", FaultKind::kBusy, 0, 0},
        FaultLine{"comm-error:code=0x88", FaultKind::kCommError, 0x88, 0},
        FaultLine{"no-reply", FaultKind::kNoReply, 0, 0}, FaultLine{"truncate:keep=9", FaultKind::kTruncate, 9, 0},
        FaultLine{"bad-checksum", FaultKind::kBadChecksum, 0, 0},
        FaultLine{"noise-before:bytes=6", FaultKind::kNoiseBefore, 6, 0},
        FaultLine{"noise-inside:offset=3,bytes=2", FaultKind::kNoiseInside, 3, 2},
        FaultLine{"split:offset=5,ms=80", FaultKind::kSplitGap, 5, 80}}) {
    SimOptions options = Parse({"--fault", f.text});
    ASSERT_EQ(options.faults.size(), 1u) << f.text;
    const Fault &fault = options.faults[0].fault;
    EXPECT_EQ(fault.kind, f.kind) << f.text;
    EXPECT_EQ(fault.value, f.value) << f.text;
    EXPECT_EQ(fault.extra, f.extra) << f.text;
    EXPECT_EQ(fault.times, 0u) << "from the command line a fault stands";
    EXPECT_EQ(fault.command, -1);
    EXPECT_EQ(options.faults[0].device, -1);
  }
}

TEST(SimOptions, FaultTargets) {
  SimOptions options = Parse({"--devices", "2", "--fault", "busy:device=1,command=3,times=4"});
  EXPECT_EQ(options.faults[0].device, 1);
  EXPECT_EQ(options.faults[0].fault.command, 3);
  EXPECT_EQ(options.faults[0].fault.times, 4u);
  SimLine line;
  ApplyOptions(options, line);
  EXPECT_TRUE(line.DeviceAt(0).Faults().Empty());
  EXPECT_EQ(line.DeviceAt(1).Faults().Pending().size(), 1u);
}

TEST(SimOptions, SecondMaster) {
  SimOptions options = Parse(
      {"--devices", "2", "--second-master", "period=700,command=9,device=1,role=primary,mode=cue,gap=30,quiet=200"});
  ASSERT_TRUE(options.second_master);
  EXPECT_EQ(options.peer.period_ms, 700u);
  EXPECT_EQ(options.peer.role, Master::kPrimary);
  EXPECT_EQ(options.peer.mode, PeerMode::kOnCue);
  EXPECT_EQ(options.peer.turn_gap_ms, 30u);
  EXPECT_EQ(options.peer.quiet_ms, 200u);
  EXPECT_EQ(options.peer.periodic.command, 9);
  EXPECT_EQ(options.peer.periodic.data, (std::vector<uint8_t>{0, 1, 2, 3}));
  EXPECT_EQ(options.peer.periodic.long_address, Device(options.devices[1]).LongAddress());
  SimLine line;
  ApplyOptions(options, line);
  EXPECT_EQ(line.Peer().Config().period_ms, 700u);
}

TEST(SimOptions, RefusesWhatItCannotUse) {
  EXPECT_NE(Refusal({"--devices", "0"}).find("--devices"), std::string::npos);
  EXPECT_NE(Refusal({"--devices", "65"}).find("--devices"), std::string::npos);
  EXPECT_NE(Refusal({"--devices"}).find("needs a value"), std::string::npos);
  EXPECT_NE(Refusal({"--addresses", "1,64"}).find("not 0-63"), std::string::npos);
  EXPECT_NE(Refusal({"--addresses", "1,1"}).find("repeated"), std::string::npos);
  EXPECT_NE(Refusal({"--baud", "4800"}).find("--baud"), std::string::npos);
  EXPECT_NE(Refusal({"--burst", "period=0"}).find("period"), std::string::npos);
  EXPECT_NE(Refusal({"--burst", "device=1"}).find("no device 1"), std::string::npos);
  EXPECT_NE(Refusal({"--burst", "colour=red"}).find("unknown key"), std::string::npos);
  EXPECT_NE(Refusal({"--fault", "melt"}).find("unknown kind"), std::string::npos);
  EXPECT_NE(Refusal({"--fault", "delay:ms=abc"}).find("ms"), std::string::npos);
  EXPECT_NE(Refusal({"--fault", "busy:device=3"}).find("no device 3"), std::string::npos);
  EXPECT_NE(Refusal({"--second-master", "role=tertiary"}).find("role"), std::string::npos);
  EXPECT_NE(Refusal({"--frobnicate"}).find("unknown option"), std::string::npos);
}

TEST(SimOptions, HelpIsAskedFor) {
  EXPECT_TRUE(Parse({"--help"}).help);
  EXPECT_NE(UsageText().find("--second-master"), std::string::npos);
}

}  // namespace
}  // namespace velmora::sim
