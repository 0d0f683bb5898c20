// velmora-sim as a program: it serves a pseudo-terminal that the library's serial backend opens,
// echoes and answers there in real time, paced, and writes its transcript where it is told.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "platform/clock.h"
#include "platform/serial_line.h"
#include "tests/support/sim_process.h"

namespace velmora::sim {
namespace {

using Bytes = std::vector<uint8_t>;

TEST(SimProgram, EchoesAndAnswersOverAPseudoTerminal) {
  if (access(test::SimProcess::Binary().c_str(), X_OK) != 0) GTEST_SKIP() << "velmora-sim not built";
  const std::string log = ::testing::TempDir() + "velmora_sim_log_" + std::to_string(getpid()) + ".txt";
  test::SimProcess sim({"--devices", "2", "--echo", "--transcript=" + log});
  ASSERT_FALSE(sim.Path().empty());
  platform::OpenedLine opened = platform::OpenSerialLine(sim.Path());
  ASSERT_TRUE(opened.line) << platform::LineStatusText(opened.status);
  opened.line->SetBaud(1200);

  // A request for device 1's identity, its echo, and the reply.
  const Bytes want = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0x81, 0x00, 0x00, 0x83, 0xFF,
                      0xFF, 0xFF, 0xFF, 0xFF, 0x06, 0x81, 0x00, 0x18, 0x00, 0x28, 0xFE,
                      0x60, 0x1A, 0x05, 0x07, 0x01, 0x01, 0x08, 0x00, 0x5A, 0x00, 0x02,
                      0x05, 0x03, 0x00, 0x00, 0x00, 0x00, 0x60, 0x00, 0x60, 0x01, 0x66};
  const uint64_t sent_us = platform::NowMicros();
  ASSERT_EQ(opened.line->Write(want.data(), 10), 10);
  Bytes got;
  uint64_t last_us = 0;
  for (uint8_t chunk[64]; got.size() < want.size() && platform::NowMicros() < sent_us + 3000000;
       platform::os::SleepMicros(1000))
    for (int32_t n; (n = opened.line->Read(chunk, sizeof chunk)) > 0; last_us = platform::NowMicros())
      got.insert(got.end(), chunk, chunk + n);
  EXPECT_EQ(got, want);
  // The request's 10 characters, the turnaround and the reply's 34 characters at 1200 baud take
  // at least this long; real time can only add to it.
  EXPECT_GE(last_us - sent_us, 20000u + 43 * 9166);

  opened.line.reset();
  sim.Stop();
  // The time varies; its form is checked in virtual time.
  std::ifstream in(log);
  std::string text{std::istreambuf_iterator<char>(in), {}};
  EXPECT_NE(text.find(" ms  heard   02 81 00 00 83  | short request cmd 0 primary\n"), std::string::npos)
      << text;
  EXPECT_NE(text.find(" ms  reply   FF FF FF FF FF 06 81 00 18 00 28 FE 60 1A 05 07 01 01 08 00 5A 00 02 05 03 "
                      "00 00 00 00 60 00 60 01 66  | device 1 cmd 0 rc 0\n"),
            std::string::npos);
  std::remove(log.c_str());
}

}  // namespace
}  // namespace velmora::sim
