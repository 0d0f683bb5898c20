// Port control. Until ports can be opened there is nothing to stop at unload.
#include "port/port_control.h"

namespace velmora {

void StopAllPorts() {}

}  // namespace velmora
