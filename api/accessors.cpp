// Table accessors: raw pointers and words of the rows, for clients that want them. None of them
// looks at bInUse; a handle out of range gives null, 0 or -1 instead of reading past a table.
#include "tables/tables.h"

using namespace velmora;

extern "C" {

tagAPPINFO *GetAppInfo(unsigned int hApp) noexcept { return ValidApp(hApp) ? &AppTable[hApp] : nullptr; }

unsigned int GetAppKey(unsigned int hApp) noexcept { return ValidApp(hApp) ? AppTable[hApp].nAppKey.load() : 0; }

typQueue *GetAppReceiveQueue(unsigned int hApp) noexcept {
  return ValidApp(hApp) ? &AppReceiveQueues[hApp] : nullptr;
}

HWND GetApphWnd(unsigned int hApp) noexcept { return ValidApp(hApp) ? AppTable[hApp].hWnd.load() : nullptr; }

unsigned int GetBurstAppKey(unsigned int hApp) noexcept {
  return ValidApp(hApp) ? AppTable[hApp].nBurstAppKey.load() : 0;
}

HANDLE GetComPortHandle(unsigned int hApp) noexcept {
  if (!ValidApp(hApp)) return NoHandle();
  return PortOfApp(hApp).hComPort.load();
}

tagCOMPORTINFO *GetComPortInfo(unsigned int hApp) noexcept {
  return ValidApp(hApp) ? &PortOfApp(hApp) : nullptr;
}

unsigned int GetDriverId(unsigned int hApp) noexcept {
  return ValidApp(hApp) ? AppTable[hApp].nDriverId.load() : kNone;
}

unsigned int GetRepeatIfBusy(unsigned int hApp) noexcept {
  return ValidApp(hApp) ? AppTable[hApp].bRepeatIfBusy.load() : 0;
}

tagSERVICEINFO *GetServiceInfo(unsigned int hServ) noexcept {
  return ValidService(hServ) ? &ServiceTable[hServ] : nullptr;
}

}  // extern "C"
