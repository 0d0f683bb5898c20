// The worker of a port: it sleeps until something can change (bytes on the line, a wake from an
// application, a close, the next deadline), then does what the moment calls for.
#ifndef VELMORA_PORT_WORKER_H
#define VELMORA_PORT_WORKER_H

#include <cstdint>

#include "velmora.h"

namespace velmora {

// What one wake does: carry out the applications' orders, step the transmission or the rate
// round, or read and give the state machine its event; close the history record where the
// state change says so; start a transmission the state machine asked for at once.
void ServiceWake(tagCOMPORTINFO *pPort);

// Waits until the worker has something to do, at most max_wait_ms (none: no limit).
void WaitForWork(tagCOMPORTINFO *pPort, uint32_t max_wait_ms = UINT32_MAX);

// A wake and then a wait of at most the old pass's sleep: tests of the link layer run the
// worker with this in virtual time, one step at a time.
void RunWorkerPass(tagCOMPORTINFO *pPort);

// The thread function: start-up, then wakes until bThreadRun is cleared; sets bThreadDone.
void ComPortThread(void *pPort);

// Delays of the transmit phase in milliseconds, by baud code (a code above 2 counts as 1200
// baud in the frame wait and the tail, and as 9600 in the lead-in and the pass's sleep).
unsigned int LeadInMs(unsigned int baud_code);
unsigned int FrameWaitMs(unsigned int baud_code, unsigned int pending_bytes);
unsigned int TailMs(unsigned int baud_code, unsigned int extra_rts_delay);
unsigned int PassSleepMs(unsigned int baud_code);

}  // namespace velmora

#endif
