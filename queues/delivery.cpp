// Results go to applications as a notice plus an element in their receive queue. The element is
// in the queue before the notice can be seen; a post that fails leaves it there unposted, and a
// queue that is locked parks it in the pending queue, which every pass tries again. The worker never waits:
// it only tries the guards of the queues it touches.
#include "queues/delivery.h"

#include <atomic>
#include <cstdio>

#include "queues/queue_guard.h"
#include "tables/tables.h"

namespace velmora {
namespace {

// Copies that could not enter the pending queue at once, newest first.
std::atomic<typQueueElement *> g_pending_inbox{nullptr};

void PushInbox(typQueueElement *copy) {
  typQueueElement *head = g_pending_inbox.load(std::memory_order_relaxed);
  do {
    copy->pNext = head;
  } while (!g_pending_inbox.compare_exchange_weak(head, copy, std::memory_order_release,
                                                  std::memory_order_relaxed));
}

// With the pending queue held: move the inbox into it, oldest first.
void DrainInboxHeld() {
  typQueueElement *list = g_pending_inbox.exchange(nullptr, std::memory_order_acquire);
  typQueueElement *oldest_first = nullptr;
  while (list) {
    typQueueElement *next = list->pNext;
    list->pNext = oldest_first;
    oldest_first = list;
    list = next;
  }
  while (oldest_first) {
    typQueueElement *next = oldest_first->pNext;
    oldest_first->pNext = nullptr;
    fncAppendQueueElement(&ReceivePendingQueue, oldest_first);
    fncDestroyQueueElement(oldest_first);
    oldest_first = next;
  }
}

typQueueElement *LastOf(typQueue &queue) { return queue.pTail ? queue.pTail : queue.pHead; }

BOOL PostStored(const typQueueElement &element) {
  return PostMessageA(element.hPostWnd, element.nPostMsg, element.wParam, static_cast<LPARAM>(element.lParam));
}


void TraceDelivery(tagCOMPORTINFO *port, const typQueueElement &element) {
  if (!port || !TraceOn(*port, kTraceService) || !ValidService(element.nServiceHandle)) return;
  const unsigned int app_id = ServiceTable[element.nServiceHandle].nAppId.load();
  char line[200];
  std::snprintf(line, sizeof line, "LckPTA/RCVq, hServ: %u, AppID: %u,%u", element.nServiceHandle, app_id >> 16,
                app_id & 0xFFFF);
  addHistServiceDetails(line);
}

// A result nobody will fetch: a request whose owner has unregistered (its row is freed here), or
// a burst frame for a row no longer registered. It is dropped.
bool OwnerGone(const typQueueElement &element) {
  if (element.nServiceHandle == kBurstService) return !AppInUse(element.nAppHandle);
  if (!ValidService(element.nServiceHandle)) return false;
  unsigned int abandoned = 4;
  return ServiceTable[element.nServiceHandle].nServiceState.compare_exchange_strong(abandoned, 0);
}

// With the application's receive queue held: appends the element and posts its notice. A notice
// that cannot be posted (no window, or one destroyed) leaves the element in the queue marked
// unposted, where HART_ReceiveRequest still finds it. False if the queue refused the element.
bool AppendAndPost(typQueue &receive, typQueueElement *element) {
  element->bUnposted = 0;
  if (!fncAppendQueueElement(&receive, element)) return false;
  if (!PostStored(*element)) LastOf(receive)->bUnposted = 1;
  return true;
}

}  // namespace

void AppendPending(typQueueElement *pElement) {
  QueueGuard *guard = GuardOf(&ReceivePendingQueue);
  if (guard->TryAcquire()) {
    DrainInboxHeld();
    fncAppendQueueElement(&ReceivePendingQueue, pElement);
    guard->Release();
    return;
  }
  typQueueElement *copy = fncCreateQueueElement();
  if (!copy) return;  // no memory: the result is lost, as with a full queue
  fncCopyQueueElement(copy, pElement);
  PushInbox(copy);
}

void LockPendingQueue() {
  LockQueue(&ReceivePendingQueue);
  DrainInboxHeld();
}

void UnlockPendingQueue() { UnlockQueue(&ReceivePendingQueue); }

unsigned int ReplyWord(unsigned int bGood, const typQueueElement &element, unsigned int bBurstBit) {
  unsigned int word = 0xFFFF;
  if (bGood && element.nDataLen >= 2 && element.pData)
    word = ((element.nDataLen - 2) << 16) | (static_cast<unsigned int>(element.pData[0]) << 8) | element.pData[1];
  if (bBurstBit) word |= 0x8000000u;
  return word;
}

void NotifyAppLinkEvent(tagCOMPORTINFO *pPort, unsigned int nEvent) {
  const typQueueElement *active = pPort->pActiveElement;
  if (!active || !ValidApp(active->nAppHandle)) return;
  const tagAPPINFO &app = AppTable[active->nAppHandle];
  const unsigned int message = app.nLinkEventMsg.load();
  if (message != 0) PostMessageA(app.hWnd.load(), message, nEvent, 0);
}

void NotifyPortLinkEvent(tagCOMPORTINFO *pPort, unsigned int nEvent) {
  const auto driver = static_cast<unsigned int>(pPort - &ComPortTable[0]);
  for (const tagAPPINFO &app : AppTable) {
    if (app.bInUse.load() == 0 || app.nDriverId.load() != driver) continue;
    const unsigned int message = app.nLinkEventMsg.load();
    if (message != 0) PostMessageA(app.hWnd.load(), message, nEvent, 0);
  }
}

}  // namespace velmora

using namespace velmora;

extern "C" {

unsigned int fncPassToApplication(tagCOMPORTINFO *pPort, unsigned int bGood, typQueueElement *pElement,
                                  unsigned int bFree, unsigned short bBurstBit) noexcept {
  if (!pElement) return 1;
  if (!ValidApp(pElement->nAppHandle)) {
    if (bFree) fncDestroyQueueElement(pElement);
    return 1;
  }
  tagAPPINFO &app = AppTable[pElement->nAppHandle];
  if (bGood && pElement->nDataLen >= 2) app.nReplyCount.fetch_add(1);
  pElement->hPostWnd = app.hWnd.load();
  pElement->nPostMsg = app.nReplyMsg.load();
  pElement->wParam = pElement->nServiceHandle;
  pElement->lParam = pElement->nServiceHandle == kBurstService ? app.nBurstAppKey.load()
                                                              : ReplyWord(bGood, *pElement, bBurstBit);
  typQueue &receive = AppReceiveQueues[pElement->nAppHandle];
  bool delivered = false;
  if (receive.bLocked.load() == 0) {
    // What waits is announced first, so that results reach an application in order.
    fncPassReceivePendingQueue();
    if (TryTakeQueue(&receive)) {
      // Checked again while the queue is held: an owner that unregistered meanwhile has had
      // its queue cleared, and nobody would fetch this result.
      if (OwnerGone(*pElement)) {
        GiveQueue(&receive);
        if (bFree) fncDestroyQueueElement(pElement);
        return 1;
      }
      delivered = AppendAndPost(receive, pElement);
      GiveQueue(&receive);
    }
  }
  TraceDelivery(pPort, *pElement);
  if (!delivered && !OwnerGone(*pElement)) AppendPending(pElement);
  if (bFree) fncDestroyQueueElement(pElement);
  return 1;
}

unsigned int fncPassReceivePendingQueue(void) noexcept {
  typQueue &pending = ReceivePendingQueue;
  if (!TryTakeQueue(&pending)) return 1;
  DrainInboxHeld();
  typQueueElement *element = pending.pHead;
  while (element) {
    typQueueElement *next = element->pNext;
    if (!ValidApp(element->nAppHandle) || OwnerGone(*element)) {
      fncRemoveQueueElement(&pending, element);
    } else {
      typQueue &receive = AppReceiveQueues[element->nAppHandle];
      if (TryTakeQueue(&receive)) {
        // Checked again while the queue is held, as on the way in.
        if (OwnerGone(*element) || AppendAndPost(receive, element)) fncRemoveQueueElement(&pending, element);
        else element->bUnposted = 1;
        GiveQueue(&receive);
      }
    }
    element = next;
  }
  GiveQueue(&pending);
  return 1;
}

void subSendOutstandingMessages(void) noexcept {
  for (unsigned int hApp = 0; hApp < kAppCount; ++hApp) {
    typQueue &receive = AppReceiveQueues[hApp];
    if (!TryTakeQueue(&receive)) continue;
    for (typQueueElement *element = receive.nCount ? receive.pHead : nullptr; element; element = element->pNext) {
      if (!element->bUnposted) continue;
      if (PostStored(*element)) {
        element->bUnposted = 0;
        GiveQueue(&receive);
        return;
      }
    }
    GiveQueue(&receive);
  }
}

}  // extern "C"
