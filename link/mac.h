// The medium access state machine of a port: when this master may send on a line shared with a
// second master and burst devices.
//
// States: 0 init; 1 wait for quiet; 2 another master's request heard, wait for its reply;
// 3 that reply running; 4 the other exchange is over, short gap before our turn; 5 our request
// (sent in turn) awaits its reply; 6 line free; 7 our request (sent on the free line) awaits
// its reply; 8 hold-off after our exchange; 10 gap after a burst frame to the other master.
#ifndef VELMORA_LINK_MAC_H
#define VELMORA_LINK_MAC_H

#include "velmora.h"

namespace velmora {

enum MacState : unsigned int {
  macInit = 0,
  macWaitQuiet = 1,
  macPeerRequestHeard = 2,
  macPeerReplyRunning = 3,
  macOwnTurnGap = 4,
  macTurnReplyWait = 5,
  macLineFree = 6,
  macFreeReplyWait = 7,
  macHoldOff = 8,
  macBurstGap = 10,
};

enum MacEventCode : unsigned int {
  evNothing = 0,
  evTimeOut = 1,
  evFirstByte = 2,
  evFrameDone = 3,
  evBytesRead = 6,
};

// Message types of a received frame.
constexpr unsigned int kMsgRequestOpen = 1;
constexpr unsigned int kMsgPrimaryRequest = 2;
constexpr unsigned int kMsgSecondaryRequest = 3;
constexpr unsigned int kMsgResponseOwn = 4;
constexpr unsigned int kMsgBurstOwn = 5;
constexpr unsigned int kMsgResponseOther = 6;
constexpr unsigned int kMsgBurstOther = 7;
constexpr unsigned int kMsgBad = 8;
constexpr unsigned int kMsgResponseOpen = 9;

void MacEvent(tagCOMPORTINFO *pPort, unsigned int nEvent);
void ArmIdleTimeOut(tagCOMPORTINFO *pPort);
void OnTransmitStart(tagCOMPORTINFO *pPort);
void OnTransmitEnd(tagCOMPORTINFO *pPort);
void OnReceiveStart(tagCOMPORTINFO *pPort, unsigned int nBytes);
void DropAbandonedRequest(tagCOMPORTINFO *pPort);

}  // namespace velmora

#endif
