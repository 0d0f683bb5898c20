// The simulator as a test peer on the far end of an in-memory line in virtual time: which
// requests it answers and with exactly which bytes, when each byte of a reply starts, what each
// fault option does to a reply, and the lines of its transcript.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <sstream>

#include "platform/clock.h"
#include "platform/memory_line.h"
#include "sim/sim_memory_runner.h"
#include "sim/sim_options.h"

namespace velmora::sim {
namespace {

using platform::MemoryLine;

// The simulator set up from a command line; bytes go in and out as hex text ("FF 02 80"). Its
// end of the line is made fast, so that a byte arrives 11 us after the simulator starts it: the
// times read are the simulator's own schedule, which the line's pacing would hide if it were early.
class Bench {
 public:
  explicit Bench(const std::vector<std::string> &args, uint32_t master_baud = 0)
      : line_(MemoryLine::Create("sim-bench")) {
    std::string error;
    EXPECT_TRUE(ParseOptions(args, &options_, &error)) << error;
    line_->SetEndBaud(MemoryLine::kMasterEnd, master_baud ? master_baud : options_.line.baud);
    runner_ = std::make_unique<MemoryLineRunner>(line_, options_.line);
    line_->SetEndBaud(MemoryLine::kFarEnd, 1000000);
    ApplyOptions(options_, runner_->Core());
    runner_->AttachVirtual(clock_);
  }
  uint64_t Baud() const { return options_.line.baud; }
  uint64_t Now() const { return clock_.NowMicros(); }
  SimLine &Core() { return runner_->Core(); }

  // Sends from the master end, the first byte starting at start_us; gives the last one's arrival.
  uint64_t Send(const std::string &hex, uint64_t start_us) {
    std::vector<uint8_t> bytes;
    std::istringstream in(hex);
    for (unsigned value = 0; in >> std::hex >> value;) bytes.push_back(static_cast<uint8_t>(value));
    line_->WriteAt(MemoryLine::kMasterEnd, bytes.data(), static_cast<uint32_t>(bytes.size()), start_us);
    return start_us + bytes.size() * 11000000 / Baud();
  }
  // Lets `ms` pass; gives what the simulator sent meanwhile, and when each byte started.
  std::string Collect(uint32_t ms, std::vector<uint64_t> *starts = nullptr) {
    std::string got;
    MemoryLine::TimedByte chunk[64];
    for (uint32_t i = 0; i < ms; ++i) {
      clock_.AdvanceMs(1);
      for (uint32_t n; (n = line_->ReadTimed(MemoryLine::kMasterEnd, chunk, 64)) > 0;) {
        for (uint32_t k = 0; k < n; ++k) {
          char hex[4];
          std::snprintf(hex, sizeof hex, got.empty() ? "%02X" : " %02X", chunk[k].value);
          got += hex;
          if (starts) starts->push_back(chunk[k].arrival_us - 11);
        }
      }
    }
    return got;
  }

 private:
  platform::VirtualClock clock_;  // first: it outlives the runner that listens to it
  std::shared_ptr<MemoryLine> line_;
  SimOptions options_;
  std::unique_ptr<MemoryLineRunner> runner_;
};

// Device 0 at polling address 0 (long address 20 1A 5A 00 01), device 1 at 1 (... 00 02); each
// reply carries cold start (0x20) in its status, device 1 also its fixed current (0x08).
TEST(SimPeer, AnswersItsOwnAddressesWithExactFrames) {
  const std::string kPre = "FF FF FF FF FF ";
  const std::string kLong0 = kPre + "82 A0 1A 5A 00 01 10 00 73";
  const std::string kLong0Reply = kPre + "86 A0 1A 5A 00 01 10 05 00 20 00 01 00 53";
  const std::string kIdentity1 = "FE 60 1A 05 07 01 01 08 00 5A 00 02 05 03 00 00 00 00 60 00 60 01";
  struct Row {
    const char *what;
    std::string request, reply;  // no reply: silence
    size_t split = 0;            // a pause before this byte of the request,
    uint64_t gap_us = 0;         // from the arrival of the byte before it to its own
    uint32_t master_baud = 1200;
  };
  const Row rows[] = {
      {"short, two preambles", "FF FF 02 80 00 00 82",
       kPre + "06 80 00 18 00 20 FE 60 1A 05 07 01 01 08 00 5A 00 01 05 03 00 00 00 00 60 00 60 01 6C"},
      {"one preamble is too few", "FF 02 80 00 00 82", ""},
      {"short, secondary master", kPre + "02 01 00 00 03", kPre + "06 01 00 18 00 28 " + kIdentity1 + " E6"},
      {"nobody at address 2", kPre + "02 82 00 00 80", ""},
      {"short frames carry command 0 only", kPre + "02 80 01 00 83", ""},
      {"long", kLong0, kLong0Reply},
      {"long, secondary master", kPre + "82 20 1A 5A 00 01 10 00 F3",
       kPre + "86 20 1A 5A 00 01 10 05 00 20 00 01 00 D3"},
      {"long, device 1", kPre + "82 A0 1A 5A 00 02 10 00 70",
       kPre + "86 A0 1A 5A 00 02 10 05 00 28 00 01 00 58"},
      {"burst bit is no part of the address", kPre + "82 E0 1A 5A 00 01 10 00 33", kLong0Reply},
      {"last address byte differs", kPre + "82 A0 1A 5A 00 03 10 00 71", ""},
      {"first address byte differs", kPre + "82 A1 1A 5A 00 01 10 00 72", ""},
      {"broadcast, command 16", kPre + "82 80 00 00 00 00 10 00 12", ""},
      {"broadcast, command 11 with device 1's tag", kPre + "82 80 00 00 00 00 0B 06 4C 93 71 82 08 20 0B",
       kPre + "86 80 00 00 00 00 0B 18 00 28 " + kIdentity1 + " EC"},
      {"bad checksum", kPre + "82 A0 1A 5A 00 01 10 00 74", ""},
      {"a response is no request", kPre + "06 80 00 00 86", ""},
      {"pause of three characters and 10 ms", kLong0, kLong0Reply, 8, 37498},
      {"pause 1 us longer", kLong0, "", 8, 37499},
      {"master at another baud rate", kLong0, "", 0, 0, 9600},
      {"a request during the reply collides with it", kLong0 + " " + kLong0, kLong0Reply},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    Bench bench({"--devices", "2"}, row.master_baud);
    size_t split = row.split ? row.split * 3 : row.request.size();
    uint64_t head_end = bench.Send(row.request.substr(0, split), bench.Now());
    bench.Send(row.request.substr(split), head_end + row.gap_us - 11000000 / bench.Baud());
    EXPECT_EQ(bench.Collect(700), row.reply);
  }
}

// For each command line, two requests for command 16 to device 0: the bytes of both replies,
// and when each byte of the first starts. A reply starts a turnaround (plus any delay) after the
// request's last byte; its characters follow at 11 bits each, counted over the whole reply so
// that rounding does not drift. A fault from the command line stands unless given `times`.
TEST(SimPeer, PacesRepliesAndSpoilsThemAsEachFaultOptionSays) {
  const std::string kFirst = "FF FF FF FF FF 86 A0 1A 5A 00 01 10 05 00 20 00 01 00 53";
  const std::string kNext = "FF FF FF FF FF 86 A0 1A 5A 00 01 10 05 00 00 00 01 00 73";  // cold start gone
  const std::string kBusy = "FF FF FF FF FF 86 A0 1A 5A 00 01 10 02 20 20 75";
  struct Row {
    std::vector<std::string> args;
    std::string first, second;  // the replies
    uint64_t start_us = 20000;  // the first reply's first byte, from the end of the request
    size_t late_from = 0;       // this byte of the first reply and those after it come
    uint64_t late_us = 0;       // this much later
  };
  const Row rows[] = {
      {{}, kFirst, kNext},
      {{"--baud", "9600", "--turnaround", "5"}, kFirst, kNext, 5000},
      {{"--baud", "19200", "--turnaround", "2"}, kFirst, kNext, 2000},
      {{"--preambles", "3"}, kFirst.substr(6), kNext.substr(6)},
      {{"--fault", "delay:ms=30,times=1"}, kFirst, kNext, 50000},
      {{"--fault", "busy:times=1"}, kBusy, kNext},
      {{"--fault", "comm-error:code=0x10,times=1"},
       "FF FF FF FF FF 86 A0 1A 5A 00 01 10 02 90 00 E5",
       kFirst},
      {{"--fault", "no-reply:times=1"}, "", kFirst},
      {{"--fault", "truncate:keep=6,times=1"}, "FF FF FF FF FF 86 A0 1A 5A 00 01", kNext},
      {{"--fault", "bad-checksum"}, kFirst.substr(0, 54) + "AC", kNext.substr(0, 54) + "8C"},
      {{"--fault", "noise-before:bytes=2,times=1"}, "21 01 " + kFirst, kNext},
      {{"--seed", "30", "--fault", "noise-before:bytes=2,times=1"},
       "00 5D " + kFirst,
       kNext},  // no FF in noise
      {{"--fault", "noise-inside:offset=4,bytes=2,times=1"},
       "FF FF FF FF FF 86 A0 1A 5A 21 01 00 01 10 05 00 20 00 01 00 53",
       kNext},
      {{"--fault", "split:offset=4,ms=50,times=1"}, kFirst, kNext, 20000, 9, 50000},
      {{"--fault", "busy:times=1", "--fault", "delay:ms=30,times=1"}, kBusy, kNext, 50000},
      {{"--fault", "no-reply:command=0"}, kFirst, kNext},
      {{"--devices", "2", "--fault", "no-reply:device=1"}, kFirst, kNext},
      {{"--devices", "2", "--fault", "no-reply:device=0,times=1"}, "", kFirst},
  };
  const std::string request = "FF FF FF FF FF 82 A0 1A 5A 00 01 10 00 73";
  for (const Row &row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.args));
    Bench bench(row.args);
    uint64_t end = bench.Send(request, bench.Now());
    std::vector<uint64_t> starts;
    EXPECT_EQ(bench.Collect(400, &starts), row.first);
    bench.Send(request, bench.Now());
    EXPECT_EQ(bench.Collect(400), row.second);
    for (uint64_t i = 0; i < starts.size(); ++i)
      EXPECT_EQ(starts[i] - end, row.start_us + i * 11000000 / bench.Baud() +
                                     (row.late_from && i >= row.late_from ? row.late_us : 0))
          << "byte " << i;
  }
}

// Burst mode, unasked: short frames of command 1 to the primary master and the secondary in turn,
// each a period after the one before, or later when the quiet after a frame (75 ms) ends later.
TEST(SimPeer, BurstsAlternateMastersEveryPeriod) {
  for (const auto &[period, gap_us] : {std::pair{"period=300,short", 300000u}, {"period=200,short", 231000u}}) {
    Bench bench({"--burst", period});
    std::vector<uint64_t> starts;
    const std::string frames = bench.Collect(2 * gap_us / 1000 + 160, &starts);
    ASSERT_EQ(starts.size(), 3 * 17u) << frames;
    EXPECT_EQ(std::pair(starts[17] - starts[0], starts[34] - starts[0]), std::pair(gap_us + 0ul, 2ul * gap_us));
    if (gap_us != 300000) continue;
    EXPECT_EQ(frames, "FF FF FF FF FF 01 C0 01 07 00 20 0C 42 BF 56 FA BA FF FF FF FF FF 01 40 01 07 00 20 0C 42 "
                      "BF 2F DD 64 FF FF FF FF FF 01 C0 01 07 00 20 0C 42 BF 0A FA E6");
  }
}

// What the transcript records of a reply with a fault, a request with a bad checksum and one
// for nobody: time in ms (last byte heard, or first byte sent), kind, bytes, note.
TEST(SimPeer, TranscriptLines) {
  Bench bench({"--fault", "bad-checksum"});
  for (const char *request :
       {"FF FF FF FF FF 82 A0 1A 5A 00 01 10 00 73", "FF FF FF FF FF 82 A0 1A 5A 00 01 10 00 74",
        "FF FF FF FF FF 82 A0 1A 5A 00 03 10 00 71"}) {
    bench.Send(request, bench.Now() + 700);
    bench.Collect(400);
  }
  EXPECT_EQ(bench.Core().Log().Format(),
            "      100129.033 ms  heard   82 A0 1A 5A 00 01 10 00 73  | long request cmd 16 primary\n"
            "      100149.033 ms  reply   FF FF FF FF FF 86 A0 1A 5A 00 01 10 05 00 20 00 01 00 AC  | "
            "device 0 cmd 16 rc 0 faults bad-checksum\n"
            "      100529.033 ms  bad-sum 82 A0 1A 5A 00 01 10 00 74  | checksum wrong: no answer\n"
            "      100929.033 ms  heard   82 A0 1A 5A 00 03 10 00 71  | long request cmd 16 primary\n"
            "      100929.033 ms  ignored no device answers this address and command\n");
}

}  // namespace
}  // namespace velmora::sim
