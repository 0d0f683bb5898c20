// What a port needs beside its public row: the serial line, the worker thread and what the
// worker is in the middle of.
#ifndef VELMORA_PORT_PORT_RUNTIME_H
#define VELMORA_PORT_PORT_RUNTIME_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/serial_line.h"
#include "platform/thread.h"
#include "velmora.h"

namespace velmora {

// The worker either listens (reads, and gives the state machine its events) or is in one step
// of a sequence timed by deadlines, during which the state machine gets no event.
enum class WorkerStep : uint8_t {
  kListen,
  kLeadIn,      // RTS is up; the frame is written when the lead-in is over
  kFrameWait,   // the frame is written; its bytes are on their way out
  kDrain,       // waiting for the output to drain, within a bound
  kTail,        // drained; RTS drops when the tail is over
  kSimPause,    // a simulated response stands in for the line
  kToggleHigh,  // the rate round after silence: at 9600 baud
  kToggleBack,  // back at 1200 baud; the time-out goes to the state machine after this
};

struct PortRuntime {
  std::unique_ptr<platform::SerialLine> line;
  std::unique_ptr<platform::Thread> thread;
  std::atomic<bool> started{false};  // the worker has passed its start-up
  unsigned char rx_buffer[256] = {};
  WorkerStep step = WorkerStep::kListen;
  uint64_t step_due_us = 0;     // when the step is over, on the platform clock
  uint64_t drain_bound_us = 0;  // the longest the drain may take
  // Bytes read with the echo that came in after RTS was due to drop: the start of an answer
  // to a worker that woke late. They go to the parser first.
  unsigned char held[256] = {};
  unsigned char echo[512] = {};  // the echo of a whole frame and the start of an answer
  unsigned int held_count = 0;
  // Inside a frame whose length is known, the bytes before its last are read in one go when
  // they are due rather than one wake each; the last byte wakes the worker as it arrives.
  uint64_t gather_until_us = 0;
  // The line went away: the worker does no more I/O and fails every request handed to it, until
  // the port is closed. again: the transmit queue was held, look again soon.
  bool lost = false;
  bool lost_again = false;
  // An application changed the rate (baud code in the port's row); the worker puts it on the line.
  std::atomic<bool> rate_changed{false};
};

PortRuntime &RuntimeOf(unsigned int nDriverId);
PortRuntime &RuntimeOf(const tagCOMPORTINFO &port);
platform::SerialLine *LineOf(const tagCOMPORTINFO &port);

}  // namespace velmora

#endif
