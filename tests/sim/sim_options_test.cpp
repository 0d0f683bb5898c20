// velmora-sim's command line: what each argument list gives, or the message it is refused with.
#include "sim/sim_options.h"

#include <gtest/gtest.h>

#include <sstream>

namespace velmora::sim {
namespace {

// The parsed configuration in one line, so that a row states all of it at once.
std::string Render(const SimOptions &o) {
  std::ostringstream out;
  out << "baud " << o.line.baud << " turn " << o.line.turnaround_us << " echo " << o.line.echo << " seed "
      << o.line.seed << " log " << o.transcript << ':' << o.transcript_path << " help " << o.help;
  for (const DeviceConfig &d : o.devices) {
    out << " | " << +d.polling_address << (d.loop_current_enabled ? " current" : "")
        << (d.short_frame_all_commands ? " short" : "") << (d.write_protected ? " protected" : "") << " pre "
        << +d.response_preambles << " id " << std::hex << d.device_id << std::dec;
    const BurstConfig &b = d.burst;
    if (b.enabled)
      out << " burst " << +b.command << " every " << b.period_ms << " gap " << b.min_gap_ms << " to "
          << static_cast<int>(b.target) << (b.long_frame ? " long" : " short");
  }
  for (const SimOptions::DeviceFault &f : o.faults)  // kind:value,extra,command,times,device
    out << " | " << FaultKindName(f.fault.kind) << ':' << f.fault.value << ',' << f.fault.extra << ','
        << f.fault.command << ',' << f.fault.times << ',' << f.device;
  if (o.second_master) {
    const SecondMasterConfig &p = o.peer;
    out << " | peer every " << p.period_ms << " role " << static_cast<int>(p.role) << " mode "
        << static_cast<int>(p.mode) << " gap " << p.turn_gap_ms << " quiet " << p.quiet_ms << " cmd "
        << +p.periodic.command << " data " << p.periodic.data.size() << " to";
    for (uint8_t byte : p.periodic.long_address) out << ' ' << +byte;
  }
  return out.str();
}

TEST(SimOptions, ArgumentsGiveAConfigurationOrAMessage) {
  const std::string kLine = "baud 1200 turn 20000 echo 0 seed 1 log 0: help 0";
  const std::string kDevice0 = " | 0 current pre 5 id 5a0001";
  struct Row {
    std::vector<std::string> args;
    std::string want;  // the rendering, or "error: " and the message
  };
  const Row rows[] = {
      {{}, kLine + kDevice0},
      {{"--devices=3"}, kLine + kDevice0 + " | 1 pre 5 id 5a0002 | 2 pre 5 id 5a0003"},
      {{"--addresses", "5,0,63"},
       kLine + " | 5 pre 5 id 5a0001 | 0 current pre 5 id 5a0002 | 63 pre 5 id 5a0003"},
      {{"--baud", "19200", "--turnaround", "7", "--echo", "--preambles", "10", "--short-all",
        "--write-protect", "--seed", "0x1F", "--transcript"},
       "baud 19200 turn 7000 echo 1 seed 31 log 1: help 0 | 0 current short protected pre 10 id 5a0001"},
      {{"--transcript=/tmp/t.txt", "-h"},
       "baud 1200 turn 20000 echo 0 seed 1 log 1:/tmp/t.txt help 1" + kDevice0},
      {{"--burst", "target=primary"}, kLine + kDevice0 + " burst 1 every 1000 gap 75 to 0 long"},
      {{"--devices", "2", "--burst", "command=3,period=250,device=1,target=secondary,gap=40,short"},
       kLine + kDevice0 + " | 1 pre 5 id 5a0002 burst 3 every 250 gap 40 to 1 short"},
      {{"--fault", "delay", "--fault", "busy", "--fault", "comm-error", "--fault", "no-reply", "--fault",
        "truncate", "--fault", "bad-checksum", "--fault", "noise-before", "--fault", "noise-inside",
        "--fault", "split"},
       kLine + kDevice0 + " | delay:100,0,-1,0,-1 | busy:0,0,-1,0,-1 | comm-error:130,0,-1,0,-1" +
           " | no-reply:0,0,-1,0,-1 | truncate:5,0,-1,0,-1 | bad-checksum:0,0,-1,0,-1" +
           " | noise-before:3,0,-1,0,-1 | noise-inside:4,2,-1,0,-1 | split:4,50,-1,0,-1"},
      {{"--devices", "2", "--fault", "delay:ms=250,device=1,command=3,times=4",
        "--fault=comm-error:code=0x88", "--fault", "truncate:keep=9", "--fault", "noise-before:bytes=6",
        "--fault", "noise-inside:offset=3,bytes=2", "--fault", "split:offset=5,ms=80"},
       kLine + kDevice0 + " | 1 pre 5 id 5a0002 | delay:250,0,3,4,1 | comm-error:136,0,-1,0,-1" +
           " | truncate:9,0,-1,0,-1 | noise-before:6,0,-1,0,-1 | noise-inside:3,2,-1,0,-1 | "
           "split:5,80,-1,0,-1"},
      {{"--devices", "2", "--second-master",
        "period=700,command=9,device=1,role=primary,mode=cue,gap=30,quiet=200"},
       kLine + kDevice0 + " | 1 pre 5 id 5a0002" +
           " | peer every 700 role 1 mode 1 gap 30 quiet 200 cmd 9 data 4 to 32 26 90 0 2"},
      {{"--devices", "0"}, "error: --devices needs a number from 1 to 64"},
      {{"--devices", "65"}, "error: --devices needs a number from 1 to 64"},
      {{"--devices"}, "error: --devices needs a value"},
      {{"--addresses", "1,64"}, "error: --addresses: '64' is not 0-63"},
      {{"--addresses", "1,1"}, "error: --addresses: repeated 1"},
      {{"--baud", "4800"}, "error: --baud: 1200, 9600 or 19200"},
      {{"--baud", "38400"}, "error: --baud needs a number from 1200 to 19200"},
      {{"--turnaround", "10001"}, "error: --turnaround needs a number from 0 to 10000"},
      {{"--preambles", "1"}, "error: --preambles needs a number from 2 to 30"},
      {{"--burst", "period=0"}, "error: --burst: period must be above 0"},
      {{"--burst", "device=1"}, "error: --burst: no device 1"},
      {{"--burst", "colour=red"}, "error: --burst: unknown key 'colour'"},
      {{"--fault", "melt"}, "error: --fault: unknown kind 'melt'"},
      {{"--fault", "delay:ms=abc"}, "error: --fault: ms needs a number up to 100000"},
      {{"--fault", "split:bytes=3"}, "error: --fault: unknown key 'bytes'"},
      {{"--fault", "busy:device=3"}, "error: --fault: no device 3"},
      {{"--second-master", "role=tertiary"}, "error: --second-master: role is primary or secondary"},
      {{"--second-master", "device=1"}, "error: --second-master: no device 1"},
      {{"--frobnicate"}, "error: unknown option '--frobnicate'"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    SimOptions options;
    std::string error;
    bool parsed = ParseOptions(row.args, &options, &error);
    EXPECT_EQ(parsed ? Render(options) : "error: " + error, row.want);
  }
}

}  // namespace
}  // namespace velmora::sim
