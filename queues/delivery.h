// Delivery of results to applications: posted notices, receive queues and the pending queue.
#ifndef VELMORA_QUEUES_DELIVERY_H
#define VELMORA_QUEUES_DELIVERY_H

#include "velmora.h"

namespace velmora {

// Link events to the application whose request is in service: 1 transmission starts,
// 2 transmission ended, 3 reception starts, 4 reception ended.
void NotifyAppLinkEvent(tagCOMPORTINFO *pPort, unsigned int nEvent);
// Posts a link event to every application registered on the port (a line that went away).
void NotifyPortLinkEvent(tagCOMPORTINFO *pPort, unsigned int nEvent);

// Stores a copy of the element in the pending queue without waiting: if another thread holds
// the queue, the copy waits in an inbox that the next holder empties into the queue.
void AppendPending(typQueueElement *pElement);

// Application side of the pending queue: take it (with whatever waits in the inbox) and set
// its bLocked; then clear and release.
void LockPendingQueue();
void UnlockPendingQueue();

// The reply word of a result: length in bits 31..16, status bytes in 15..0.
unsigned int ReplyWord(unsigned int bGood, const typQueueElement &element, unsigned int bBurstBit);

}  // namespace velmora

#endif
