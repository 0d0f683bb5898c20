// The worker of a port: one pass of its loop, and the thread that runs the passes.
#ifndef VELMORA_PORT_WORKER_H
#define VELMORA_PORT_WORKER_H

#include "velmora.h"

namespace velmora {

// One pass: transmit the frame handed over, or read and give the state machine its event;
// close the history record where the state change says so; sleep 1 or 5 ms.
void RunWorkerPass(tagCOMPORTINFO *pPort);

// The thread function: start-up, then passes until bThreadRun is cleared; sets bThreadDone.
void ComPortThread(void *pPort);

// Delays of the transmit phase in milliseconds, by baud code (a code above 2 counts as 1200
// baud in the frame wait and the tail, and as 9600 in the lead-in and the pass's sleep).
unsigned int LeadInMs(unsigned int baud_code);
unsigned int FrameWaitMs(unsigned int baud_code, unsigned int pending_bytes);
unsigned int TailMs(unsigned int baud_code, unsigned int extra_rts_delay);
unsigned int PassSleepMs(unsigned int baud_code);

// Reads what the input holds, at most 256 bytes; resets nFailedCycles when bytes wait.
int ReadFromCom(tagCOMPORTINFO *pPort, unsigned char *pBuffer);

}  // namespace velmora

#endif
