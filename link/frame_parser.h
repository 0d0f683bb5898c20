// The byte parser of everything the line delivers: preambles, delimiter, length, checksum and
// the message type, with the events it gives the state machine.
#ifndef VELMORA_LINK_FRAME_PARSER_H
#define VELMORA_LINK_FRAME_PARSER_H

#include "velmora.h"

namespace velmora {

// Parser states (nRxState).
constexpr unsigned char kRxBetweenFrames = 0;
constexpr unsigned char kRxHunting = 1;
constexpr unsigned char kRxPreambles = 2;
constexpr unsigned char kRxInFrame = 3;
constexpr unsigned char kRxDiscarding = 4;

constexpr unsigned int kMonitorCapacity = 512;
constexpr unsigned int kNoiseLimit = 5;  // non-preamble bytes that end the hunt

// Feeds one chunk (at most 256 bytes, in order of arrival) through the parser of the port.
void ProcessReceivedBytes(tagCOMPORTINFO *pPort, const unsigned char *pBytes, unsigned int nCount);

}  // namespace velmora

#endif
