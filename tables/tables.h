// The driver's global tables: fixed, one set per process, alive from load to unload.
#ifndef VELMORA_TABLES_TABLES_H
#define VELMORA_TABLES_TABLES_H

#include <mutex>

#include "velmora.h"

namespace velmora {

constexpr unsigned int kPortCount = 32;
constexpr unsigned int kAppCount = 100;
constexpr unsigned int kServiceCount = 1000;
constexpr unsigned int kQueueMax = 1000;  // a queue's count after appending stays below this
constexpr unsigned int kNone = 0xFFFFFFFFu;
constexpr unsigned int kBurstService = 65535u;
constexpr unsigned int kMaxFrame = 256;  // a built frame, preambles included

// Bits of dwDebugFlags.
constexpr unsigned int kTraceStates = 1;
constexpr unsigned int kTraceReceive = 2;
constexpr unsigned int kTraceService = 8;

extern tagCOMPORTINFO ComPortTable[kPortCount];
extern tagAPPINFO AppTable[kAppCount];
extern tagSERVICEINFO ServiceTable[kServiceCount];
extern typRxFrameStruct RxFrameTable[kPortCount];
extern typTimerControlStruct TimerTable[kPortCount];
extern typQueue TransmitQueues[kPortCount];
extern typQueue AppReceiveQueues[kAppCount];
extern typQueue ReceivePendingQueue;

inline bool ValidApp(unsigned int hApp) { return hApp < kAppCount; }
inline bool ValidService(unsigned int hServ) { return hServ < kServiceCount; }
inline bool ValidDriver(unsigned int nDriverId) { return nDriverId < kPortCount; }
// A registered application: calls that act on a registration refuse any other row.
inline bool AppInUse(unsigned int hApp) { return ValidApp(hApp) && AppTable[hApp].bInUse.load() != 0; }

// The port row of an application; row 0 for an application row out of range, as a never-used
// row points at port 0.
inline tagCOMPORTINFO &PortOfApp(unsigned int hApp) {
  unsigned int driver = ValidApp(hApp) ? AppTable[hApp].nDriverId.load() : 0;
  return ComPortTable[ValidDriver(driver) ? driver : 0];
}

// History is on for a port while it has a history window and message number.
inline bool HistoryOn(const tagCOMPORTINFO &port) {
  return port.hHistoryWnd.load() != nullptr && port.nHistoryMsg.load() != 0;
}
// A trace of the given kind is written when its debug bit is set and history is on.
inline bool TraceOn(const tagCOMPORTINFO &port, unsigned int bit) {
  return (port.dwDebugFlags.load() & bit) != 0 && HistoryOn(port);
}

inline HANDLE NoHandle() { return VELMORA_INVALID_HANDLE; }

// Serialises what opens, registers on, unregisters from and closes ports. Only application
// threads take it; the workers never do.
std::mutex &RegistrationMutex();

}  // namespace velmora

#endif
