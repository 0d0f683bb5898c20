// The hand-over of a frame from the state machine to the worker's transmit phase.
#ifndef VELMORA_PORT_FRAME_HANDOVER_H
#define VELMORA_PORT_FRAME_HANDOVER_H

#include "velmora.h"

namespace velmora {

// The row whose hComPort is the handle, lowest first; -1 if none.
int FindComPort(HANDLE hComPort);

}  // namespace velmora

#endif
