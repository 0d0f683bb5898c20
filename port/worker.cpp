// The port's worker: a polling loop that either transmits or reads. It drives RTS and DTR by
// hand around each frame: RTS up, a lead-in, the write, a wait worked out from the frame's
// length, the drained output (bounded), a tail, RTS down; then the echo is read and dropped.
#include "port/worker.h"

#include <cstring>

#include "core/tables.h"
#include "diag/history_store.h"
#include "link/frame_parser.h"
#include "link/mac.h"
#include "platform/clock.h"
#include "port/port_control.h"
#include "port/port_runtime.h"

namespace velmora {
namespace {

unsigned int BaudOf(unsigned int code) { return code == 1 ? 9600u : code == 2 ? 19200u : 1200u; }

// Bound on the wait for the output to drain: twice the frame's time on the line plus 100 ms.
unsigned int DrainBoundMs(unsigned int code, unsigned int bytes) {
  const unsigned int frame_ms = (bytes * 11u * 1000u + BaudOf(code) - 1) / BaudOf(code);
  return 2 * frame_ms + 100;
}

void TransmitPhase(tagCOMPORTINFO *port) {
  platform::SerialLine *line = LineOf(*port);
  const unsigned int code = port->nBaudCode.load();
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
    platform::SleepMs(20);
    return;
  }
  if (line) {
    line->SetRts(true);
    line->SetDtr(false);
  }
  port->tTxStart = platform::NowMs();
  platform::SleepMs(LeadInMs(code));
  // The write returns before the bytes have left, so the whole frame is still to go.
  if (line) line->Write(port->abTxFrame, port->nTxFrameLen);
  platform::SleepMs(FrameWaitMs(code, port->nTxFrameLen));
  if (line) line->WaitDrained(DrainBoundMs(code, port->nTxFrameLen));
  platform::SleepMs(TailMs(code, port->nExtraRtsDelay.load()));
  if (line) {
    line->SetRts(false);
    line->SetDtr(true);
  }
  // The frame's own echo and whatever came in meanwhile never reach the parser.
  ReadFromCom(port, RuntimeOf(*port).rx_buffer);
  port->nTxRequest = 2;
  OnTransmitEnd(port);
  ArmIdleTimeOut(port);
}

void ReadPhase(tagCOMPORTINFO *port) {
  typRxFrameStruct &rx = *port->pRxFrame;
  typTimerControlStruct &timer = *port->pTimer;
  unsigned char *buffer = RuntimeOf(*port).rx_buffer;
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
    return;
  }
  if (rx.nRxState > 1) {
    // The gap rule: silence inside a frame gives it up; no event goes to the state machine.
    if (timer.tLastRx + timer.nCharTimeOutMs < platform::NowMs()) {
      if (rx.nRxState != 4) RuntimeOf(*port).counters.frames_cut_off.fetch_add(1, std::memory_order_relaxed);
      rx.nRxState = 0;
    }
    return;
  }
  if (toIfTimeOut(&timer) == 0) {
    MacEvent(port, evNothing);
    return;
  }
  if (port->nTxRequest.load() == 2) {
    const unsigned int retries = port->nRetries.load();
    if (port->nRetryCount == retries) ++port->nFailedCycles;
    if (retries != 0 && port->nFailedCycles == 2) {
      port->nFailedCycles = 0;
      ToggleBaudRate(port->nDriverId);
    }
  }
  MacEvent(port, evTimeOut);
  if (port->nTxRequest.load() == 2) port->nTxRequest = 0;
}

// The history record is complete when the state machine has made one of these moves.
bool ClosesRecord(unsigned int from, unsigned int to) {
  if (from == to) return false;
  return (to == macHoldOff && from != macOwnTurnGap) || to == macOwnTurnGap ||
         (to == macWaitQuiet && from == macPeerReplyRunning) ||
         (to == macTurnReplyWait && from == macPeerReplyRunning) ||
         (to == macLineFree && from == macPeerRequestHeard);
}

}  // namespace

unsigned int LeadInMs(unsigned int baud_code) { return baud_code == 0 ? 2 : 1; }

unsigned int FrameWaitMs(unsigned int baud_code, unsigned int pending_bytes) {
  const double n = pending_bytes;
  double wait;
  if (baud_code == 1) wait = pending_bytes ? (n - 1) * 1.15 : 0;
  else if (baud_code == 2) wait = pending_bytes ? (n - 1) * 0.58 + 0.5 : 1;
  else wait = pending_bytes ? (n - 1) * 9.2 + 1.0 : 1;
  return static_cast<unsigned int>(wait);
}

unsigned int TailMs(unsigned int baud_code, unsigned int extra_rts_delay) {
  if (baud_code == 1) return 3;
  if (baud_code == 2) return 2;
  return 10 + extra_rts_delay;
}

unsigned int PassSleepMs(unsigned int baud_code) { return baud_code == 0 ? 5 : 1; }

int ReadFromCom(tagCOMPORTINFO *pPort, unsigned char *pBuffer) {
  if (pPort->nSimResponseLen != 0) {
    const unsigned int length = pPort->nSimResponseLen;
    std::memcpy(pBuffer, pPort->abSimResponse, length);
    pPort->nSimResponseLen = 0;
    pPort->nFailedCycles = 0;
    return static_cast<int>(length);
  }
  platform::SerialLine *line = LineOf(*pPort);
  if (!line) return 0;
  uint32_t waiting = line->BytesWaiting();
  if (waiting > 256) waiting = 256;
  if (waiting == 0) return 0;
  pPort->nFailedCycles = 0;
  const int32_t got = line->Read(pBuffer, waiting);
  return got > 0 ? got : 0;
}

void RunWorkerPass(tagCOMPORTINFO *pPort) {
  PortRuntime &runtime = RuntimeOf(*pPort);
  // Requests from application threads about the element in service, carried out here so that
  // only this thread ever touches it.
  if (runtime.drop_active.exchange(false) && pPort->pActiveElement) {
    fncDestroyQueueElement(pPort->pActiveElement);
    pPort->pActiveElement = nullptr;
    pPort->bRequestPending = 0;
  }
  if (runtime.mark_active_cleared.exchange(false) && pPort->pActiveElement)
    pPort->pActiveElement->nClearMark = kBurstService;

  pPort->pTimer->tNow = platform::NowMs();
  const unsigned int state_before = pPort->nMacState.load();
  const unsigned int request = pPort->nTxRequest.load();
  if (request == 1) TransmitPhase(pPort);
  else if (request == 0 || request == 2) ReadPhase(pPort);
  if (ClosesRecord(state_before, pPort->nMacState.load()) && HistoryOn(*pPort)) {
    IncrementHistory();
    PostMessageA(pPort->hHistoryWnd.load(), pPort->nHistoryMsg.load(), 0, 0);
  }
  platform::SleepMs(PassSleepMs(pPort->nBaudCode.load()));
}

void ComPortThread(void *pPort) {
  auto *port = static_cast<tagCOMPORTINFO *>(pPort);
  PortRuntime &runtime = RuntimeOf(*port);
  runtime.started.store(true);
  runtime.started.notify_all();
  while (port->bThreadRun.load() != 0) RunWorkerPass(port);
  port->bThreadDone = 1;
  port->bThreadDone.notify_all();
}

}  // namespace velmora
