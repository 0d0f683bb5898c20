// The polled time-out of a port: armed with a code, tested by the worker at every idle pass.
#ifndef VELMORA_LINK_TIMEOUT_H
#define VELMORA_LINK_TIMEOUT_H

namespace velmora {

// Codes that the link layer arms; the others of the 18 are there for clients.
constexpr unsigned int TO_TURNAROUND = 1;      // 1 ms: the gap before this master's turn
constexpr unsigned int TO_BURST_GAP = 2;       // 12 ms after a burst frame
constexpr unsigned int TO_IDLE_PRIMARY = 3;    // 305 ms of quiet
constexpr unsigned int TO_IDLE_SECONDARY = 4;  // 305 ms of quiet
constexpr unsigned int TO_HOLD_OFF = 12;       // 100 ms after an own exchange
constexpr unsigned int TO_IDLE_FIXED = 14;     // 80 ms, with the long-preamble fix

// Milliseconds of a code before the adjustment by baud rate; 0 for a code outside 1..18.
unsigned int TimeOutTableMs(unsigned int code);

}  // namespace velmora

#endif
