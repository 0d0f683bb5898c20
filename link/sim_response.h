// The simulated-response hook: a client-installed function that answers requests in place of
// the line.
#ifndef VELMORA_LINK_SIM_RESPONSE_H
#define VELMORA_LINK_SIM_RESPONSE_H

#include "velmora.h"

namespace velmora {

// The installed hook, or null.
VelmoraSimResponseFn SimResponseHook();

}  // namespace velmora

#endif
