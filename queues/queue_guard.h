// Real locks behind the bLocked words of the driver's queues.
//
// Application threads take a queue's guard and then set bLocked; the worker thread only ever
// tries the guard and treats a queue it cannot take, or whose bLocked is set, as locked. So the
// worker never waits for an application, and a client that sets bLocked through a table pointer
// still holds the worker off.
#ifndef VELMORA_QUEUES_QUEUE_GUARD_H
#define VELMORA_QUEUES_QUEUE_GUARD_H

#include <atomic>
#include <cstdint>

#include "velmora.h"

namespace velmora {

class QueueGuard {
 public:
  // Waits while another thread holds the guard. A thread that holds it already keeps it: there
  // is no counting, so the first Release frees it, as with the plain word.
  void Acquire();
  bool TryAcquire();
  void Release();

 private:
  std::atomic<uint32_t> held_{0};
  std::atomic<std::uintptr_t> owner_{0};
  // Threads waiting in Acquire. A release takes the mutex only when there are some, so the
  // worker's give-back stays a pair of stores in the common case.
  std::atomic<uint32_t> waiters_{0};
};

// The guard of a table queue; null for a queue the client made itself.
QueueGuard *GuardOf(const typQueue *queue);

// Application side: take the guard, then set bLocked; clear bLocked, then release.
void LockQueue(typQueue *queue);
void UnlockQueue(typQueue *queue);

// Worker side: true if the queue was free and is now held; false if locked either way.
[[nodiscard]] bool TryTakeQueue(typQueue *queue);
void GiveQueue(typQueue *queue);
// Worker side: true if the queue holds elements, or is locked so that it can't be looked at.
bool QueueHoldsWork(typQueue *queue);

}  // namespace velmora

#endif
