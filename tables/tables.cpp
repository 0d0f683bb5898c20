// The tables themselves. Zero at load; InitInstance gives them their start values.
#include "tables/tables.h"

#include "api/driver_app.h"

namespace velmora {

constinit tagCOMPORTINFO ComPortTable[kPortCount]{};
constinit tagAPPINFO AppTable[kAppCount]{};
constinit tagSERVICEINFO ServiceTable[kServiceCount]{};
constinit typRxFrameStruct RxFrameTable[kPortCount]{};
constinit typTimerControlStruct TimerTable[kPortCount]{};
constinit typQueue TransmitQueues[kPortCount]{};
constinit typQueue AppReceiveQueues[kAppCount]{};
constinit typQueue ReceivePendingQueue{};

namespace {

// The library's entry and exit. They live beside the tables so that a static link, which takes
// only the objects it needs, always takes them too. The tables are constant-initialised, so
// nothing here depends on the order of other initialisers.
__attribute__((constructor)) void LoadLibrary() { TheDriverApp().InitInstance(); }
__attribute__((destructor)) void UnloadLibrary() { TheDriverApp().ExitInstance(); }

}  // namespace

}  // namespace velmora
