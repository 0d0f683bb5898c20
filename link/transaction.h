// The life of one request between the transmit queue and the application's receive queue:
// fetch, hand-over, judgement of the reply (deliver, retry, repeat on busy, give up), and the
// distribution of burst frames. Runs on the port's worker thread only.
#ifndef VELMORA_LINK_TRANSACTION_H
#define VELMORA_LINK_TRANSACTION_H

#include "velmora.h"

namespace velmora {

// Response codes acted on (first data byte of a response).
constexpr unsigned char kResponseBusy = 32;
constexpr unsigned char kResponseCommError = 128;  // this and above
constexpr unsigned char kCommandExemptFromRepeat = 39;
constexpr unsigned char kBurstBit = 0x40;  // in the address byte of a received frame

// Monitor event codes of a transaction.
constexpr unsigned int kMonitorTimeOut = 1;
constexpr unsigned int kMonitorCommError = 2;
constexpr unsigned int kMonitorFinalTimeOut = 3;

void FetchNextRequest(tagCOMPORTINFO *pPort);
void StartTransmission(tagCOMPORTINFO *pPort);
// bResponse: 1 if the frame on hand is a response (message type 4 or 6).
void CompleteTransaction(tagCOMPORTINFO *pPort, unsigned int bResponse);
void CountRetry(tagCOMPORTINFO *pPort);
// A try of the request in service that brought no reply: counted while tries are left, else the
// request fails and its application gets the failure notice.
void RetryOrGiveUp(tagCOMPORTINFO *pPort);
// Ends the request in service and every queued one with a failure notice, as on a line that has
// gone. False if the transmit queue was held by another thread: some may be left for a later try.
bool FailAllRequests(tagCOMPORTINFO *pPort);
// Lays a frame in the port's transmit buffer for the worker to send: 1 taken, 0 the port is
// still sending or awaiting an answer (the frame is dropped), -1 a frame over the buffer.
unsigned int HandOverFrame(tagCOMPORTINFO *pPort, const unsigned char *pFrame, unsigned int nLength);
void DistributeBurstFrame(tagCOMPORTINFO *pPort);
void ResetRxFrame(tagCOMPORTINFO *pPort);

// True when a request frame's command is exempt from repeat on busy.
bool ExemptFromRepeat(const unsigned char *frame, unsigned int length);

}  // namespace velmora

#endif
