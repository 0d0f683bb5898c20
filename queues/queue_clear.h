// Clearing beyond the exported calls.
#ifndef VELMORA_QUEUES_QUEUE_CLEAR_H
#define VELMORA_QUEUES_QUEUE_CLEAR_H

namespace velmora {

// Removes the port's queued requests whose owner has unregistered, and frees their service rows:
// with the port closed, nobody else would.
void DropAbandonedRequests(unsigned int nDriverId);

}  // namespace velmora

#endif
