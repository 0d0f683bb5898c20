// Registration of applications with ports.
#ifndef VELMORA_API_REGISTRATION_H
#define VELMORA_API_REGISTRATION_H

#include <mutex>

namespace velmora {

// Serialises what opens, configures and closes ports. Only application threads take it; the
// workers never do.
std::mutex &RegistrationMutex();

}  // namespace velmora

#endif
