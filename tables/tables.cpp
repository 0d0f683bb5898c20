// The tables themselves. Zero at load; the application object gives them their start values.
#include "tables/tables.h"

namespace velmora {

constinit tagCOMPORTINFO ComPortTable[kPortCount]{};
constinit tagAPPINFO AppTable[kAppCount]{};
constinit tagSERVICEINFO ServiceTable[kServiceCount]{};
constinit typRxFrameStruct RxFrameTable[kPortCount]{};
constinit typTimerControlStruct TimerTable[kPortCount]{};
constinit typQueue TransmitQueues[kPortCount]{};
constinit typQueue AppReceiveQueues[kAppCount]{};
constinit typQueue ReceivePendingQueue{};

std::mutex &RegistrationMutex() {
  static std::mutex *mutex = new std::mutex;  // never destroyed: unload closes ports after statics go
  return *mutex;
}

}  // namespace velmora
