// Opening and closing ports, and the baud rate.
#ifndef VELMORA_PORT_PORT_CONTROL_H
#define VELMORA_PORT_PORT_CONTROL_H

#include "velmora.h"

namespace velmora {

// OpenComPort with the choice of starting the worker. Tests of the link layer open a port
// without one and run its passes themselves, in virtual time.
HANDLE OpenPort(unsigned int nPort, unsigned int nBaudCode, unsigned int nDataBits, unsigned int nParity,
                unsigned int nStopBits, HWND hHistoryWnd, unsigned int nHistoryMsg, bool start_worker);

// Stops the port's worker, waits for it (bounded) and frees its line: the row reads closed with
// no application counted on it. The caller holds RegistrationMutex.
void ClosePortRow(unsigned int nDriverId);
// A worker or line object is left on a port that reads closed (its line went away).
bool PortHasRemains(unsigned int nDriverId);

// Stops every running worker and closes every open port; for unload.
void StopAllPorts();

// The line rate of a baud code: 9600 for 1, 19200 for 2, 1200 for every other value.
unsigned int BaudRateOf(unsigned int nBaudCode);

constexpr unsigned int kWorkerStartBoundMs = 2000;
constexpr unsigned int kWorkerStopBoundMs = 5000;

}  // namespace velmora

#endif
