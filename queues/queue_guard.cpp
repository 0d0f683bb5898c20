// Queue guards, one per table queue, found by the queue's address.
#include "queues/queue_guard.h"

#include <condition_variable>
#include <mutex>

#include "tables/port_wake.h"
#include "tables/tables.h"

namespace velmora {
namespace {

constinit QueueGuard g_transmit_guards[kPortCount];
constinit QueueGuard g_receive_guards[kAppCount];
constinit QueueGuard g_pending_guard;

// Where application threads wait for a guard: one mutex and condition for all guards, since
// waits are rare and short. The waits do not use std::atomic::wait: some standard libraries
// (MinGW's among them) lose its wake-ups, and a client would then wait for ever on a free queue.
struct Parking {
  std::mutex mutex;
  std::condition_variable released;
};

Parking &Park() {
  static Parking parking;
  return parking;
}

std::uintptr_t ThisThreadTag() {
  static thread_local char tag;
  return reinterpret_cast<std::uintptr_t>(&tag);
}

}  // namespace

void QueueGuard::Acquire() {
  const std::uintptr_t me = ThisThreadTag();
  if (owner_.load(std::memory_order_acquire) == me) return;
  for (;;) {
    uint32_t expected = 0;
    if (held_.compare_exchange_weak(expected, 1, std::memory_order_acquire)) {
      owner_.store(me, std::memory_order_release);
      return;
    }
    Parking &park = Park();
    std::unique_lock<std::mutex> lock(park.mutex);
    // Counted before the look at held_, and Release looks at the count after freeing it (both
    // sequentially consistent): either this thread sees the guard free or the release wakes it.
    waiters_.fetch_add(1);
    park.released.wait(lock, [this] { return held_.load() == 0; });
    waiters_.fetch_sub(1);
  }
}

bool QueueGuard::TryAcquire() {
  uint32_t expected = 0;
  if (!held_.compare_exchange_strong(expected, 1, std::memory_order_acquire)) return false;
  owner_.store(ThisThreadTag(), std::memory_order_release);
  return true;
}

void QueueGuard::Release() {
  owner_.store(0, std::memory_order_release);
  held_.store(0);
  if (waiters_.load() == 0) return;
  Parking &park = Park();
  // Under the mutex: a waiter between its look at held_ and its sleep cannot miss this.
  std::lock_guard<std::mutex> lock(park.mutex);
  park.released.notify_all();
}

QueueGuard *GuardOf(const typQueue *queue) {
  if (queue >= &TransmitQueues[0] && queue < &TransmitQueues[kPortCount])
    return &g_transmit_guards[queue - &TransmitQueues[0]];
  if (queue >= &AppReceiveQueues[0] && queue < &AppReceiveQueues[kAppCount])
    return &g_receive_guards[queue - &AppReceiveQueues[0]];
  if (queue == &ReceivePendingQueue) return &g_pending_guard;
  return nullptr;
}

void LockQueue(typQueue *queue) {
  if (!queue) return;
  if (QueueGuard *guard = GuardOf(queue)) guard->Acquire();
  queue->bLocked = 1;
}

void UnlockQueue(typQueue *queue) {
  if (!queue) return;
  queue->bLocked = 0;
  if (QueueGuard *guard = GuardOf(queue)) guard->Release();
  // The port's worker may have a request to fetch now, or one it failed to fetch while locked.
  if (queue >= &TransmitQueues[0] && queue < &TransmitQueues[kPortCount])
    WakePort(static_cast<unsigned int>(queue - &TransmitQueues[0]));
}

bool TryTakeQueue(typQueue *queue) {
  if (queue->bLocked.load() != 0) return false;
  QueueGuard *guard = GuardOf(queue);
  if (guard && !guard->TryAcquire()) return false;
  // A client may have set the word between the test and the take.
  if (queue->bLocked.load() != 0) {
    if (guard) guard->Release();
    return false;
  }
  return true;
}

void GiveQueue(typQueue *queue) {
  if (QueueGuard *guard = GuardOf(queue)) guard->Release();
}

bool QueueHoldsWork(typQueue *queue) {
  if (!TryTakeQueue(queue)) return true;
  const bool holds = queue->nCount != 0;
  GiveQueue(queue);
  return holds;
}

}  // namespace velmora
