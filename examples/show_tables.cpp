// Shows the driver's tables as the library leaves them after load: what an application finds
// before it registers. Uses only the public header.
#include <cstdio>

#include "velmora.h"

int main() {
  tagCOMPORTINFO *port = GetComPortInfo(0);
  std::printf("Port row 0 after load:\n");
  std::printf("  nDriverId %u, nPreambles %u, bPrimaryMaster %u, nRetries %u, hComPort %s\n",
              port->nDriverId, port->nPreambles.load(), port->bPrimaryMaster.load(), port->nRetries.load(),
              port->hComPort.load() == VELMORA_INVALID_HANDLE ? "-1 (closed)" : "open");
  std::printf("  transmit queue: %u elements, limit %u\n", port->pTransmitQueue->nCount,
              port->pTransmitQueue->nMaxCount);
  std::printf("Application 0: in use %u; GetComPortHandle(-1) is %s\n", GetAppInfo(0)->bInUse.load(),
              GetComPortHandle(VELMORA_NONE) == VELMORA_INVALID_HANDLE ? "-1" : "?");

  // A command 0 request frame as a queue element: 5 preambles, delimiter 2, address 0x80
  // (primary master, polling address 0), command 0, no data, checksum 0x82.
  unsigned char frame[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82};
  typQueueElement *element = fncCreateQueueElement();
  if (!element || !fncSetQueueElementData(element, frame, sizeof frame)) return 1;
  fncAppendQueueElement(port->pTransmitQueue, element);
  fncDestroyQueueElement(element);
  typQueueElement *head = port->pTransmitQueue->pHead;
  std::printf("Command 0 request on the transmit queue (%u element):", port->pTransmitQueue->nCount);
  for (unsigned int i = 0; i < head->nDataLen; ++i) std::printf(" %02X", head->pData[i]);
  std::printf("\n");
  fncDeleteQueue(port->pTransmitQueue);
  return 0;
}
