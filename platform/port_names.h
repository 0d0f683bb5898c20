// Port numbers to device names: /dev/ttyS<n-1> unless SetComPortDevice chose another.
#ifndef VELMORA_PLATFORM_PORT_NAMES_H
#define VELMORA_PLATFORM_PORT_NAMES_H

#include <string>

namespace velmora::platform {

// The device name of port nPort (1..32); empty for a port out of range.
std::string PortDeviceName(unsigned int nPort);

}  // namespace velmora::platform

#endif
