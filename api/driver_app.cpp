// Load and unload: the tables get their start values before any client call can reach them.
#include "api/driver_app.h"

#include "platform/thread.h"
#include "port/port_control.h"
#include "tables/tables.h"
#include "velmora.h"

namespace velmora {

CDriverApp &TheDriverApp() {
  static CDriverApp app;  // no data members: nothing to construct or destroy
  return app;
}

int CDriverApp::InitInstance() {
  fncInitAllQueues();
  InitHistory();
  for (unsigned int i = 0; i < kPortCount; ++i) {
    tagCOMPORTINFO &port = ComPortTable[i];
    port.nDriverId = i;
    port.pTransmitQueue = &TransmitQueues[i];
    port.pRxFrame = &RxFrameTable[i];
    port.pTimer = &TimerTable[i];
    port.nPreambles = 5;
    port.bPrimaryMaster = 1;
    port.hComPort = NoHandle();
    port.adwReserved[3] = 1;
    RxFrameTable[i].nRxState = 0;
    RxFrameTable[i].nFrameLen = 0;
    RxFrameTable[i].nPreambleCount = 0;
    RxFrameTable[i].bFrameValid = 0;
    RxFrameTable[i].bRxRolePrimary = 1;
    TimerTable[i].nDriverId = i;
  }
  for (tagSERVICEINFO &service : ServiceTable) {
    service.nServiceState = 0;
    service.bRequestSent = 0;
  }
  for (tagAPPINFO &app : AppTable) app.bInUse = 0;
  return 1;
}

int CDriverApp::ExitInstance() {
  // A worker must not run on once the library's code is gone. At process exit on Windows the
  // workers have been ended already, perhaps holding a lock: then there is nothing to stop.
  if (!platform::ProcessExiting()) StopAllPorts();
  FlushHistory();
  return 1;
}

namespace {

// The library's entry and exit. The tables are constant-initialised, so nothing here depends on
// the order of other initialisers.
__attribute__((constructor)) void OnLoad() { TheDriverApp().InitInstance(); }
__attribute__((destructor)) void OnUnload() { TheDriverApp().ExitInstance(); }

}  // namespace

}  // namespace velmora

// A static link takes only the objects a client needs; the static library's users ask for this
// symbol, so that the object with the entry and exit above is always among them.
extern "C" void VelmoraStartUp(void) {}
