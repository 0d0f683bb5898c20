// The request interface for ordinary applications: register a window with a port, configure
// it, hand in requests, fetch replies. Everything asynchronous stays behind it.
#include <cstdio>
#include <cstring>

#include "link/frame_builder.h"
#include "queues/queue_guard.h"
#include "tables/tables.h"

using namespace velmora;

namespace {

void TraceRequest(const tagCOMPORTINFO &port, const char *head, unsigned int hServ, unsigned int app_id) {
  if (!TraceOn(port, kTraceService)) return;
  char line[200];
  std::snprintf(line, sizeof line, "%s, hServ: %u, AppID: %u,%u", head, hServ, app_id >> 16, app_id & 0xFFFF);
  addHistServiceDetails(line);
}

unsigned int Clamp(unsigned int value, unsigned int low, unsigned int high) {
  return value < low ? low : value > high ? high : value;
}

}  // namespace

extern "C" {

unsigned int HART_RegisterDriver(tagHARTREGISTRATION *pReg, unsigned int *phApp) noexcept {
  unsigned int scratch = kNone;
  unsigned int *out = phApp ? phApp : &scratch;
  if (!pReg) {
    *out = kNone;
    return 0;
  }
  tagCOMPORTINFO *port = nullptr;
  tagAPPINFO *app = nullptr;
  return RegisterApplication(pReg->nPort, pReg->hWnd, pReg->nBaudCode, pReg->nReplyMsg, pReg->nLinkEventMsg,
                             pReg->nHistoryMsg, pReg->nAppKey, out, &port, &app) != 0
             ? 1
             : 0;
}

unsigned int HART_UnRegisterDriver(unsigned int hApp) noexcept { return UnRegisterApplication(hApp); }

unsigned int HART_SetConfiguration(unsigned int hApp, tagHARTCONFIG *pConfig) noexcept {
  if (!AppInUse(hApp) || !pConfig) return 0;
  tagCOMPORTINFO &port = PortOfApp(hApp);
  port.bPrimaryMaster = pConfig->nMasterType == 1 ? 1 : 0;
  port.nPreambles = Clamp(pConfig->nPreambles, 5, 20);
  port.nRetries = Clamp(pConfig->nRetries, 0, 10);
  port.nBaudCode = pConfig->nBaudCode > 2 ? 0 : pConfig->nBaudCode;
  port.nExtraRtsDelay = pConfig->nExtraRtsDelay;
  SetBaudRate(&port);
  return 1;
}

unsigned int HART_GetConfiguration(unsigned int hApp, tagHARTCONFIG *pConfig) noexcept {
  if (!AppInUse(hApp) || !pConfig) return 0;
  const tagCOMPORTINFO &port = PortOfApp(hApp);
  pConfig->nMasterType = port.bPrimaryMaster.load() != 0 ? 1 : 2;
  pConfig->nPreambles = port.nPreambles.load();
  pConfig->nRetries = port.nRetries.load();
  pConfig->nBaudCode = port.nBaudCode.load();
  pConfig->nExtraRtsDelay = port.nExtraRtsDelay.load();
  return 1;
}

unsigned int HART_SendRequest(unsigned int hApp, tagHARTREQUEST *pRequest, unsigned int nAppId) noexcept {
  if (!AppInUse(hApp) || !pRequest) return kNone;
  tagCOMPORTINFO &port = PortOfApp(hApp);
  // A port that reads closed (closed under the application, or its line gone) serves nobody.
  if (port.hComPort.load() == NoHandle()) return kNone;
  const unsigned int hServ = GetServiceHandle(hApp, nullptr, nullptr, nullptr);
  if (hServ == kNone) return kNone;
  tagSERVICEINFO &service = ServiceTable[hServ];
  LockTransmitQueue(hApp);
  unsigned char frame[kMaxFrame];
  unsigned int length = 0;
  bool queued = false;
  // A request whose frame would pass 256 bytes is refused, and nothing is written.
  if (BuildFrameChecked(port, *pRequest, frame, sizeof frame, &length)) {
    typQueueElement *element = fncCreateQueueElement();
    if (element) {
      element->nAppHandle = hApp;
      element->nServiceHandle = hServ;
      element->nDriverId = port.nDriverId;
      if (fncSetQueueElementData(element, frame, length)) {
        service.nAppId = nAppId;
        service.bRequestSent = 1;
        service.nAppHandle = hApp;
        TraceRequest(port, "remSRQ/TRXq", hServ, nAppId);
        queued = AppendTransmitQueue(hApp, element) != 0;
      }
      fncDestroyQueueElement(element);
    }
  }
  UnLockTransmitQueue(hApp);
  if (!queued) {
    service.nServiceState = 0;
    return kNone;
  }
  return hServ;
}

unsigned int HART_ReceiveRequest(unsigned int hApp, unsigned int hServ, tagHARTREQUEST *pRequest,
                                 unsigned int *pnAppId) noexcept {
  // A burst frame has no service row: it is fetched from the receive queue instead.
  if (!AppInUse(hApp) || !ValidService(hServ) || !pRequest) return 0;
  typQueue &receive = AppReceiveQueues[hApp];
  LockQueue(&receive);
  typQueueElement *element = fncFindReceiveService(hApp, hServ);
  if (!element) {
    UnlockQueue(&receive);
    return 0;
  }
  // The caller's buffer has room for the 253 bytes a reply can carry behind its status; an
  // element a client made itself may hold more, which is cut there.
  unsigned int count = element->nDataLen > 2 && element->pData ? element->nDataLen - 2 : 0;
  if (count > 253) count = 253;
  if (element->nDataLen >= 2 && element->pData) {
    if (count && pRequest->pData) std::memcpy(pRequest->pData, element->pData + 2, count);
    pRequest->nDataCount = pRequest->pData ? count : 0;
    pRequest->nResponseCode = element->pData[0];
    pRequest->nDeviceStatus = element->pData[1];
  } else {
    pRequest->nDataCount = 0;
    pRequest->nResponseCode = 128;
    pRequest->nDeviceStatus = 0;
  }
  pRequest->nCommand = element->nReplyCommand;
  pRequest->dwReplySpare = element->dwReplySpare;
  tagSERVICEINFO &service = ServiceTable[hServ];
  const unsigned int app_id = service.nAppId.load();
  TraceRequest(PortOfApp(hApp), "remRRQ/APPq", element->nServiceHandle, app_id);
  if (pnAppId) *pnAppId = app_id;
  fncRemoveQueueElement(&receive, element);
  service.nServiceState = 0;
  UnlockQueue(&receive);
  return 1;
}

// Accepted and ignored for a registered application: what they would switch is written through
// the row pointers instead. Any other row is refused.
unsigned int HART_DiscardRequests(unsigned int hApp) noexcept { return AppInUse(hApp); }
unsigned int HART_SetTestDLL(unsigned int hApp, const char *) noexcept { return AppInUse(hApp); }
unsigned int HART_RegisterBurstAppKey(unsigned int hApp, unsigned int) noexcept { return AppInUse(hApp); }
unsigned int HART_SetRepeatIfBusy(unsigned int hApp) noexcept { return AppInUse(hApp); }
unsigned int HART_ClearRepeatIfBusy(unsigned int hApp) noexcept { return AppInUse(hApp); }
unsigned int HART_ClearBurstQueue(unsigned int hApp) noexcept { return AppInUse(hApp); }
unsigned int HART_GetNumberOfBurst(unsigned int hApp, unsigned int *) noexcept { return AppInUse(hApp); }
unsigned int HART_GetBurst(unsigned int hApp, tagHARTREQUEST *) noexcept { return AppInUse(hApp); }
unsigned int HART_SetDebugFlags(unsigned int hApp, unsigned int) noexcept { return AppInUse(hApp); }

}  // extern "C"
