// The polled time-out: codes, the adjustment by baud rate, arming forms and the one-shot test.
#include <gtest/gtest.h>

#include "platform/clock.h"
#include "port/timeout.h"
#include "port/worker.h"
#include "velmora.h"

namespace velmora {
namespace {

// A timer record at the given baud code, not armed.
struct Timer : typTimerControlStruct {
  explicit Timer(unsigned int baud, unsigned int char_timeout = 22) : typTimerControlStruct{} {
    nBaudCode = baud;
    nCharTimeOutMs = char_timeout;
  }
};

struct LengthCase {
  unsigned int code;
  unsigned int baud;
  unsigned int expect_ms;
  unsigned int expect_char_ms;
};

class TimeOutLengthTest : public ::testing::TestWithParam<LengthCase> {};

TEST_P(TimeOutLengthTest, CodeAndBaudGiveTheLength) {
  const LengthCase c = GetParam();
  Timer timer(c.baud);
  toModifyTimeOut(&timer, c.code);
  EXPECT_EQ(timer.nTimeOutMs, c.expect_ms);
  EXPECT_EQ(timer.nCharTimeOutMs, c.expect_char_ms);
  EXPECT_EQ(timer.tStart, 0u);
}

INSTANTIATE_TEST_SUITE_P(Codes, TimeOutLengthTest,
                         ::testing::Values(LengthCase{3, 1, 305, 22},   // 305 is not shortened
                                           LengthCase{2, 1, 2, 2},      // 12 -> 12/8+1, char 22 -> 2
                                           LengthCase{2, 2, 12, 2},     // 19200: only the char time
                                           LengthCase{14, 0, 80, 22},   // 1200: nothing changes
                                           LengthCase{14, 1, 11, 2}, LengthCase{7, 1, 10, 2},
                                           LengthCase{10, 1, 2, 2}, LengthCase{12, 1, 100, 22},
                                           LengthCase{12, 2, 100, 22}, LengthCase{17, 1, 2500, 22},
                                           LengthCase{1, 1, 1, 2}, LengthCase{18, 0, 2, 22}));

TEST(TimeOutTest, UnknownCodeKeepsTheLengthAndShortensAgain) {
  Timer timer(1);
  timer.nTimeOutMs = 80;
  toModifyTimeOut(&timer, 0);
  EXPECT_EQ(timer.nTimeOutMs, 11u);
  toModifyTimeOut(&timer, 19);
  EXPECT_EQ(timer.nTimeOutMs, 2u);
  // 22 -> 2 -> 1, and stays there.
  EXPECT_EQ(timer.nCharTimeOutMs, 1u);
  toModifyTimeOut(&timer, 19);
  EXPECT_EQ(timer.nCharTimeOutMs, 1u);
  Timer zero(1, 0);
  toModifyTimeOut(&zero, 1);
  EXPECT_EQ(zero.nCharTimeOutMs, 1u);
}

TEST(TimeOutTest, FiresOnceStrictlyPastItsEnd) {
  platform::VirtualClock clock(1000);
  Timer timer(0);
  timer.tStart = 1000;
  timer.nTimeOutMs = 305;
  clock.SetMs(1305);
  EXPECT_EQ(toIfTimeOut(&timer), 0u);
  clock.SetMs(1306);
  EXPECT_EQ(toIfTimeOut(&timer), 1u);
  EXPECT_EQ(timer.tStart, 0u);
  EXPECT_EQ(toIfTimeOut(&timer), 0u);
}

TEST(TimeOutTest, UnarmedNeverFires) {
  platform::VirtualClock clock(5000000);
  Timer timer(0);
  timer.nTimeOutMs = 1;
  EXPECT_EQ(toIfTimeOut(&timer), 0u);
  EXPECT_EQ(timer.tStart, 0u);
  EXPECT_EQ(toIfTimeOut(nullptr), 0u);
}

TEST(TimeOutTest, EndPastTheWrapFiresAtOnce) {
  platform::VirtualClock clock(0);
  clock.SetMs(0xFFFFFF00ull);
  Timer timer(0);
  toSetTimeOutSys(&timer, 3);
  EXPECT_EQ(timer.tStart, 0xFFFFFF00u);
  EXPECT_EQ(toIfTimeOut(&timer), 1u);
}

TEST(TimeOutTest, ArmingFormsCountFromTheirOwnMoment) {
  platform::VirtualClock clock(20000);
  Timer timer(0);
  timer.tNow = 19990;
  timer.tLastRx = 19000;
  toSetTimeOutSys(&timer, 12);
  EXPECT_EQ(timer.tStart, 20000u);
  toSetTimeOutEv(&timer, 12);
  EXPECT_EQ(timer.tStart, 19990u);
  toSetTimeOutRcv(&timer, 12);
  EXPECT_EQ(timer.tStart, 19000u);
  toModifyTimeOut(&timer, 3);
  EXPECT_EQ(timer.tStart, 19000u);
  EXPECT_EQ(timer.nTimeOutMs, 305u);
}

struct DelayCase {
  unsigned int baud;
  unsigned int bytes;
  unsigned int lead_in;
  unsigned int frame_wait;
  unsigned int tail;
  unsigned int pass_sleep;
};

class TransmitDelayTest : public ::testing::TestWithParam<DelayCase> {};

TEST_P(TransmitDelayTest, DelaysByBaudCode) {
  const DelayCase c = GetParam();
  EXPECT_EQ(LeadInMs(c.baud), c.lead_in);
  EXPECT_EQ(FrameWaitMs(c.baud, c.bytes), c.frame_wait);
  EXPECT_EQ(TailMs(c.baud, 5), c.tail);
  EXPECT_EQ(PassSleepMs(c.baud), c.pass_sleep);
}

INSTANTIATE_TEST_SUITE_P(Rates, TransmitDelayTest,
                         ::testing::Values(DelayCase{0, 10, 2, 83, 15, 5}, DelayCase{1, 10, 1, 10, 3, 1},
                                           DelayCase{2, 10, 1, 5, 2, 1}, DelayCase{0, 0, 2, 1, 15, 5},
                                           DelayCase{1, 0, 1, 0, 3, 1}, DelayCase{2, 0, 1, 1, 2, 1},
                                           DelayCase{0, 1, 2, 1, 15, 5}, DelayCase{1, 1, 1, 0, 3, 1},
                                           DelayCase{2, 1, 1, 0, 2, 1},
                                           // A code above 2: 9600 in lead-in and sleep, 1200 otherwise.
                                           DelayCase{3, 10, 1, 83, 15, 1}));

}  // namespace
}  // namespace velmora
