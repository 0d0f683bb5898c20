// The in-memory line in virtual time: exact pacing, the record of bytes and control lines, the
// master's echo, and drained output; and the virtual clock itself.
#include <gtest/gtest.h>

#include "platform/clock.h"
#include "platform/memory_line.h"

namespace velmora::platform {
namespace {

class MemoryLineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static int counter = 0;
    name_ = "memory-line-" + std::to_string(++counter);
    line_ = MemoryLine::Create(name_);
    master_ = std::move(OpenSerialLine("mem:" + name_).line);
    ASSERT_NE(master_, nullptr);
  }
  VirtualClock clock_{1000};
  std::string name_;
  std::shared_ptr<MemoryLine> line_;
  std::unique_ptr<SerialLine> master_;
};

TEST_F(MemoryLineTest, BytesArriveOneCharacterTimeApart) {
  ASSERT_TRUE(master_->SetBaud(1200));
  const uint64_t t0 = clock_.NowMicros();
  const uint8_t frame[] = {0xFF, 0x02, 0x80};
  master_->Write(frame, 3);
  MemoryLine::TimedByte in[8];
  EXPECT_EQ(line_->ReadTimed(MemoryLine::kFarEnd, in, 8), 0u);
  clock_.AdvanceMs(28);
  ASSERT_EQ(line_->ReadTimed(MemoryLine::kFarEnd, in, 8), 3u);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(in[i].arrival_us, t0 + (i + 1) * 11u * 1000000u / 1200u) << i;
  EXPECT_EQ(line_->SenderFreeAt(MemoryLine::kMasterEnd), t0 + 3u * 11u * 1000000u / 1200u);
}

TEST_F(MemoryLineTest, RecordsControlLinesAndBytesWithTheirTimes) {
  line_->ClearRecord();
  master_->SetRts(true);
  clock_.AdvanceMs(2);
  const uint8_t byte = 0x55;
  master_->Write(&byte, 1);
  master_->SetRts(false);
  const auto record = line_->Record();
  ASSERT_EQ(record.size(), 3u);
  EXPECT_EQ(record[0].kind, MemoryLine::EventKind::kRts);
  EXPECT_EQ(record[0].value, 1u);
  EXPECT_EQ(record[1].kind, MemoryLine::EventKind::kByte);
  EXPECT_EQ(record[1].time_us, record[0].time_us + 2000);
  EXPECT_EQ(record[1].end_us - record[1].time_us, MemoryLine::CharMicros(1200));
  EXPECT_FALSE(line_->Rts(MemoryLine::kMasterEnd));
}

TEST_F(MemoryLineTest, EchoAndFarEndScheduling) {
  line_->SetMasterEcho(true);
  const uint8_t frame[] = {1, 2};
  master_->Write(frame, 2);
  clock_.AdvanceMs(20);
  EXPECT_EQ(master_->BytesWaiting(), 2u);
  uint8_t in[4];
  EXPECT_EQ(master_->Read(in, 4), 2);
  const uint8_t reply[] = {9};
  line_->WriteAt(MemoryLine::kFarEnd, reply, 1, clock_.NowMicros() + 5000);
  clock_.AdvanceMs(5);
  EXPECT_EQ(master_->BytesWaiting(), 0u);
  clock_.AdvanceMs(10);
  EXPECT_EQ(master_->BytesWaiting(), 1u);
}

TEST_F(MemoryLineTest, WaitDrainedAdvancesVirtualTimeExactly) {
  const uint8_t frame[10] = {};
  master_->Write(frame, 10);
  const uint64_t t0 = clock_.NowMicros();
  EXPECT_FALSE(master_->WaitDrained(50));  // 91.7 ms of bytes: the bound runs out first
  EXPECT_EQ(clock_.NowMicros(), t0 + 50000);
  EXPECT_TRUE(master_->WaitDrained(100));
  EXPECT_EQ(clock_.NowMicros(), t0 + 92000);
}

TEST(VirtualClockTest, SleepAdvancesAndListenersTick) {
  VirtualClock clock(5);
  EXPECT_EQ(InstalledVirtualClock(), &clock);
  EXPECT_EQ(NowMs(), 5u);
  int ticks = 0;
  const int id = clock.AddTickListener([&](uint64_t) { ++ticks; });
  SleepMs(7);
  EXPECT_EQ(NowMs(), 12u);
  EXPECT_EQ(ticks, 7);
  clock.RemoveTickListener(id);
  SleepMs(1);
  EXPECT_EQ(ticks, 7);
  clock.SetMs(0xFFFFFFFFull);
  EXPECT_EQ(NowMs(), 0xFFFFFFFFu);
  SleepMs(2);
  EXPECT_EQ(NowMs(), 1u);  // the 32-bit clock wraps
  EXPECT_EQ(ElapsedMs(NowMs(), 0xFFFFFFFFu), 2u);
}

TEST(VirtualClockTest, UninstallsWithItsEnd) {
  { VirtualClock clock; }
  EXPECT_EQ(InstalledVirtualClock(), nullptr);
}

}  // namespace
}  // namespace velmora::platform
