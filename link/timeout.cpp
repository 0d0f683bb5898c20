// Time-out codes, their adjustment by baud rate, and the five operations on the timer record.
#include "link/timeout.h"

#include "platform/clock.h"
#include "velmora.h"

namespace velmora {
namespace {

constexpr unsigned int kTable[19] = {0, 1, 12, 305, 305, 610, 760, 75, 3, 150, 10, 3, 100, 1, 80, 1, 1, 2500, 2};

}  // namespace

unsigned int TimeOutTableMs(unsigned int code) { return code >= 1 && code <= 18 ? kTable[code] : 0; }

}  // namespace velmora

extern "C" {

void toModifyTimeOut(typTimerControlStruct *pTimer, unsigned int nCode) noexcept {
  if (!pTimer) return;
  if (nCode >= 1 && nCode <= 18) pTimer->nTimeOutMs = velmora::TimeOutTableMs(nCode);
  // Short waits shrink at higher rates; 100 ms and more stay as they are at every rate.
  const unsigned int baud = pTimer->nBaudCode.load();
  if (baud == 0 || pTimer->nTimeOutMs >= 100) return;
  if (baud == 1) {
    pTimer->nTimeOutMs = (pTimer->nTimeOutMs >> 3) + 1;
    pTimer->nCharTimeOutMs = (pTimer->nCharTimeOutMs >> 4) + 1;
  } else if (baud == 2) {
    pTimer->nCharTimeOutMs = (pTimer->nCharTimeOutMs >> 4) + 1;
  }
}

void toSetTimeOutSys(typTimerControlStruct *pTimer, unsigned int nCode) noexcept {
  if (!pTimer) return;
  pTimer->tStart = velmora::platform::NowMs();
  toModifyTimeOut(pTimer, nCode);
}

void toSetTimeOutEv(typTimerControlStruct *pTimer, unsigned int nCode) noexcept {
  if (!pTimer) return;
  pTimer->tStart = pTimer->tNow;
  toModifyTimeOut(pTimer, nCode);
}

void toSetTimeOutRcv(typTimerControlStruct *pTimer, unsigned int nCode) noexcept {
  if (!pTimer) return;
  pTimer->tStart = pTimer->tLastRx;
  toModifyTimeOut(pTimer, nCode);
}

unsigned int toIfTimeOut(typTimerControlStruct *pTimer) noexcept {
  if (!pTimer || pTimer->tStart == 0) return 0;
  // A plain unsigned comparison: an end that passes the clock's wrap fires at the first test.
  const unsigned int end = pTimer->tStart + pTimer->nTimeOutMs;
  if (end >= velmora::platform::NowMs()) return 0;
  pTimer->tStart = 0;
  return 1;
}

}  // extern "C"
