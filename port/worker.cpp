// The port's worker. It sleeps until bytes arrive, an application wakes it, or the next
// deadline comes: the state machine's time-out, the gap rule inside a frame, or the next step of
// a transmission. A transmission drives RTS and DTR by hand around the frame: RTS up, a lead-in,
// the write, a wait worked out from the frame's length, the drained output (bounded), a tail, RTS
// down; then the echo is read and dropped. No step sleeps: each one arms the deadline of the next.
#include "port/worker.h"

#include <algorithm>
#include <cstring>

#include "diag/history_store.h"
#include "link/frame_parser.h"
#include "link/link_counters.h"
#include "link/mac.h"
#include "link/transaction.h"
#include "platform/clock.h"
#include "port/port_runtime.h"
#include "queues/delivery.h"
#include "queues/queue_guard.h"
#include "queues/worker_orders.h"
#include "tables/port_wake.h"
#include "tables/tables.h"

namespace velmora {
namespace {

constexpr uint64_t kUsPerMs = 1000;
constexpr unsigned int kToggleStepMs = 100;
constexpr unsigned int kSimPauseMs = 20;

unsigned int BaudOf(unsigned int code) { return code == 1 ? 9600u : code == 2 ? 19200u : 1200u; }
unsigned int DriverOf(const tagCOMPORTINFO &port) { return static_cast<unsigned int>(&port - &ComPortTable[0]); }

// Bound on the wait for the output to drain: twice the frame's time on the line plus 100 ms.
unsigned int DrainBoundMs(unsigned int code, unsigned int bytes) {
  const unsigned int frame_ms = (bytes * 11u * 1000u + BaudOf(code) - 1) / BaudOf(code);
  return 2 * frame_ms + 100;
}

// The moment a millisecond end is past, in the sense of the time-out test: the clock must stand
// strictly beyond it, and an end the clock has passed (wrap included) is due at once.
uint64_t DueAfter(uint32_t end_ms, uint64_t now_us) {
  const auto now_ms = static_cast<uint32_t>(now_us / kUsPerMs);
  if (end_ms < now_ms) return now_us;
  return (now_us / kUsPerMs + (end_ms - now_ms) + 1) * kUsPerMs;
}

// A span rounded up to whole milliseconds.
uint64_t CeilMs(uint64_t span_us) { return (span_us + kUsPerMs - 1) / kUsPerMs * kUsPerMs; }

void SetStep(PortRuntime &runtime, WorkerStep step, uint64_t due_us) {
  runtime.step = step;
  runtime.step_due_us = due_us;
}

// Reads what the input holds, at most 256 bytes; resets nFailedCycles when bytes wait. Bytes held
// back from the echo come first.
int ReadFromCom(tagCOMPORTINFO *port, unsigned char *buffer) {
  PortRuntime &runtime = RuntimeOf(*port);
  if (runtime.held_count != 0) {
    const unsigned int count = runtime.held_count;
    std::memcpy(buffer, runtime.held, count);
    runtime.held_count = 0;
    return static_cast<int>(count);
  }
  if (port->nSimResponseLen != 0) {
    const unsigned int length = port->nSimResponseLen;
    std::memcpy(buffer, port->abSimResponse, length);
    port->nSimResponseLen = 0;
    port->nFailedCycles = 0;
    return static_cast<int>(length);
  }
  platform::SerialLine *line = runtime.line.get();
  if (!line) return 0;
  const uint32_t waiting = std::min<uint32_t>(line->BytesWaiting(), sizeof runtime.rx_buffer);
  if (waiting == 0) return 0;
  port->nFailedCycles = 0;
  const int32_t got = line->Read(buffer, waiting);
  return got > 0 ? got : 0;
}

// Drops the frame's own echo and whatever else came in while RTS was up. The echo is known by
// its bytes (an answer never repeats the request's delimiter). A worker that wakes late_us after
// RTS should have dropped keeps the bytes that can have arrived since then: they are the start
// of the answer.
void DropEcho(tagCOMPORTINFO *port, PortRuntime &runtime, uint64_t late_us) {
  platform::SerialLine *line = runtime.line.get();
  if (!line) return;
  const uint32_t waiting = std::min<uint32_t>(line->BytesWaiting(), sizeof runtime.echo);
  if (waiting == 0) return;
  port->nFailedCycles = 0;
  const int32_t got = line->Read(runtime.echo, waiting);
  if (got <= 0) return;
  const auto count = static_cast<uint32_t>(got);
  const uint32_t length = port->nTxFrameLen;
  const uint32_t echo = count >= length && std::memcmp(runtime.echo, port->abTxFrame, length) == 0 ? length : 0;
  const uint64_t char_us = 11u * 1000000u / (line->Baud() ? line->Baud() : 1200u);
  const auto keep = static_cast<uint32_t>(std::min<uint64_t>({late_us / char_us, count - echo, sizeof runtime.held}));
  std::memcpy(runtime.held, runtime.echo + count - keep, keep);
  runtime.held_count = keep;
}

void EndTransmit(tagCOMPORTINFO *port, PortRuntime &runtime, uint64_t now_us) {
  if (platform::SerialLine *line = runtime.line.get()) {
    line->SetRts(false);
    line->SetDtr(true);
  }
  DropEcho(port, runtime, now_us - runtime.step_due_us);
  port->nTxRequest = 2;
  OnTransmitEnd(port);
  ArmIdleTimeOut(port);
  SetStep(runtime, WorkerStep::kListen, 0);
}

void BeginTransmit(tagCOMPORTINFO *port, PortRuntime &runtime, uint64_t now_us) {
  platform::SerialLine *line = runtime.line.get();
  if (HistoryOn(*port)) {
    StartHistory();
    port->tTraceBase = platform::NowMs();
    putHistRequest(port->abTxFrame, port->nTxFrameLen);
  }
  OnTransmitStart(port);
  if (port->nSimResponseLen != 0) {
    // A simulated response stands in for the line: nothing is raised or written.
    port->nTxRequest = 2;
    OnTransmitEnd(port);
    ArmIdleTimeOut(port);
    SetStep(runtime, WorkerStep::kSimPause, now_us + kSimPauseMs * kUsPerMs);
    return;
  }
  if (line) {
    line->SetRts(true);
    line->SetDtr(false);
  }
  port->tTxStart = platform::NowMs();
  SetStep(runtime, WorkerStep::kLeadIn, now_us + LeadInMs(port->nBaudCode.load()) * kUsPerMs);
}

// The drained output ends the drain; so does its bound. Until then, look again when the line
// says the output will have drained, in whole milliseconds. The tail counts from the moment the
// output drained as seen at those whole milliseconds, so a worker that wakes late drops RTS at
// once and knows how late it is.
void CheckDrained(PortRuntime &runtime, unsigned int code, unsigned int extra_rts_delay, uint64_t now_us) {
  const uint64_t drained_by = runtime.line ? runtime.line->DrainedByUs() : now_us;
  const uint64_t base = std::min(runtime.step_due_us, now_us);
  const uint64_t tail_us = TailMs(code, extra_rts_delay) * kUsPerMs;
  if (drained_by <= now_us) {
    const uint64_t drained_at = drained_by <= base ? base : base + CeilMs(drained_by - base);
    SetStep(runtime, WorkerStep::kTail, drained_at + tail_us);
  } else if (now_us >= runtime.drain_bound_us) {
    SetStep(runtime, WorkerStep::kTail, now_us + tail_us);
  } else {
    SetStep(runtime, WorkerStep::kDrain, std::min(now_us + CeilMs(drained_by - now_us), runtime.drain_bound_us));
  }
}

// The time-out's event, after the rate round if there was one.
void DeliverTimeOut(tagCOMPORTINFO *port) {
  MacEvent(port, evTimeOut);
  if (port->nTxRequest.load() == 2) port->nTxRequest = 0;
}

// Steps a timed sequence whose deadline has come.
void AdvanceStep(tagCOMPORTINFO *port, PortRuntime &runtime, uint64_t now_us) {
  const unsigned int code = port->nBaudCode.load();
  platform::SerialLine *line = runtime.line.get();
  switch (runtime.step) {
    case WorkerStep::kLeadIn:
      // The write returns before the bytes have left, so the whole frame is still to go.
      if (line) line->Write(port->abTxFrame, port->nTxFrameLen);
      runtime.drain_bound_us = UINT64_MAX;
      SetStep(runtime, WorkerStep::kFrameWait, now_us + FrameWaitMs(code, port->nTxFrameLen) * kUsPerMs);
      return;
    case WorkerStep::kFrameWait:
      runtime.drain_bound_us = now_us + DrainBoundMs(code, port->nTxFrameLen) * kUsPerMs;
      CheckDrained(runtime, code, port->nExtraRtsDelay.load(), now_us);
      return;
    case WorkerStep::kDrain:
      CheckDrained(runtime, code, port->nExtraRtsDelay.load(), now_us);
      return;
    case WorkerStep::kTail:
      EndTransmit(port, runtime, now_us);
      return;
    case WorkerStep::kSimPause:
      SetStep(runtime, WorkerStep::kListen, 0);
      return;
    case WorkerStep::kToggleHigh:
      if (line) line->SetBaud(1200);
      SetStep(runtime, WorkerStep::kToggleBack, now_us + kToggleStepMs * kUsPerMs);
      return;
    case WorkerStep::kToggleBack:
      SetStep(runtime, WorkerStep::kListen, 0);
      DeliverTimeOut(port);
      return;
    case WorkerStep::kListen:
      return;
  }
}

// After silence to the end of its retries twice in a row, at 1200 baud, the line goes to 9600
// baud and back, 100 ms each, before the time-out reaches the state machine. True if it started.
bool StartRateRound(tagCOMPORTINFO *port, PortRuntime &runtime, uint64_t now_us) {
  if (port->nTxRequest.load() != 2) return false;
  const unsigned int retries = port->nRetries.load();
  if (port->nRetryCount == retries) ++port->nFailedCycles;
  if (retries == 0 || port->nFailedCycles != 2) return false;
  port->nFailedCycles = 0;
  platform::SerialLine *line = runtime.line.get();
  if (!line || line->Baud() != 1200) return false;
  line->SetBaud(9600);
  SetStep(runtime, WorkerStep::kToggleHigh, now_us + kToggleStepMs * kUsPerMs);
  return true;
}

// How many bytes of the frame under way are still to come, at least; 0 if not known.
unsigned int BytesToCome(const typRxFrameStruct &rx) {
  if (rx.nRxState == kRxPreambles) return 5;  // delimiter, address, command, count, checksum
  if (rx.nRxState != kRxInFrame) return 0;
  if (rx.nExpectedLen != 255) return rx.nExpectedLen > rx.nFrameLen ? rx.nExpectedLen - rx.nFrameLen : 0;
  return rx.nHeaderLen > rx.nFrameLen ? rx.nHeaderLen - rx.nFrameLen + 1 : 0;
}

// With more than one byte of the frame still to come, the next wake on bytes can wait until all
// but the last of them are due at the line's rate.
void GatherRestOfFrame(tagCOMPORTINFO *port, PortRuntime &runtime, uint64_t now_us) {
  const unsigned int to_come = BytesToCome(*port->pRxFrame);
  const uint32_t baud = runtime.line ? runtime.line->Baud() : 0;
  runtime.gather_until_us = 0;
  if (to_come < 2 || baud == 0) return;
  runtime.gather_until_us = now_us + (to_come - 1) * (11u * 1000000u / baud);
}

void ReadPhase(tagCOMPORTINFO *port, PortRuntime &runtime, uint64_t now_us) {
  typRxFrameStruct &rx = *port->pRxFrame;
  typTimerControlStruct &timer = *port->pTimer;
  unsigned char *buffer = runtime.rx_buffer;
  int count = ReadFromCom(port, buffer);
  // A chunk that opens with 0 while hunting is line noise from the modem's carrier.
  if (rx.nRxState == 1 && count > 0 && buffer[0] == 0) count = 0;
  if (count > 0) {
    const unsigned int n = static_cast<unsigned int>(count);
    timer.tLastRx = timer.tNow;
    timer.tStart = timer.tNow;
    ProcessReceivedBytes(port, buffer, n);
    const unsigned char state = rx.nRxState;
    if (state == 4 || (n == 1 && state != 1)) {
      timer.tStart = platform::NowMs();
      timer.nCharTimeOutMs = 22;
    } else if (state > 1) {
      timer.tStart = platform::NowMs();
      timer.nCharTimeOutMs = n < 4 ? n * 12 + 10 : n * 12 + 30;
    }
    MacEvent(port, evBytesRead);
    GatherRestOfFrame(port, runtime, now_us);
    return;
  }
  if (rx.nRxState > 1) {
    // The gap rule: silence inside a frame gives it up; no event goes to the state machine.
    if (timer.tLastRx + timer.nCharTimeOutMs < platform::NowMs()) {
      if (rx.nRxState != 4) CountersOf(*port).frames_cut_off.fetch_add(1, std::memory_order_relaxed);
      rx.nRxState = 0;
    }
    return;
  }
  if (toIfTimeOut(&timer) == 0) {
    MacEvent(port, evNothing);
    return;
  }
  if (!StartRateRound(port, runtime, now_us)) DeliverTimeOut(port);
}

// The history record is complete when the state machine has made one of these moves.
bool ClosesRecord(unsigned int from, unsigned int to) {
  if (from == to) return false;
  return (to == macHoldOff && from != macOwnTurnGap) || to == macOwnTurnGap ||
         (to == macWaitQuiet && from == macPeerReplyRunning) ||
         (to == macTurnReplyWait && from == macPeerReplyRunning) || (to == macLineFree && from == macPeerRequestHeard);
}

void CloseRecordIfDone(tagCOMPORTINFO *port, unsigned int state_before) {
  if (ClosesRecord(state_before, port->nMacState.load()) && HistoryOn(*port)) {
    IncrementHistory();
    PostMessageA(port->hHistoryWnd.load(), port->nHistoryMsg.load(), 0, 0);
  }
}

// Orders from application threads about the element in service, carried out here so that only
// this thread ever touches it.
void CarryOutOrders(tagCOMPORTINFO *port) {
  WorkerOrders &orders = OrdersOf(DriverOf(*port));
  if (orders.drop_active.exchange(false) && port->pActiveElement) {
    fncDestroyQueueElement(port->pActiveElement);
    port->pActiveElement = nullptr;
    port->bRequestPending = 0;
  }
  if (orders.mark_active_cleared.exchange(false) && port->pActiveElement)
    port->pActiveElement->nClearMark = kBurstService;
}

// The line has gone: the port reads closed, its applications hear of it, and every request
// handed to the worker from now on ends with a failure notice.
void ServiceLostLine(tagCOMPORTINFO *port, PortRuntime &runtime) {
  if (!runtime.lost) {
    runtime.lost = true;
    runtime.step = WorkerStep::kListen;
    runtime.held_count = 0;
    port->hComPort = NoHandle();
    port->nTxRequest = 0;
    NotifyPortLinkEvent(port, VELMORA_LINK_LOST);
  }
  runtime.lost_again = !FailAllRequests(port);
}

bool LineLost(const PortRuntime &runtime) { return runtime.lost || (runtime.line && runtime.line->Lost()); }

// When the next wake is due without anything else happening, and whether bytes on the line
// should wake the worker (not during a timed step, which reads nothing).
uint64_t NextDeadlineUs(tagCOMPORTINFO *port, const PortRuntime &runtime, uint64_t now_us, bool *watch_input) {
  *watch_input = runtime.step == WorkerStep::kListen;
  if (runtime.step != WorkerStep::kListen) return runtime.step_due_us;
  const unsigned int request = port->nTxRequest.load();
  if (request == 1 || runtime.held_count != 0) return now_us;
  if (request != 0 && request != 2) return platform::kNoDeadline;  // neither phase runs
  const typRxFrameStruct &rx = *port->pRxFrame;
  const typTimerControlStruct &timer = *port->pTimer;
  uint64_t due = platform::kNoDeadline;
  if (rx.nRxState > 1) {
    due = DueAfter(timer.tLastRx + timer.nCharTimeOutMs, now_us);
    if (now_us < runtime.gather_until_us) {
      *watch_input = false;
      return std::min(due, runtime.gather_until_us);
    }
  } else if (timer.tStart != 0)
    due = DueAfter(timer.tStart + timer.nTimeOutMs, now_us);
  // On the free line an idle wake sends the request in hand at once. Work that an idle wake
  // takes on but could not (a locked queue, no memory for the element, a parked result) is
  // tried again at the pace of the old polling loop.
  const unsigned int state = port->nMacState.load();
  if (state == macInit || (state == macLineFree && port->bRequestPending == 1)) return now_us;
  const uint64_t again = now_us + PassSleepMs(port->nBaudCode.load()) * kUsPerMs;
  if ((state == macLineFree || state == macOwnTurnGap) && QueueHoldsWork(&ReceivePendingQueue))
    due = std::min(due, again);
  if (state == macLineFree && QueueHoldsWork(port->pTransmitQueue)) due = std::min(due, again);
  return due;
}

}  // namespace

unsigned int LeadInMs(unsigned int baud_code) { return baud_code == 0 ? 2 : 1; }

unsigned int FrameWaitMs(unsigned int baud_code, unsigned int pending_bytes) {
  const double n = pending_bytes;
  double wait;
  if (baud_code == 1)
    wait = pending_bytes ? (n - 1) * 1.15 : 0;
  else if (baud_code == 2)
    wait = pending_bytes ? (n - 1) * 0.58 + 0.5 : 1;
  else
    wait = pending_bytes ? (n - 1) * 9.2 + 1.0 : 1;
  return static_cast<unsigned int>(wait);
}

unsigned int TailMs(unsigned int baud_code, unsigned int extra_rts_delay) {
  if (baud_code == 1) return 3;
  if (baud_code == 2) return 2;
  return 10 + extra_rts_delay;
}

unsigned int PassSleepMs(unsigned int baud_code) { return baud_code == 0 ? 5 : 1; }

void ServiceWake(tagCOMPORTINFO *pPort) {
  PortRuntime &runtime = RuntimeOf(*pPort);
  WakeupOf(DriverOf(*pPort)).Take();
  CarryOutOrders(pPort);
  if (runtime.rate_changed.load()) {
    const unsigned int rate = BaudOf(pPort->nBaudCode.load());
    if (runtime.line && !runtime.lost && runtime.line->Baud() != rate) runtime.line->SetBaud(rate);
    runtime.rate_changed = false;  // after the change: the application waits for it
  }
  const uint64_t now_us = platform::NowMicros();
  pPort->pTimer->tNow = static_cast<uint32_t>(now_us / kUsPerMs);
  if (LineLost(runtime)) return ServiceLostLine(pPort, runtime);
  const unsigned int state_before = pPort->nMacState.load();
  if (runtime.step != WorkerStep::kListen) {
    if (now_us >= runtime.step_due_us) AdvanceStep(pPort, runtime, now_us);
  } else if (pPort->nTxRequest.load() == 1) {
    BeginTransmit(pPort, runtime, now_us);
  } else if (pPort->nTxRequest.load() == 0 || pPort->nTxRequest.load() == 2) {
    ReadPhase(pPort, runtime, now_us);
  }
  CloseRecordIfDone(pPort, state_before);
  if (LineLost(runtime)) return ServiceLostLine(pPort, runtime);
  // A frame handed over goes out now, not at the next wake.
  if (runtime.step == WorkerStep::kListen && pPort->nTxRequest.load() == 1)
    BeginTransmit(pPort, runtime, platform::NowMicros());
}

void WaitForWork(tagCOMPORTINFO *pPort, uint32_t max_wait_ms) {
  const PortRuntime &runtime = RuntimeOf(*pPort);
  const uint64_t now_us = platform::NowMicros();
  bool watch_input = false;
  uint64_t deadline = runtime.lost ? (runtime.lost_again ? now_us + PassSleepMs(0) * kUsPerMs : platform::kNoDeadline)
                                   : NextDeadlineUs(pPort, runtime, now_us, &watch_input);
  if (max_wait_ms != UINT32_MAX) deadline = std::min(deadline, now_us + max_wait_ms * kUsPerMs);
  if (deadline <= now_us) return;
  platform::Wakeup &wakeup = WakeupOf(DriverOf(*pPort));
  platform::SerialLine *line = runtime.lost ? nullptr : runtime.line.get();
  if (line) {
    line->Wait(wakeup, deadline, watch_input);
  } else if (platform::InstalledVirtualClock()) {
    platform::SleepMs(1);
  } else {
    wakeup.Sleep(deadline);
  }
}

void RunWorkerPass(tagCOMPORTINFO *pPort) {
  ServiceWake(pPort);
  WaitForWork(pPort, PassSleepMs(pPort->nBaudCode.load()));
}

void ComPortThread(void *pPort) {
  auto *port = static_cast<tagCOMPORTINFO *>(pPort);
  PortRuntime &runtime = RuntimeOf(*port);
  runtime.started.store(true);
  runtime.started.notify_all();
  while (port->bThreadRun.load() != 0) {
    ServiceWake(port);
    if (port->bThreadRun.load() == 0) break;
    WaitForWork(port);
  }
  port->bThreadDone = 1;
  port->bThreadDone.notify_all();
}

}  // namespace velmora
