// Applications register a window with a port: the first registration opens the port and starts
// its worker, the last unregistration closes it. Rows of the application and service tables are
// taken in one atomic step each, so two threads never get the same row.

#include "link/mac.h"
#include "port/port_control.h"
#include "queues/queue_clear.h"
#include "queues/queue_guard.h"
#include "tables/tables.h"

namespace velmora {

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

// Registered applications on the port.
unsigned int AppsOnPort(unsigned int driver) {
  unsigned int count = 0;
  for (const tagAPPINFO &app : AppTable) count += app.bInUse.load() != 0 && app.nDriverId.load() == driver;
  return count;
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
  // A port opened again under applications still registered on it counts them too.
  if (port.nOpenCount == 1) port.nOpenCount = AppsOnPort(nPort - 1);
  if (phApp) *phApp = row;
  if (ppAppInfo) *ppAppInfo = &app;
  return 1;
}

unsigned int UnRegisterApplication(unsigned int hApp) noexcept {
  std::lock_guard<std::mutex> lock(RegistrationMutex());
  // A row not in use is nobody's: leaving it again must not close a port under others.
  if (!AppInUse(hApp)) return 0;
  tagAPPINFO &app = AppTable[hApp];
  const unsigned int driver = app.nDriverId.load();
  app.bInUse = 0;
  // What the row's next owner must not inherit: burst notices and posts to this window.
  app.nBurstAppKey = 0;
  app.hWnd = nullptr;
  for (tagSERVICEINFO &service : ServiceTable)
    if (service.nServiceState.load() != 0 && service.nAppHandle.load() == hApp) service.nServiceState = 4;
  fncClearQueuesOfApp(driver, hApp);
  if (!ValidDriver(driver)) return 1;
  tagCOMPORTINFO &port = ComPortTable[driver];
  // A port closed under its applications (CloseComPort) counts none; it goes with the last.
  if (port.nOpenCount != 0 && --port.nOpenCount > 0) return 1;
  if (AppsOnPort(driver) != 0) return 1;
  ClosePortRow(driver);
  // With the worker gone, requests whose owners left can be dropped and their rows freed now.
  DropAbandonedRequest(&port);
  DropAbandonedRequests(driver);
  return 1;
}

unsigned int RegisterLLMonitor(unsigned int hApp, HWND hWnd, unsigned int nMsg) noexcept {
  std::lock_guard<std::mutex> lock(RegistrationMutex());
  if (!AppInUse(hApp)) return 0;
  tagCOMPORTINFO &port = PortOfApp(hApp);
  // First come: the message word is claimed in one step, then the window follows.
  unsigned int expected = 0;
  if (!port.nMonitorMsg.compare_exchange_strong(expected, nMsg)) return 0;
  port.hMonitorWnd = hWnd;
  return 1;
}

unsigned int UnRegisterLLMonitor(unsigned int hApp) noexcept {
  std::lock_guard<std::mutex> lock(RegistrationMutex());
  if (!AppInUse(hApp)) return 0;
  tagCOMPORTINFO &port = PortOfApp(hApp);
  // Serialised with registration; the window still goes first and the message last, for a
  // client that claims the monitor through the row pointer.
  port.hMonitorWnd = nullptr;
  port.nMonitorMsg = 0;
  return 1;
}

unsigned int GetServiceHandle(unsigned int hApp, tagSERVICEINFO **ppService, tagAPPINFO **ppApp,
                              tagCOMPORTINFO **ppPort) noexcept {
  // The row is taken and given its owner under the registration lock: a previous owner that
  // unregisters marks its rows abandoned under the same lock, and must never take this one.
  std::lock_guard<std::mutex> lock(RegistrationMutex());
  if (!AppInUse(hApp)) return kNone;
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
  if (!AppInUse(hApp)) return 0;
  return fncAppendQueueElement(PortOfApp(hApp).pTransmitQueue, pElement);
}

unsigned int SetBaudRate(tagCOMPORTINFO *pPort) noexcept {
  if (!pPort) return 0;
  ComSetBaudRate(pPort);
  return 1;
}

}  // extern "C"
