// Queue elements and queues: each element owns a private copy of its bytes, each queue owns its
// elements. Invariants between operations: nCount is 0 exactly when pHead is null; pTail is
// null while fewer than two elements are held and never equals pHead; following pNext from
// pHead meets nCount elements; nCount stays below nMaxCount (1000), so at most 999 are held.
#include <cstdlib>
#include <cstring>

#include "tables/tables.h"

using namespace velmora;

namespace {

// An element's own block: its handle is its address, which is what the read check tests.
bool LooksLikeElement(const typQueueElement *element) {
  return element != nullptr && element->hSelf == static_cast<const void *>(element);
}

void FreeData(typQueueElement *element) {
  if (element->hData) std::free(element->hData);
  element->hData = nullptr;
  element->pData = nullptr;
  element->nDataLen = 0;
}

}  // namespace

extern "C" {

typQueueElement *fncCreateQueueElement(void) noexcept {
  auto *element = static_cast<typQueueElement *>(std::malloc(sizeof(typQueueElement)));
  if (!element) return nullptr;
  element->hSelf = element;
  fncInitQueueElement(element);
  return element;
}

unsigned int fncInitQueueElement(typQueueElement *pElement) noexcept {
  if (!pElement) return 0;
  HANDLE self = pElement->hSelf;
  std::memset(static_cast<void *>(pElement), 0, sizeof *pElement);
  pElement->hSelf = self;
  return 1;
}

unsigned int fncDestroyQueueElement(typQueueElement *pElement) noexcept {
  if (!pElement) return 0;
  if (pElement->hData) std::free(pElement->hData);
  if (!pElement->hSelf) return 0;
  std::free(pElement->hSelf);
  return 1;
}

unsigned int fncSetQueueElementData(typQueueElement *pElement, unsigned char *pData,
                                    unsigned int nLength) noexcept {
  if (!pElement) return 0;
  FreeData(pElement);
  if (!pData || nLength == 0) return 0;
  auto *block = static_cast<unsigned char *>(std::malloc(nLength));
  if (!block) return 0;
  std::memcpy(block, pData, nLength);
  pElement->hData = block;
  pElement->pData = block;
  pElement->nDataLen = nLength;
  return 1;
}

unsigned int fncGetQueueElementData(typQueueElement *pElement, unsigned char *pBuffer,
                                    unsigned int *pnLength) noexcept {
  if (!pElement || !pnLength) return 0;
  if (pElement->nDataLen == 0 || !pElement->pData || !pBuffer) {
    *pnLength = 0;
    return 0;
  }
  std::memcpy(pBuffer, pElement->pData, pElement->nDataLen);
  *pnLength = pElement->nDataLen;
  return 1;
}

unsigned int fncGetQueueElementHartData(typQueueElement *pElement, unsigned char *pBuffer,
                                        unsigned int *pnLength) noexcept {
  if (!pElement || !pnLength) return 0;
  if (pElement->nDataLen < 3 || !pElement->pData || !pBuffer) {
    *pnLength = 0;
    return 0;
  }
  std::memcpy(pBuffer, pElement->pData + 2, pElement->nDataLen - 2);
  *pnLength = pElement->nDataLen - 2;
  return 1;
}

unsigned int fncCopyQueueElement(typQueueElement *pDest, typQueueElement *pSource) noexcept {
  if (!pDest || !pSource) return 0;
  if (pDest == pSource) return 1;
  // A failed copy of the data is not reported: the destination then holds none.
  if (pSource->pData && pSource->nDataLen) fncSetQueueElementData(pDest, pSource->pData, pSource->nDataLen);
  // The 13 fields from bUnposted to dwReplySpare, in one go.
  auto *dest_first = reinterpret_cast<char *>(&pDest->bUnposted);
  auto *source_first = reinterpret_cast<const char *>(&pSource->bUnposted);
  const size_t span = offsetof(typQueueElement, nDataLen) - offsetof(typQueueElement, bUnposted);
  std::memcpy(dest_first, source_first, span);
  return 1;
}

unsigned int fncInitQueue(typQueue *pQueue) noexcept {
  if (!pQueue) return 0;
  pQueue->pHead = nullptr;
  pQueue->pTail = nullptr;
  pQueue->nCount = 0;
  pQueue->nMaxCount = kQueueMax;
  return 1;
}

unsigned int fncDeleteQueue(typQueue *pQueue) noexcept {
  if (!pQueue) return 0;
  if (pQueue->nCount == 0) {
    fncInitQueue(pQueue);
    return 1;
  }
  if (!LooksLikeElement(pQueue->pHead)) return 0;
  // The walk is bounded by the count, so that a damaged chain with a cycle ends too.
  typQueueElement *element = pQueue->pHead;
  for (unsigned int walked = 0; element && walked <= pQueue->nCount; ++walked) {
    if (!LooksLikeElement(element)) return 0;
    typQueueElement *next = element->pNext;
    fncDestroyQueueElement(element);
    element = next;
  }
  pQueue->nCount = 0;
  fncInitQueue(pQueue);
  return 1;
}

unsigned int fncAppendQueueElement(typQueue *pQueue, typQueueElement *pElement) noexcept {
  if (!pQueue || !pElement) return 0;
  typQueueElement *copy = fncCreateQueueElement();
  unsigned int count = pQueue->nCount + 1;
  if (!copy || count >= pQueue->nMaxCount) {
    if (copy) fncDestroyQueueElement(copy);
    return 0;
  }
  pQueue->nCount = count;
  fncCopyQueueElement(copy, pElement);
  copy->pNext = nullptr;
  if (pQueue->pTail) {
    pQueue->pTail->pNext = copy;
    pQueue->pTail = copy;
  } else if (pQueue->pHead) {
    pQueue->pHead->pNext = copy;
    pQueue->pTail = copy;
  } else {
    pQueue->pHead = copy;
  }
  return 1;
}

unsigned int fncRemoveQueueElement(typQueue *pQueue, typQueueElement *pElement) noexcept {
  if (!pQueue || !pElement || !pQueue->pHead || pQueue->nCount == 0) return 0;
  if (pElement == pQueue->pHead) {
    if (pQueue->nCount == 1) {
      pQueue->pHead = nullptr;
      pQueue->pTail = nullptr;
    } else if (pQueue->nCount == 2) {
      pQueue->pHead = pQueue->pTail;
      pQueue->pTail = nullptr;
      if (pQueue->pHead) pQueue->pHead->pNext = nullptr;
    } else {
      pQueue->pHead = pElement->pNext;
    }
  } else if (pElement == pQueue->pTail) {
    if (pQueue->nCount == 2) {
      pQueue->pTail = nullptr;
      pQueue->pHead->pNext = nullptr;
    } else {
      typQueueElement *before = pQueue->pHead;
      for (unsigned int step = 0; step + 2 < pQueue->nCount && before; ++step) before = before->pNext;
      if (!before) return 0;
      before->pNext = nullptr;
      pQueue->pTail = before;
    }
  } else {
    typQueueElement *trailing = pQueue->pHead;
    typQueueElement *current = trailing->pNext;
    for (unsigned int step = 1; current && current != pElement && step < pQueue->nCount; ++step) {
      trailing = current;
      current = current->pNext;
    }
    if (current != pElement) return 0;
    trailing->pNext = pElement->pNext;
  }
  pQueue->nCount -= 1;
  pElement->pNext = nullptr;
  fncDestroyQueueElement(pElement);
  return 1;
}

unsigned int fncIfLocked(typQueue *pQueue) noexcept { return pQueue ? pQueue->bLocked.load() : 0; }

unsigned int fncInitAllQueues(void) noexcept {
  for (unsigned int i = 0; i < kPortCount; ++i) {
    fncInitQueue(&TransmitQueues[i]);
    ComPortTable[i].pTransmitQueue = nullptr;
  }
  for (typQueue &queue : AppReceiveQueues) fncInitQueue(&queue);
  fncInitQueue(&ReceivePendingQueue);
  return 1;
}

}  // extern "C"
