// Why a serial device cannot be opened, said so that the user knows what to do.
#ifndef VELMORA_TOOLS_PORT_PROBLEM_H
#define VELMORA_TOOLS_PORT_PROBLEM_H

#include <string>

namespace velmora::tool {

// Looks at the device file and tries to open it; empty if nothing is found wrong.
std::string DiagnosePort(const std::string &device);

}  // namespace velmora::tool

#endif
