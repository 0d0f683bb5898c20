// The port-name map behind SetComPortDevice.
#include "platform/port_names.h"

#include <mutex>

#include "velmora.h"

namespace velmora::platform {
namespace {

constexpr unsigned int kPorts = 32;

struct PortNames {
  std::mutex mutex;
  std::string names[kPorts];
};

PortNames &TheNames() {
  static PortNames *names = new PortNames;  // never destroyed: ports may reopen during exit
  return *names;
}

}  // namespace

std::string PortDeviceName(unsigned int nPort) {
  if (nPort < 1 || nPort > kPorts) return std::string();
  PortNames &names = TheNames();
  std::lock_guard<std::mutex> lock(names.mutex);
  const std::string &mapped = names.names[nPort - 1];
  if (!mapped.empty()) return mapped;
  return os::DefaultPortDeviceName(nPort);
}

}  // namespace velmora::platform

extern "C" unsigned int SetComPortDevice(unsigned int nPort, const char *szDevice) noexcept {
  if (nPort < 1 || nPort > velmora::platform::kPorts) return 0;
  try {
    auto &names = velmora::platform::TheNames();
    std::lock_guard<std::mutex> lock(names.mutex);
    names.names[nPort - 1] = szDevice ? szDevice : "";
    return 1;
  } catch (...) {
    return 0;
  }
}
