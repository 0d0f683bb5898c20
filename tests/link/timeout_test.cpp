// The polled time-out: lengths by code and baud rate, arming forms and the one-shot test against
// the clock. (The transmit delays are asserted to the microsecond on the wire by the link's
// exchange stories.)
#include <gtest/gtest.h>

#include <tuple>

#include "link/timeout.h"
#include "platform/clock.h"
#include "velmora.h"

namespace velmora {
namespace {

// A timer record at the given baud code, not armed.
struct Timer : typTimerControlStruct {
  explicit Timer(unsigned baud, unsigned length = 0, unsigned char_ms = 22) : typTimerControlStruct{} {
    nBaudCode = baud;
    nTimeOutMs = length;
    nCharTimeOutMs = char_ms;
  }
};

TEST(TimeOutTest, CodeAndBaudGiveTheLength) {
  // code, baud code, length and char time-out before, the same after. 9600 baud shortens both
  // (n/8+1; 22 -> 2 -> 1, which stays); 19200 only the char time-out; 305, 100 and 2500 are never
  // shortened. Codes 0 and 19 are unknown: they keep the length.
  const unsigned rows[][6] = {
      {3, 1, 0, 22, 305, 22}, {2, 1, 0, 22, 2, 2},     {2, 2, 0, 22, 12, 2},    {14, 0, 0, 22, 80, 22},
      {14, 1, 0, 22, 11, 2},  {7, 1, 0, 22, 10, 2},    {10, 1, 0, 22, 2, 2},    {12, 1, 0, 22, 100, 22},
      {12, 2, 0, 22, 100, 22}, {17, 1, 0, 22, 2500, 22}, {1, 1, 0, 22, 1, 2},   {18, 0, 0, 22, 2, 22},
      {0, 1, 80, 22, 11, 2},  {19, 1, 11, 22, 2, 2},   {19, 1, 0, 2, 1, 1},     {19, 1, 0, 1, 1, 1},
      {1, 1, 0, 0, 1, 1}};
  for (auto [code, baud, length_before, chars_before, length, chars] : rows) {
    SCOPED_TRACE(::testing::Message() << "code " << code << ", baud " << baud << ", char " << chars_before);
    Timer t(baud, length_before, chars_before);
    toModifyTimeOut(&t, code);
    EXPECT_EQ(std::tuple(t.nTimeOutMs, t.nCharTimeOutMs, t.tStart), std::tuple(length, chars, 0u));
  }
}

TEST(TimeOutTest, FiresOnceStrictlyPastItsEnd) {
  platform::VirtualClock clock(20000);
  Timer timer(0, 1);
  EXPECT_EQ(toIfTimeOut(&timer) + toIfTimeOut(nullptr), 0u);  // not armed
  timer.tNow = 19990;
  timer.tLastRx = 19000;
  auto start = [&](void (*arm)(typTimerControlStruct *, unsigned int) noexcept) {
    arm(&timer, 12);
    return timer.tStart;
  };
  // From the pass's event time, from the last byte received, from the clock.
  EXPECT_EQ((std::vector{start(toSetTimeOutEv), start(toSetTimeOutRcv), start(toSetTimeOutSys)}),
            (std::vector{19990u, 19000u, 20000u}));
  toModifyTimeOut(&timer, 3);  // a new length keeps the start
  EXPECT_EQ(std::make_pair(timer.tStart, timer.nTimeOutMs), std::make_pair(20000u, 305u));
  clock.SetMs(20305);
  EXPECT_EQ(toIfTimeOut(&timer), 0u);
  clock.SetMs(20306);
  EXPECT_EQ(toIfTimeOut(&timer), 1u);
  EXPECT_EQ(std::make_pair(timer.tStart, toIfTimeOut(&timer)), std::make_pair(0u, 0u));
  clock.SetMs(0xFFFFFF00ull);  // an end past the wrap fires at once
  toSetTimeOutSys(&timer, 3);
  EXPECT_EQ(timer.tStart, 0xFFFFFF00u);
  EXPECT_EQ(toIfTimeOut(&timer), 1u);
}

}  // namespace
}  // namespace velmora
