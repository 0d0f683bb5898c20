// The state machine's transition table and its actions. Each action carries the label under
// which it shows in the state trace. The turn follows from what is heard: a response or burst
// frame to the other master hands the turn to this port, quiet of the idle time-out frees the
// line for anybody, and after an exchange of its own this master holds off for 100 ms.
#include "link/mac.h"

#include "diag/history_store.h"
#include "link/timeout.h"
#include "link/transaction.h"
#include "platform/clock.h"
#include "queues/delivery.h"
#include "tables/tables.h"

namespace velmora {
namespace {

bool TraceStates(const tagCOMPORTINFO *port) { return TraceOn(*port, kTraceStates); }

void Mark(tagCOMPORTINFO *port, const char *label) {
  if (TraceStates(port)) TraceState(port, label);
}
void Flush(tagCOMPORTINFO *port) {
  if (TraceStates(port)) FlushStateTrace(port);
}
void MarkFlush(tagCOMPORTINFO *port, const char *label) {
  Mark(port, label);
  Flush(port);
}

char *AsArg(tagCOMPORTINFO *port) { return reinterpret_cast<char *>(port); }
typRxFrameStruct &Rx(tagCOMPORTINFO *port) { return *port->pRxFrame; }

void TimeOutNotice(tagCOMPORTINFO *port) {
  if (Rx(port).nMonitorLen != 0) NotifyLLmonitorTimeOut(AsArg(port), 1);
}
void Monitor(tagCOMPORTINFO *port) { NotifyLLmonitor(AsArg(port)); }

void CompleteByType(tagCOMPORTINFO *port) {
  const unsigned int type = Rx(port).nMsgType;
  CompleteTransaction(port, (type == kMsgResponseOwn || type == kMsgResponseOther) ? 1 : 0);
}

unsigned int ActH1(tagCOMPORTINFO *port) {
  MarkFlush(port, "->H1");
  ArmIdleTimeOut(port);
  return macWaitQuiet;
}
unsigned int ActB(tagCOMPORTINFO *port) {
  port->tTraceBase = platform::NowMs();
  Mark(port, "->B");
  port->pTimer->tStart = 0;
  return macLineFree;
}
unsigned int ActK(tagCOMPORTINFO *port) {
  port->tTraceBase = platform::NowMs();
  Mark(port, "->K");
  if (Rx(port).nBytesThisCycle > 0) return ActH1(port);
  StartTransmission(port);
  return macFreeReplyWait;
}
unsigned int ActH(tagCOMPORTINFO *port) {
  if (Rx(port).nBytesThisCycle > 1) return ActH1(port);
  port->tTraceBase = platform::NowMs();
  StartTransmission(port);
  Mark(port, "->H");
  return macTurnReplyWait;
}
unsigned int HoldOff(tagCOMPORTINFO *port, const char *label, bool from_last_reception) {
  CompleteByType(port);
  if (from_last_reception) toSetTimeOutRcv(port->pTimer, TO_HOLD_OFF);
  else toSetTimeOutSys(port->pTimer, TO_HOLD_OFF);
  MarkFlush(port, label);
  return macHoldOff;
}
unsigned int ActM(tagCOMPORTINFO *port) { return HoldOff(port, "->M", true); }
unsigned int ActI(tagCOMPORTINFO *port) { return HoldOff(port, "->I", true); }
unsigned int ActL(tagCOMPORTINFO *port) { return HoldOff(port, "->L", false); }
unsigned int ActI1(tagCOMPORTINFO *port) { return HoldOff(port, "->I1", false); }
unsigned int ActN(tagCOMPORTINFO *port) {
  MarkFlush(port, "->N");
  return macLineFree;
}

// The port takes the role that the master it heard does not have.
void RoleChange(tagCOMPORTINFO *port) {
  typRxFrameStruct &rx = Rx(port);
  if (rx.nMsgType == kMsgPrimaryRequest) {
    if (port->bPrimaryMaster.load() != 0 || rx.bRxRolePrimary != 0) {
      port->bPrimaryMaster = 0;
      rx.bRxRolePrimary = 0;
      if (TraceStates(port)) addHistStates(const_cast<char *>("I am secondary"));
    }
  } else if (rx.nMsgType == kMsgSecondaryRequest) {
    if (port->bPrimaryMaster.load() == 0 || rx.bRxRolePrimary == 0) {
      port->bPrimaryMaster = 1;
      rx.bRxRolePrimary = 1;
      if (TraceStates(port)) addHistStates(const_cast<char *>("I am primary"));
    }
  }
}

unsigned int ActAJO(tagCOMPORTINFO *port) {
  port->tTraceBase = platform::NowMs();
  RoleChange(port);
  ArmIdleTimeOut(port);
  Mark(port, "->AJO");
  return macPeerRequestHeard;
}
unsigned int ActD(tagCOMPORTINFO *port) {
  if (port->bRequestPending == 0) FetchNextRequest(port);
  Mark(port, "->D");
  return macPeerReplyRunning;
}
unsigned int ActEF(tagCOMPORTINFO *port) {
  ArmIdleTimeOut(port);
  MarkFlush(port, "->EF");
  return macWaitQuiet;
}
unsigned int ActG(tagCOMPORTINFO *port) {
  toSetTimeOutRcv(port->pTimer, TO_TURNAROUND);
  port->tTxStart = platform::NowMs();
  MarkFlush(port, "->G");
  return macOwnTurnGap;
}
unsigned int ActP(tagCOMPORTINFO *port) {
  toSetTimeOutRcv(port->pTimer, TO_TURNAROUND);
  MarkFlush(port, "->P");
  return macOwnTurnGap;
}
unsigned int ActQR(tagCOMPORTINFO *port) {
  ArmIdleTimeOut(port);
  MarkFlush(port, "->QR");
  return macWaitQuiet;
}
unsigned int ActS(tagCOMPORTINFO *port) {
  ArmIdleTimeOut(port);
  MarkFlush(port, "->S");
  return macWaitQuiet;
}
unsigned int ActT(tagCOMPORTINFO *port) {
  toSetTimeOutSys(port->pTimer, TO_BURST_GAP);
  Mark(port, "->T");
  return macBurstGap;
}

unsigned int BurstQuiet(tagCOMPORTINFO *port) {
  DistributeBurstFrame(port);
  ActS(port);
  Flush(port);
  return macWaitQuiet;
}
// A burst frame to the other master gives this master the turn, if it has a request.
unsigned int BurstTurn(tagCOMPORTINFO *port) {
  BurstQuiet(port);
  if (port->bRequestPending == 0) FetchNextRequest(port);
  if (port->bRequestPending == 1) return ActT(port);
  ArmIdleTimeOut(port);
  return macWaitQuiet;
}
// A burst frame in place of our reply: passed on, counted as a try; the request goes again
// while it has tries left and fails after its last, so a burst device cannot keep it for ever.
unsigned int BurstInsteadOfReply(tagCOMPORTINFO *port) {
  DistributeBurstFrame(port);
  RetryOrGiveUp(port);
  ActS(port);
  Flush(port);
  return macWaitQuiet;
}

bool IsRequest(unsigned int type) { return type == kMsgPrimaryRequest || type == kMsgSecondaryRequest; }

// Frame done in states 1, 6 and 8, which treat traffic alike but for "any other type".
unsigned int HeardWhileIdle(tagCOMPORTINFO *port, unsigned int (*other)(tagCOMPORTINFO *)) {
  const unsigned int type = Rx(port).nMsgType;
  Monitor(port);
  unsigned int next;
  if (IsRequest(type)) next = ActAJO(port);
  else if (type == kMsgBurstOwn) next = BurstQuiet(port);
  else if (type == kMsgBurstOther) next = BurstTurn(port);
  else next = other(port);
  ResetRxFrame(port);
  return next;
}

unsigned int StayQuiet(tagCOMPORTINFO *port) {
  ArmIdleTimeOut(port);
  return macWaitQuiet;
}
unsigned int StayFree(tagCOMPORTINFO *) { return macLineFree; }

// Frame done or time-out while our request awaits its reply (states 5 and 7).
unsigned int ReplyWait(tagCOMPORTINFO *port, unsigned int event, bool in_turn) {
  typRxFrameStruct &rx = Rx(port);
  if (event == evTimeOut) {
    TimeOutNotice(port);
    putHistResponse(rx.abFrame, rx.nFrameLen);
    NotifyAppLinkEvent(port, 4);
    unsigned int next = in_turn ? ActI1(port) : ActL(port);
    ResetRxFrame(port);
    return next;
  }
  const unsigned int type = rx.nMsgType;
  Monitor(port);
  NotifyAppLinkEvent(port, 4);
  unsigned int next;
  if (in_turn && IsRequest(type)) next = ActAJO(port);
  else if (type == kMsgBurstOwn || type == kMsgBurstOther) next = BurstInsteadOfReply(port);
  else if (!in_turn) next = ActM(port);
  else next = rx.bFrameValid ? ActI(port) : ActI1(port);
  ResetRxFrame(port);
  return next;
}

// A time-out that an action answers: the monitor hears of it, then the receiver starts over.
unsigned int AfterTimeOut(tagCOMPORTINFO *port, unsigned int (*action)(tagCOMPORTINFO *)) {
  TimeOutNotice(port);
  const unsigned int next = action(port);
  ResetRxFrame(port);
  return next;
}

unsigned int Step(tagCOMPORTINFO *port, unsigned int state, unsigned int event) {
  typRxFrameStruct &rx = Rx(port);
  switch (state) {
    case macInit:
      if (TraceStates(port)) ClearStateTrace(port);
      ArmIdleTimeOut(port);
      rx.nBytesThisCycle = 0;
      DropAbandonedRequest(port);
      return macWaitQuiet;

    case macWaitQuiet:
      if (event == evTimeOut) {
        TimeOutNotice(port);
        ResetRxFrame(port);
        return ActB(port);
      }
      if (event == evFirstByte || event == evBytesRead) {
        ArmIdleTimeOut(port);
        return macWaitQuiet;
      }
      if (event == evFrameDone) return HeardWhileIdle(port, StayQuiet);
      return state;

    case macPeerRequestHeard:
      if (event == evTimeOut) return AfterTimeOut(port, ActP);
      if (event == evFirstByte) return ActD(port);
      return state;

    case macPeerReplyRunning:
      // Each chunk restarts the idle time-out, so that it runs out only after quiet of its whole
      // length since the last byte.
      if (event == evBytesRead) {
        ArmIdleTimeOut(port);
        return state;
      }
      if (event == evTimeOut) {
        // The reply was cut off (it never ends as a frame) and the line has been quiet for the
        // idle time-out since: the line is free. Waiting for quiet once more would let another
        // master that polls faster than twice the time-out keep this one off the line for good.
        TimeOutNotice(port);
        ResetRxFrame(port);
        return ActB(port);
      }
      if (event == evFrameDone) {
        Monitor(port);
        return rx.nMsgType == kMsgResponseOther ? ActG(port) : ActEF(port);
      }
      return state;

    case macOwnTurnGap:
      if (event == evTimeOut) {
        TimeOutNotice(port);
        if (port->bRequestPending == 0) FetchNextRequest(port);
        unsigned int next = port->bRequestPending == 1 ? ActH(port) : ActH1(port);
        ResetRxFrame(port);
        return next;
      }
      if (event == evFirstByte) return ActQR(port);
      fncPassReceivePendingQueue();
      return state;

    case macTurnReplyWait:
    case macFreeReplyWait:
      if (event == evBytesRead) {
        ArmIdleTimeOut(port);
        return state;
      }
      if (event == evTimeOut || event == evFrameDone) return ReplyWait(port, event, state == macTurnReplyWait);
      return state;

    case macLineFree:
      if (event == evNothing || event == evTimeOut) {
        if (port->bRequestPending == 0) FetchNextRequest(port);
        if (port->bRequestPending == 1) {
          if (rx.nMonitorLen != 0) Monitor(port);
          return ActK(port);
        }
        fncPassReceivePendingQueue();
        if (event == evTimeOut) TimeOutNotice(port);
        return state;
      }
      if (event == evFrameDone) return HeardWhileIdle(port, StayFree);
      return state;

    case macHoldOff:
      if (event == evTimeOut) return AfterTimeOut(port, ActN);
      if (event == evFrameDone) return HeardWhileIdle(port, ActN);
      if (event == evBytesRead && rx.nRxState >= 2) ArmIdleTimeOut(port);
      return state;

    case macBurstGap:
      if (event == evTimeOut) {
        TimeOutNotice(port);
        return ActH(port);
      }
      return state;

    default:
      return state;
  }
}

}  // namespace

void MacEvent(tagCOMPORTINFO *pPort, unsigned int nEvent) {
  const unsigned int state = pPort->nMacState.load();
  const unsigned int next = Step(pPort, state, nEvent);
  pPort->nMacState = next;
}

void ArmIdleTimeOut(tagCOMPORTINFO *pPort) {
  unsigned int code = TO_IDLE_SECONDARY;
  if (pPort->bLongPreambleFix.load() != 0) code = TO_IDLE_FIXED;
  else if (pPort->bPrimaryMaster.load() != 0) code = TO_IDLE_PRIMARY;
  toSetTimeOutSys(pPort->pTimer, code);
}

void OnTransmitStart(tagCOMPORTINFO *pPort) {
  Mark(pPort, "Tstr");
  NotifyAppLinkEvent(pPort, 1);
}

void OnTransmitEnd(tagCOMPORTINFO *pPort) {
  Mark(pPort, "Tend");
  NotifyLLmonitorTransmit(AsArg(pPort));
  NotifyAppLinkEvent(pPort, 2);
}

void OnReceiveStart(tagCOMPORTINFO *pPort, unsigned int nBytes) {
  if (TraceStates(pPort)) {
    // Bytes that came in one chunk started earlier than now, about 10 ms each at 1200 baud.
    if (nBytes > 1) {
      const unsigned int earlier = (nBytes - 1) * 10;
      pPort->tTraceBase += earlier;
      TraceState(pPort, "Rstr");
      pPort->tTraceBase = platform::NowMs() - earlier;
    } else {
      TraceState(pPort, "Rstr");
    }
  }
  NotifyAppLinkEvent(pPort, 3);
}

void DropAbandonedRequest(tagCOMPORTINFO *pPort) {
  typQueueElement *active = pPort->pActiveElement;
  if (!active || active->nServiceHandle == kNone || !ValidService(active->nServiceHandle)) return;
  tagSERVICEINFO &service = ServiceTable[active->nServiceHandle];
  const unsigned int state = service.nServiceState.load();
  if (state != 0 && state != 4) return;
  fncDestroyQueueElement(active);
  pPort->pActiveElement = nullptr;
  pPort->bRequestPending = 0;
  // Its owner has gone, so nobody can free the row otherwise.
  if (state == 4) service.nServiceState = 0;
}

}  // namespace velmora
