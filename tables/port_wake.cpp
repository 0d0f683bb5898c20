// One wakeup per row of the port table, made once and never destroyed: a worker may still wait
// on its own while the process exits.
#include "tables/port_wake.h"

#include "tables/tables.h"

namespace velmora {
namespace {

platform::Wakeup *Wakeups() {
  static platform::Wakeup *wakeups = new platform::Wakeup[kPortCount];
  return wakeups;
}

}  // namespace

platform::Wakeup &WakeupOf(unsigned int nDriverId) { return Wakeups()[nDriverId < kPortCount ? nDriverId : 0]; }

void WakePort(unsigned int nDriverId) {
  if (nDriverId < kPortCount) Wakeups()[nDriverId].Raise();
}

void WakeAllPorts() {
  for (unsigned int i = 0; i < kPortCount; ++i) Wakeups()[i].Raise();
}

}  // namespace velmora
