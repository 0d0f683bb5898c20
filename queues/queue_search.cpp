// Searches of the table queues by service and by application. They take no lock: a caller that
// needs the queue kept still locks it first, as HART_ReceiveRequest does.
#include "tables/tables.h"

using namespace velmora;

namespace {

// The first element whose field equals value; the walk is bounded by the count.
typQueueElement *FindIn(const typQueue &queue, unsigned int typQueueElement::*field, unsigned int value) {
  if (queue.nCount == 0) return nullptr;
  typQueueElement *element = queue.pHead;
  for (unsigned int walked = 0; element && walked < queue.nCount; ++walked, element = element->pNext)
    if (element->*field == value) return element;
  return nullptr;
}

}  // namespace

extern "C" {

typQueueElement *fncFindTransmitService(unsigned int hApp, unsigned int hServ) noexcept {
  if (!ValidApp(hApp)) return nullptr;
  const unsigned int driver = AppTable[hApp].nDriverId.load();
  if (!ValidDriver(driver)) return nullptr;
  return FindIn(TransmitQueues[driver], &typQueueElement::nServiceHandle, hServ);
}

typQueueElement *fncFindReceiveService(unsigned int hApp, unsigned int hServ) noexcept {
  if (!ValidApp(hApp)) return nullptr;
  return FindIn(AppReceiveQueues[hApp], &typQueueElement::nServiceHandle, hServ);
}

typQueueElement *fncFindTransmitApplication(unsigned int nDriverId, unsigned int hApp) noexcept {
  if (!ValidDriver(nDriverId)) return nullptr;
  return FindIn(TransmitQueues[nDriverId], &typQueueElement::nAppHandle, hApp);
}

typQueueElement *fncFindReceiveApplication(unsigned int hAppQueue, unsigned int hApp) noexcept {
  if (!ValidApp(hAppQueue)) return nullptr;
  return FindIn(AppReceiveQueues[hAppQueue], &typQueueElement::nAppHandle, hApp);
}

typQueueElement *fncAppQueueExists(unsigned int hApp) noexcept {
  if (!ValidApp(hApp)) return nullptr;
  const typQueue &queue = AppReceiveQueues[hApp];
  return queue.nCount != 0 ? queue.pHead : nullptr;
}

}  // extern "C"
