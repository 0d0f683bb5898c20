// Port n is /dev/ttyS<n-1> unless mapped elsewhere.
#include "platform/port_names.h"

namespace velmora::platform::os {

std::string DefaultPortDeviceName(unsigned int nPort) { return "/dev/ttyS" + std::to_string(nPort - 1); }

}  // namespace velmora::platform::os
