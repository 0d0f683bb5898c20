// Clearing the queues of an application, of a port, or of burst frames. Each queue is locked in
// turn, never two at once. The element in service belongs to the port's worker: while it runs,
// what is to be done to that element is handed to it instead of done under its feet.
#include "queues/queue_clear.h"

#include "queues/delivery.h"
#include "queues/queue_guard.h"
#include "queues/worker_orders.h"
#include "tables/port_wake.h"
#include "tables/tables.h"

using namespace velmora;

namespace {

// Removes every element for which pred holds; each element's successor is taken first.
template <typename Pred>
void RemoveWhere(typQueue &queue, Pred pred) {
  typQueueElement *element = queue.nCount ? queue.pHead : nullptr;
  while (element) {
    typQueueElement *next = element->pNext;
    if (pred(*element)) fncRemoveQueueElement(&queue, element);
    element = next;
  }
}

template <typename Pred>
unsigned int CountWhere(const typQueue &queue, Pred pred) {
  unsigned int count = 0;
  const typQueueElement *element = queue.nCount ? queue.pHead : nullptr;
  for (unsigned int walked = 0; element && walked < queue.nCount; ++walked, element = element->pNext)
    if (pred(*element)) ++count;
  return count;
}

// A row whose owner has gone is freed with its element: nobody else could free it.
void FreeAbandonedRow(const typQueueElement &element) {
  if (!ValidService(element.nServiceHandle)) return;
  unsigned int abandoned = 4;
  ServiceTable[element.nServiceHandle].nServiceState.compare_exchange_strong(abandoned, 0);
}

// The row of a result its application has cleared away: nothing is left to fetch under it.
void FreeResultRow(const typQueueElement &element, unsigned int hApp) {
  if (!ValidService(element.nServiceHandle)) return;
  tagSERVICEINFO &service = ServiceTable[element.nServiceHandle];
  if (service.nAppHandle.load() == hApp) service.nServiceState = 0;
  else FreeAbandonedRow(element);
}

bool IsBurst(const typQueueElement &element) { return element.nServiceHandle == kBurstService; }

bool WorkerRuns(unsigned int driver) { return ComPortTable[driver].bThreadRun.load() != 0; }

}  // namespace

void velmora::DropAbandonedRequests(unsigned int nDriverId) {
  if (!ValidDriver(nDriverId)) return;
  typQueue &transmit = TransmitQueues[nDriverId];
  LockQueue(&transmit);
  RemoveWhere(transmit, [](const typQueueElement &element) {
    if (!ValidService(element.nServiceHandle)) return false;
    unsigned int abandoned = 4;
    return ServiceTable[element.nServiceHandle].nServiceState.compare_exchange_strong(abandoned, 0);
  });
  UnlockQueue(&transmit);
}

WorkerOrders &velmora::OrdersOf(unsigned int nDriverId) {
  static WorkerOrders orders[kPortCount];
  return orders[nDriverId < kPortCount ? nDriverId : 0];
}

namespace {

}  // namespace

extern "C" {

unsigned int fncClearAllQueues(void) noexcept {
  for (unsigned int driver = 0; driver < kPortCount; ++driver) {
    LockQueue(&TransmitQueues[driver]);
    fncDeleteQueue(&TransmitQueues[driver]);
    UnlockQueue(&TransmitQueues[driver]);
    tagCOMPORTINFO &port = ComPortTable[driver];
    if (WorkerRuns(driver)) {
      OrdersOf(driver).drop_active = true;
      WakePort(driver);
    } else if (port.pActiveElement) {
      fncDestroyQueueElement(port.pActiveElement);
      port.pActiveElement = nullptr;
    }
  }
  for (typQueue &queue : AppReceiveQueues) {
    LockQueue(&queue);
    fncDeleteQueue(&queue);
    UnlockQueue(&queue);
  }
  LockPendingQueue();
  fncDeleteQueue(&ReceivePendingQueue);
  UnlockPendingQueue();
  return 1;
}

unsigned int fncClearQueuesOfApp(unsigned int nDriverId, unsigned int hApp) noexcept {
  if (ValidDriver(nDriverId)) {
    typQueue &transmit = TransmitQueues[nDriverId];
    LockQueue(&transmit);
    RemoveWhere(transmit, [&](const typQueueElement &element) {
      if (element.nAppHandle != hApp) return false;
      if (ValidService(element.nServiceHandle)) ServiceTable[element.nServiceHandle].nServiceState = 0;
      return true;
    });
    UnlockQueue(&transmit);
  }
  if (ValidApp(hApp)) {
    typQueue &receive = AppReceiveQueues[hApp];
    LockQueue(&receive);
    RemoveWhere(receive, [&](const typQueueElement &element) {
      FreeResultRow(element, hApp);
      return true;
    });
    UnlockQueue(&receive);
  }
  LockPendingQueue();
  RemoveWhere(ReceivePendingQueue, [&](const typQueueElement &element) {
    if (element.nAppHandle != hApp) return false;
    FreeResultRow(element, hApp);
    return true;
  });
  UnlockPendingQueue();
  return 1;
}

unsigned int fncClearQueuesOfCom(unsigned int nDriverId) noexcept {
  if (!ValidDriver(nDriverId)) return 1;
  typQueue &transmit = TransmitQueues[nDriverId];
  LockQueue(&transmit);
  fncDeleteQueue(&transmit);
  tagCOMPORTINFO &port = ComPortTable[nDriverId];
  if (WorkerRuns(nDriverId)) OrdersOf(nDriverId).mark_active_cleared = true;
  else if (port.pActiveElement) port.pActiveElement->nClearMark = kBurstService;
  UnlockQueue(&transmit);
  LockPendingQueue();
  RemoveWhere(ReceivePendingQueue,
              [&](const typQueueElement &element) { return element.nDriverId == nDriverId; });
  UnlockPendingQueue();
  return 1;
}

unsigned int fncClearBurstQueue(unsigned int hApp) noexcept {
  if (ValidApp(hApp)) {
    typQueue &receive = AppReceiveQueues[hApp];
    LockQueue(&receive);
    RemoveWhere(receive, IsBurst);
    UnlockQueue(&receive);
  }
  LockPendingQueue();
  RemoveWhere(ReceivePendingQueue, IsBurst);
  UnlockPendingQueue();
  return 1;
}

unsigned int fncGetBurstCount(unsigned int hApp) noexcept {
  unsigned int count = 0;
  if (ValidApp(hApp)) {
    typQueue &receive = AppReceiveQueues[hApp];
    LockQueue(&receive);
    count += CountWhere(receive, IsBurst);
    UnlockQueue(&receive);
  }
  LockPendingQueue();
  count += CountWhere(ReceivePendingQueue, IsBurst);
  UnlockPendingQueue();
  return count;
}

}  // extern "C"
