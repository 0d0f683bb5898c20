// Port numbers to device names: the OS's default unless SetComPortDevice chose another.
#ifndef VELMORA_PLATFORM_PORT_NAMES_H
#define VELMORA_PLATFORM_PORT_NAMES_H

#include <string>

namespace velmora::platform {

// The device name of port nPort (1..32); empty for a port out of range.
std::string PortDeviceName(unsigned int nPort);

namespace os {
// The OS's name of port nPort: /dev/ttyS<n-1> on POSIX, COM<n> on Windows.
std::string DefaultPortDeviceName(unsigned int nPort);
}  // namespace os

}  // namespace velmora::platform

#endif
