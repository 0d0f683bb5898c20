// The frame receiver and the medium-access state machine of one port row, driven as the worker's
// read phase drives them: chunks of line bytes, each followed by its event, with quiet and
// time-outs in between. No thread and no line: a frame handed over for sending goes out at once.
//
// Input: two setup bytes, then steps. A step byte below 0xFE is a chunk of that many plus one
// bytes; 0xFE is a pass without bytes; 0xFF is a pass whose time-out has run out.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>

#include "diag/history_store.h"
#include "link/frame_parser.h"
#include "link/mac.h"
#include "tables/tables.h"

namespace {

using namespace velmora;

constexpr unsigned int kRow = 20;
constexpr unsigned int kMonitorMsg = 0x401, kHistoryMsg = 0x402;
constexpr unsigned char kQuiet = 0xFE, kTimeOut = 0xFF;
constexpr unsigned int kStates[] = {macInit,       macWaitQuiet,     macPeerRequestHeard, macPeerReplyRunning,
                                    macOwnTurnGap, macTurnReplyWait, macLineFree,         macFreeReplyWait,
                                    macHoldOff,    macBurstGap};
// Command 0 to polling address 0, for a row that has requests to send; no owner, so replies and
// failures are dropped rather than piling up.
unsigned char request_frame[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82};

#define CHECK(condition) \
  if (!(condition)) std::abort()

HWND Window() {
  static HWND window = CreateNoticeWindow();
  return window;
}

// Monitor notices carry an array that their receiver frees.
void Drain() {
  MSG msg;
  while (PeekMessageA(&msg, Window(), 0, 0, PM_REMOVE))
    if (msg.message == kMonitorMsg) delete reinterpret_cast<CByteArray *>(msg.lParam);
}

// Setup a: state (low nibble), primary role, long preamble fix, monitor, history.
// Setup b: retries (2 bits), debug flags (3 bits), requests queued (2 bits).
void Reset(tagCOMPORTINFO &port, uint8_t a, uint8_t b) {
  typRxFrameStruct &rx = *port.pRxFrame;
  rx = typRxFrameStruct{};
  rx.bRxRolePrimary = (a >> 4) & 1;
  typTimerControlStruct &timer = *port.pTimer;
  timer.tStart = timer.tLastRx = timer.nTimeOutMs = timer.tNow = timer.nCharTimeOutMs = 0;
  port.nMacState = kStates[(a & 0x0F) % std::size(kStates)];
  port.bPrimaryMaster = rx.bRxRolePrimary;
  port.bLongPreambleFix = (a >> 5) & 1;
  port.hMonitorWnd = (a & 0x40) ? Window() : nullptr;
  port.nMonitorMsg = (a & 0x40) ? kMonitorMsg : 0;
  port.hHistoryWnd = (a & 0x80) ? Window() : nullptr;
  port.nHistoryMsg = (a & 0x80) ? kHistoryMsg : 0;
  port.dwDebugFlags =
      ((b >> 2) & 1 ? kTraceStates : 0) | ((b >> 3) & 1 ? kTraceReceive : 0) | ((b >> 4) & 1 ? kTraceService : 0);
  port.nRetries = b & 3;
  port.nRetryCount = port.bRequestPending = port.bBurstSeen = port.nNonPreambleBytes = port.nRxFrameLen = 0;
  port.nTxRequest = 0;
  for (int i = 0; i < ((b >> 5) & 3); ++i) {
    typQueueElement *element = fncCreateQueueElement();
    fncSetQueueElementData(element, request_frame, sizeof request_frame);
    element->nAppHandle = element->nServiceHandle = kNone;
    element->nDriverId = kRow;
    fncAppendQueueElement(port.pTransmitQueue, element);
    fncDestroyQueueElement(element);
  }
  ClearStateTrace(&port);
}

// Frees what a run leaves, so that runs are independent and none looks like a leak.
void CleanUp(tagCOMPORTINFO &port) {
  if (port.pActiveElement) fncDestroyQueueElement(port.pActiveElement);
  port.pActiveElement = nullptr;
  fncDeleteQueue(port.pTransmitQueue);
  FlushHistory();
  Drain();
}

// The worker sends a handed-over frame before it reads again; here it leaves at once.
void Transmit(tagCOMPORTINFO &port) {
  if (port.nTxRequest.load() != 1) return;
  if (HistoryOn(port)) {
    StartHistory();
    putHistRequest(port.abTxFrame, port.nTxFrameLen);
  }
  OnTransmitStart(&port);
  port.nTxRequest = 2;
  OnTransmitEnd(&port);
  ArmIdleTimeOut(&port);
}

// A pass without bytes: silence inside a frame gives it up, without an event; otherwise the
// state machine hears of the pass, or of the time-out.
void Pass(tagCOMPORTINFO &port, bool timed_out) {
  typRxFrameStruct &rx = *port.pRxFrame;
  if (rx.nRxState > kRxHunting) {
    rx.nRxState = kRxBetweenFrames;
  } else if (!timed_out) {
    MacEvent(&port, evNothing);
  } else {
    MacEvent(&port, evTimeOut);
    if (port.nTxRequest.load() == 2) port.nTxRequest = 0;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  tagCOMPORTINFO &port = ComPortTable[kRow];
  typRxFrameStruct &rx = *port.pRxFrame;
  Reset(port, data[0], data[1]);
  for (size_t at = 2; at < size;) {
    const uint8_t step = data[at++];
    if (step == kQuiet || step == kTimeOut) {
      Pass(port, step == kTimeOut);
    } else {
      const size_t take = std::min<size_t>(step + 1u, size - at);
      if (take == 0) break;
      const uint8_t *chunk = data + at;
      at += take;
      // A chunk that opens with 0 while hunting is carrier noise and read as nothing.
      if (rx.nRxState == kRxHunting && chunk[0] == 0) {
        Pass(port, false);
      } else {
        ProcessReceivedBytes(&port, chunk, static_cast<unsigned int>(take));
        MacEvent(&port, evBytesRead);
      }
    }
    Transmit(port);
    const unsigned int state = port.nMacState.load();
    CHECK(std::find(std::begin(kStates), std::end(kStates), state) != std::end(kStates));
    CHECK(rx.nRxState <= kRxDiscarding && port.nRxFrameLen <= sizeof port.abRxFrame);
    CHECK(rx.nMonitorLen <= sizeof rx.abMonitor);
  }
  // What was recorded from the wire renders too.
  if (HistoryOn(port) && IncrementHistory()) GetHistory(0xFF);
  CleanUp(port);
  return 0;
}
