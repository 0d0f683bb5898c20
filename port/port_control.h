// Opening and closing ports, and the baud rate.
#ifndef VELMORA_PORT_PORT_CONTROL_H
#define VELMORA_PORT_PORT_CONTROL_H

namespace velmora {

// Stops every running worker and closes every open port; for unload.
void StopAllPorts();

}  // namespace velmora

#endif
