// The wakeup of each port's worker. Whoever changes what a worker must look at (its transmit
// queue, the element in service, the configuration, the run flag) wakes it.
#ifndef VELMORA_TABLES_PORT_WAKE_H
#define VELMORA_TABLES_PORT_WAKE_H

#include "platform/wakeup.h"

namespace velmora {

platform::Wakeup &WakeupOf(unsigned int nDriverId);
// Any thread; a row outside the table is ignored.
void WakePort(unsigned int nDriverId);
void WakeAllPorts();

}  // namespace velmora

#endif
