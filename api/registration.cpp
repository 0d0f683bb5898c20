// Applications register a window with a port: the first registration opens the port and starts
// its worker, the last unregistration closes it. Rows of the application and service tables are
// taken in one atomic step each, so two threads never get the same row.
#include "api/registration.h"

#include "link/mac.h"
#include "port/port_control.h"
#include "queues/queue_guard.h"
#include "tables/tables.h"

namespace velmora {

std::mutex &RegistrationMutex() {
  static std::mutex *mutex = new std::mutex;  // never destroyed: unload closes ports after statics go
  return *mutex;
}

namespace {

// The lowest free row, taken; kNone if all are taken.
template <typename Row, size_t N>
unsigned int TakeRow(Row (&table)[N], VelmoraWord Row::*state) {
  for (unsigned int i = 0; i < N; ++i) {
    unsigned int expected = 0;
    if ((table[i].*state).compare_exchange_strong(expected, 1)) return i;
  }
  return kNone;
}

}  // namespace
}  // namespace velmora

using namespace velmora;

extern "C" {

unsigned int RegisterApplication(unsigned int nPort, HWND hWnd, unsigned int nBaudCode, unsigned int nReplyMsg,
                                 unsigned int nLinkEventMsg, unsigned int nHistoryMsg, unsigned int nAppKey,
                                 unsigned int *phApp, tagCOMPORTINFO **ppPortInfo, tagAPPINFO **ppAppInfo) noexcept {
  if (phApp) *phApp = kNone;
  if (nPort < 1 || nPort > kPortCount) return 0;
  std::lock_guard<std::mutex> lock(RegistrationMutex());
  // A row is found before the port is opened, so that a full table leaves no trace.
  const unsigned int row = TakeRow(AppTable, &tagAPPINFO::bInUse);
  if (row == kNone) return 0;
  tagCOMPORTINFO &port = ComPortTable[nPort - 1];
  port.nBaudCode = nBaudCode;
  // On a first registration the state machine starts over; set before its worker starts.
  if (port.hComPort.load() == NoHandle()) port.nMacState = macInit;
  HANDLE handle = NoHandle();
  try {
    handle = OpenPort(nPort, nBaudCode, 8, 1, 0, hWnd, nHistoryMsg, true);
  } catch (...) {
  }
  if (handle == NoHandle()) {
    AppTable[row].bInUse = 0;
    return 0;
  }
  if (ppPortInfo) *ppPortInfo = &port;
  tagAPPINFO &app = AppTable[row];
  app.nDriverId = nPort - 1;
  app.nAppKey = nAppKey;
  app.hWnd = hWnd;
  app.nLinkEventMsg = nLinkEventMsg;
  app.nReplyMsg = nReplyMsg;
  app.nReplyCount = 0;
  app.bRepeatIfBusy = 0;
  if (phApp) *phApp = row;
  if (ppAppInfo) *ppAppInfo = &app;
  return 1;
}

unsigned int UnRegisterApplication(unsigned int hApp) noexcept {
  if (!ValidApp(hApp)) return 0;
  std::lock_guard<std::mutex> lock(RegistrationMutex());
  tagAPPINFO &app = AppTable[hApp];
  const unsigned int driver = app.nDriverId.load();
  app.bInUse = 0;
  for (tagSERVICEINFO &service : ServiceTable)
    if (service.nServiceState.load() != 0 && service.nAppHandle.load() == hApp) service.nServiceState = 4;
  fncClearQueuesOfApp(driver, hApp);
  if (!ValidDriver(driver)) return 1;
  tagCOMPORTINFO &port = ComPortTable[driver];
  if (port.nOpenCount == 0) return 1;
  if (--port.nOpenCount > 0) return 1;
  CloseComPort(port.hComPort.load());
  port.hComPort = NoHandle();
  port.nTxRequest = 0;
  // With the worker gone, a request whose owner left can be dropped and its row freed now.
  DropAbandonedRequest(&port);
  return 1;
}

unsigned int RegisterLLMonitor(unsigned int hApp, HWND hWnd, unsigned int nMsg) noexcept {
  if (!ValidApp(hApp)) return 0;
  tagCOMPORTINFO &port = PortOfApp(hApp);
  // First come: the message word is claimed in one step, then the window follows.
  unsigned int expected = 0;
  if (!port.nMonitorMsg.compare_exchange_strong(expected, nMsg)) return 0;
  port.hMonitorWnd = hWnd;
  return 1;
}

unsigned int UnRegisterLLMonitor(unsigned int hApp) noexcept {
  if (!ValidApp(hApp)) return 0;
  tagCOMPORTINFO &port = PortOfApp(hApp);
  port.nMonitorMsg = 0;
  port.hMonitorWnd = nullptr;
  return 1;
}

unsigned int GetServiceHandle(unsigned int hApp, tagSERVICEINFO **ppService, tagAPPINFO **ppApp,
                              tagCOMPORTINFO **ppPort) noexcept {
  // The row is taken and given its owner under the registration lock: a previous owner that
  // unregisters marks its rows abandoned under the same lock, and must never take this one.
  std::lock_guard<std::mutex> lock(RegistrationMutex());
  const unsigned int row = TakeRow(ServiceTable, &tagSERVICEINFO::nServiceState);
  if (row == kNone) return kNone;
  ServiceTable[row].nAppHandle = hApp;
  if (ppService) *ppService = &ServiceTable[row];
  if (ppApp) *ppApp = ValidApp(hApp) ? &AppTable[hApp] : nullptr;
  if (ppPort) *ppPort = ValidApp(hApp) ? &PortOfApp(hApp) : nullptr;
  return row;
}

unsigned int LockTransmitQueue(unsigned int hApp) noexcept {
  if (ValidApp(hApp)) LockQueue(PortOfApp(hApp).pTransmitQueue);
  return 1;
}

unsigned int UnLockTransmitQueue(unsigned int hApp) noexcept {
  if (ValidApp(hApp)) UnlockQueue(PortOfApp(hApp).pTransmitQueue);
  return 1;
}

unsigned int AppendTransmitQueue(unsigned int hApp, typQueueElement *pElement) noexcept {
  if (!ValidApp(hApp)) return 0;
  return fncAppendQueueElement(PortOfApp(hApp).pTransmitQueue, pElement);
}

unsigned int SetBaudRate(tagCOMPORTINFO *pPort) noexcept {
  if (!pPort) return 0;
  std::lock_guard<std::mutex> lock(RegistrationMutex());
  ComSetBaudRate(pPort);
  return 1;
}

}  // extern "C"
