// Port n is COMn unless mapped elsewhere.
#include "platform/port_names.h"

namespace velmora::platform::os {

std::string DefaultPortDeviceName(unsigned int nPort) { return "COM" + std::to_string(nPort); }

}  // namespace velmora::platform::os
