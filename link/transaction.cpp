// Transactions: what happens to the request in service when the state machine says so.
#include "link/transaction.h"

#include <cstdio>
#include <cstring>

#include "link/frame_builder.h"
#include "link/sim_response.h"
#include "platform/clock.h"
#include "queues/delivery.h"
#include "queues/queue_guard.h"
#include "tables/tables.h"

namespace velmora {
namespace {

void TraceService(tagCOMPORTINFO *port, const char *head, unsigned int service) {
  if (!TraceOn(*port, kTraceService) || !ValidService(service)) return;
  const unsigned int app_id = ServiceTable[service].nAppId.load();
  char line[200];
  std::snprintf(line, sizeof line, "%shServ: %u, AppID: %u,%u", head, service, app_id >> 16, app_id & 0xFFFF);
  addHistServiceDetails(line);
}

// Hands a finished result on, unless its owner has gone: then nobody will fetch it, and the
// result is dropped with its service row freed, rather than posted to a window that may be gone.
void Deliver(tagCOMPORTINFO *port, unsigned int good, typQueueElement *element, unsigned int burst) {
  const unsigned int service = element->nServiceHandle;
  if (ValidService(service) && ServiceTable[service].nServiceState.load() == 4) {
    fncDestroyQueueElement(element);
    ServiceTable[service].nServiceState = 0;
    return;
  }
  fncPassToApplication(port, good, element, 1, static_cast<unsigned short>(burst));
}

void GiveUp(tagCOMPORTINFO *port, unsigned int burst) {
  typQueueElement *element = port->pActiveElement;
  fncSetQueueElementData(element, nullptr, 0);
  port->pActiveElement = nullptr;
  Deliver(port, 0, element, burst);
}

void PostBusyNotice(const typQueueElement &element) {
  if (!ValidApp(element.nAppHandle)) return;
  const tagAPPINFO &app = AppTable[element.nAppHandle];
  PostMessageA(app.hWnd.load(), VELMORA_BUSY_NOTICE, 0, static_cast<LPARAM>(app.nAppKey.load()));
}

}  // namespace

bool ExemptFromRepeat(const unsigned char *frame, unsigned int length) {
  unsigned int i = 0;
  while (i < length && frame[i] == kPreamble) ++i;
  return i < length && length - i > 6 && frame[i + 6] == kCommandExemptFromRepeat;
}

void ResetRxFrame(tagCOMPORTINFO *pPort) {
  typRxFrameStruct &rx = *pPort->pRxFrame;
  rx.bFrameValid = 0;
  rx.nMsgType = 8;
  rx.nPreambleCount = 0;
  rx.nRxState = 1;
  rx.nFrameLen = 0;
  rx.nBytesThisCycle = 0;
}

void CountRetry(tagCOMPORTINFO *pPort) { ++pPort->nRetryCount; }

bool FailAllRequests(tagCOMPORTINFO *pPort) {
  for (;;) {
    if (pPort->pActiveElement) {
      pPort->bRequestPending = 0;
      GiveUp(pPort, 0);
    }
    FetchNextRequest(pPort);
    if (!pPort->pActiveElement) return !QueueHoldsWork(pPort->pTransmitQueue);
  }
}

void RetryOrGiveUp(tagCOMPORTINFO *pPort) {
  if (!pPort->pActiveElement) return;
  if (pPort->nRetryCount < pPort->nRetries.load()) {
    CountRetry(pPort);
    return;
  }
  pPort->bRequestPending = 0;
  GiveUp(pPort, 0);
}

unsigned int HandOverFrame(tagCOMPORTINFO *pPort, const unsigned char *pFrame, unsigned int nLength) {
  if (nLength > kMaxFrame || (!pFrame && nLength)) return kNone;
  if (pPort->nTxRequest.load() != 0) return 0;
  if (nLength) std::memcpy(pPort->abTxFrame, pFrame, nLength);
  pPort->nTxFrameLen = nLength;
  pPort->nTxRequest = 1;
  return 1;
}

void FetchNextRequest(tagCOMPORTINFO *pPort) {
  // A request already in hand (its fetch raced a clearing) goes on before any new one.
  if (pPort->pActiveElement) {
    pPort->bRequestPending = 1;
    return;
  }
  pPort->bRequestPending = 0;
  typQueue *queue = pPort->pTransmitQueue;
  if (!queue || !TryTakeQueue(queue)) return;
  typQueueElement *head = queue->nCount ? queue->pHead : nullptr;
  typQueueElement *active = head ? fncCreateQueueElement() : nullptr;
  if (active) {
    fncCopyQueueElement(active, head);
    // Without memory for the frame the head stays on the queue for a later try.
    if (head->nDataLen != 0 && active->nDataLen == 0) {
      fncDestroyQueueElement(active);
      active = nullptr;
    } else {
      fncRemoveQueueElement(queue, head);
    }
  }
  GiveQueue(queue);
  if (!active) return;
  pPort->pActiveElement = active;
  pPort->nRetryCount = 0;
  pPort->bRequestPending = 1;
}

void StartTransmission(tagCOMPORTINFO *pPort) {
  typQueueElement *active = pPort->pActiveElement;
  if (!active) {
    pPort->bRequestPending = 0;
    return;
  }
  if (pPort->pRxFrame->nMonitorLen != 0) NotifyLLmonitor(reinterpret_cast<char *>(pPort));
  pPort->tFrameStart = platform::NowMs();
  pPort->nSimResponseLen = 0;
  if (VelmoraSimResponseFn hook = SimResponseHook()) {
    unsigned int length = 0;
    hook(active->pData, active->nDataLen, pPort->abSimResponse, &length);
    pPort->nSimResponseLen = length > sizeof pPort->abSimResponse ? sizeof pPort->abSimResponse : length;
  }
  HandOverFrame(pPort, active->pData, active->nDataLen);
  TraceService(pPort, "", active->nServiceHandle);
  ResetRxFrame(pPort);
}

void CompleteTransaction(tagCOMPORTINFO *pPort, unsigned int bResponse) {
  typRxFrameStruct &rx = *pPort->pRxFrame;
  typQueueElement *active = pPort->pActiveElement;
  if (!(bResponse && rx.bFrameValid)) {
    if (active) {
      if (pPort->nRetryCount < pPort->nRetries.load()) {
        NotifyLLmonitorTimeOut(reinterpret_cast<char *>(pPort), kMonitorTimeOut);
        CountRetry(pPort);
      } else {
        NotifyLLmonitorTimeOut(reinterpret_cast<char *>(pPort), kMonitorFinalTimeOut);
        pPort->bRequestPending = 0;
        GiveUp(pPort, 0);
      }
    }
    ResetRxFrame(pPort);
    return;
  }

  unsigned char data[256];
  unsigned int data_len = 0;
  unsigned int command = 0;
  ExtractReplyData(rx.nFrameLen + 1u, rx.abFrame, &data_len, data, &command);
  pPort->bRequestPending = 0;
  if (!active) {
    ResetRxFrame(pPort);
    return;
  }
  active->nReplyCommand = command;
  const unsigned int burst = (rx.abFrame[1] & kBurstBit) ? 1 : 0;

  // A reply without both status bytes can't be judged, so it counts as a communication error.
  if (data_len < 2 || data[0] >= kResponseCommError) {
    if (pPort->nRetryCount < pPort->nRetries.load()) {
      pPort->bRequestPending = 1;
      CountRetry(pPort);
      NotifyLLmonitorTimeOut(reinterpret_cast<char *>(pPort), kMonitorCommError);
    } else {
      GiveUp(pPort, burst);
    }
    return;
  }

  // Keep the request frame: a busy reply may send it out again.
  unsigned char request[kMaxFrame];
  const unsigned int request_len = active->nDataLen <= kMaxFrame ? active->nDataLen : 0;
  if (request_len) std::memcpy(request, active->pData, request_len);
  fncSetQueueElementData(active, data, data_len);

  const bool repeat = ValidApp(active->nAppHandle) && AppTable[active->nAppHandle].bRepeatIfBusy.load() != 0 &&
                      active->nDataLen >= 2 &&
                      active->pData[0] == kResponseBusy && request_len != 0 &&
                      !ExemptFromRepeat(request, request_len);
  if (repeat) {
    pPort->bRequestPending = 1;
    fncSetQueueElementData(active, request, request_len);
    PostBusyNotice(*active);
  } else {
    pPort->pActiveElement = nullptr;
    Deliver(pPort, 1, active, burst);
  }
  ResetRxFrame(pPort);
}

void DistributeBurstFrame(tagCOMPORTINFO *pPort) {
  typRxFrameStruct &rx = *pPort->pRxFrame;
  unsigned char data[256];
  unsigned int data_len = 0;
  unsigned int command = 0;
  ExtractReplyData(rx.nFrameLen + 1u, rx.abFrame, &data_len, data, &command);
  for (unsigned int row = 0; row < kAppCount; ++row) {
    if (AppTable[row].nBurstAppKey.load() == 0 || AppTable[row].bInUse.load() == 0) continue;
    typQueueElement *element = fncCreateQueueElement();
    if (!element) continue;
    fncSetQueueElementData(element, data, data_len);
    element->nAppHandle = row;
    element->nServiceHandle = kBurstService;
    element->nReplyCommand = command;
    fncPassToApplication(pPort, 1, element, 1, 1);
  }
  pPort->bBurstSeen = 1;
}

}  // namespace velmora
