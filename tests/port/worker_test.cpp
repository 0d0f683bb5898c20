// The worker's waits in virtual time: what wakes it and when, a worker that wakes late, and the gap
// rule on bytes that trickle in. (A real worker stopped while it sleeps: registration_test.)
#include "port/worker.h"

#include <tuple>

#include "link/link_counters.h"
#include "link/mac.h"
#include "tables/port_wake.h"
#include "tables/tables.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

const Bytes kReply = ShortResponse(0, 0, {0x00, 0x40, 0xFE, 0x26, 0x06, 0x05, 0x05, 0x01, 0x02, 0x03});

class WorkerTest : public LinkFixture {
 protected:
  // Runs one wait as the worker thread does, without a cap: how long it slept, in microseconds.
  uint64_t Wait() {
    const uint64_t start = NowUs();
    WaitForWork(&Port());
    return NowUs() - start;
  }
  bool RtsUp() const { return line_->Rts(platform::MemoryLine::kMasterEnd); }
};

// Whatever comes first ends the wait, to the millisecond: a request handed in, bytes on the line,
// the state machine's time-out, or a wake from a close. A request goes out at once.
TEST_F(WorkerTest, WakesForWhatComesFirst) {
  enum Event { kRequest, kBytes, kClose, kNothing };
  // The state reached before the wait, the event and when it comes, how long the wait lasts.
  struct Row { const char *what; unsigned int state; Event event; unsigned int at_ms; uint64_t woken_us; } rows[] = {
      {"request on the free line", macLineFree, kRequest, 7, 7000},
      {"request during the hold-off", macHoldOff, kRequest, 30, 30000},
      {"nothing during the hold-off: its end", macHoldOff, kNothing, 0, 0},
      {"bytes while waiting for quiet", macWaitQuiet, kBytes, 40, 50000},  // in at 49.17 ms
      {"a close on the free line", macLineFree, kClose, 12, 12000},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    OpenAt(0);
    AutoReply([](const Bytes &) { return kReply; });
    ASSERT_TRUE(RunUntil([&] { return Port().nMacState.load() == macLineFree; }, 400));
    if (row.state == macHoldOff) {
      Send(0);
      ASSERT_TRUE(RunUntil([&] { return Port().nMacState.load() == macHoldOff; }, 400));
      ServiceWake(&Port());  // the wake that ended the reply
    } else if (row.state == macWaitQuiet) {
      Port().nMacState = macWaitQuiet;
      ArmIdleTimeOut(&Port());
    }
    ASSERT_EQ(Port().nMacState.load(), row.state);
    const uint64_t at = NowUs() + row.at_ms * 1000ull;
    // Without an event the time-out ends the wait: the first millisecond strictly past its end.
    const typTimerControlStruct &timer = *Port().pTimer;
    const uint64_t expect =
        row.event == kNothing ? (timer.tStart + timer.nTimeOutMs + 1) * 1000ull - NowUs() : row.woken_us;
    const int listener = clock_->AddTickListener([&, at](uint64_t now) {
      if (now != at) return;
      if (row.event == kRequest) Send(0);
      if (row.event == kBytes) FarSend({0xFF});  // in after one character, 9.2 ms at 1200 baud
      if (row.event == kClose) WakePort(kPort - 1);
    });
    const uint64_t slept = Wait();
    clock_->RemoveTickListener(listener);
    EXPECT_EQ(slept, expect);
    if (row.event == kRequest && row.state == macLineFree) {
      ServiceWake(&Port());
      EXPECT_TRUE(RtsUp());  // the transmission started in this very wake
    }
  }
}

// A worker that wakes late takes in what the line holds before it looks at its deadlines: an
// answer in the buffer is never declared missing, not even the part of it that came in while
// RTS was still up because the worker was late to drop it.
TEST_F(WorkerTest, LateWakeTakesTheBytesBeforeTheDeadline) {
  // stall_in_tail: the worker stalls after raising RTS, before the tail ends.
  struct Row { const char *what; unsigned int turnaround_us; bool stall_in_tail; unsigned int stall_ms; } rows[] = {
      {"stalled past the reply wait", 20000, false, 800},
      {"stalled in the tail while the answer starts", 2000, true, 120},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.what);
    OpenAt(2);
    line_->SetMasterEcho(true);
    AutoReply([](const Bytes &) { return kReply; }, row.turnaround_us);
    ASSERT_TRUE(RunUntil([&] { return Port().nMacState.load() == macLineFree; }, 400));
    const unsigned int hServ = Send(0);
    if (row.stall_in_tail) {
      ASSERT_TRUE(RunUntil([&] { return RtsUp(); }, 50));
      ASSERT_TRUE(RunUntil([&] { return far_in_.size() == 10; }, 50));  // the request is out
    } else {
      ASSERT_TRUE(RunUntil([&] { return Port().nTxRequest.load() == 2; }, 100));
    }
    clock_->AdvanceMs(row.stall_ms);  // no wake at all meanwhile: the answer is in the buffer
    ASSERT_TRUE(RunUntil([&] { return !Notices(kReplyMsg).empty(); }, 50));
    EXPECT_EQ(Notices(kReplyMsg)[0].wParam, hServ);
    EXPECT_EQ(Notices(kReplyMsg)[0].lParam, 0x80040);  // the answer, not the failure word 0xFFFF
  }
}

// Bytes of a frame that come one at a time are one frame as long as each gap stays within the
// character time-out (22 ms after a single byte); a longer gap gives the frame up, counted.
TEST_F(WorkerTest, GapRuleOnBytesThatTrickleIn) {
  const std::tuple<unsigned int, unsigned int, unsigned int> rows[] = {
      // gap between bytes (ms), frames taken, frames cut off
      {10, 1, 0},
      {21, 1, 0},
      {30, 0, 5},  // each preamble starts a frame that the next gap gives up
  };
  for (const auto &[gap_ms, taken, cut_off] : rows) {
    SCOPED_TRACE(::testing::Message() << gap_ms << " ms apart");
    OpenAt(2);
    ASSERT_EQ(RegisterLLMonitor(kApp, app_window_, kMonitorMsg), 1u);
    ASSERT_TRUE(RunUntil([&] { return Port().nMacState.load() == macLineFree; }, 400));
    const auto cut_before = CountersOf(Port()).frames_cut_off.load();
    const Bytes frame = ShortResponse(1, 3, {0, 0});  // to this master: heard, monitored, dropped
    for (size_t i = 0; i < frame.size(); ++i) {
      line_->WriteAt(platform::MemoryLine::kFarEnd, &frame[i], 1, NowUs());
      RunFor(gap_ms);
    }
    RunFor(50);
    size_t frames = 0;
    for (const MSG &msg : Notices(kMonitorMsg)) {
      delete reinterpret_cast<CByteArray *>(msg.lParam);
      frames += msg.wParam == 0;
    }
    EXPECT_EQ(frames, taken);
    EXPECT_EQ(CountersOf(Port()).frames_cut_off.load() - cut_before, cut_off);
  }
}

// How long the worker waits for a frame's bytes to leave, in whole milliseconds, by baud code. (The
// drain wait that follows makes up for a short one, so the wire does not show it.)
TEST(WorkerDelays, FrameWaitByBaudAndLength) {
  const unsigned rows[][3] = {{0, 0, 1}, {1, 0, 0}, {2, 0, 1}, {0, 10, 83}, {1, 10, 10}, {2, 10, 5}};
  for (auto [baud, bytes, ms] : rows) EXPECT_EQ(FrameWaitMs(baud, bytes), ms) << baud << ", " << bytes;
}

}  // namespace
}  // namespace velmora::test
