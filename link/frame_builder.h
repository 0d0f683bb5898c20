// HART frames as the master puts them on the wire, and replies taken apart again.
//
// A transmission is preambles (0xFF), then the frame proper: delimiter, address (1 byte short,
// 5 bytes long), command, byte count, data, and a checksum that is the exclusive OR of the frame
// proper from the delimiter through the last data byte.
#ifndef VELMORA_LINK_FRAME_BUILDER_H
#define VELMORA_LINK_FRAME_BUILDER_H

#include <cstdint>

#include "velmora.h"

namespace velmora {

constexpr uint8_t kPreamble = 0xFF;
constexpr uint8_t kDelimiterShortRequest = 0x02;
constexpr uint8_t kDelimiterLongRequest = 0x82;
constexpr unsigned int kMaxPreambles = 20;
constexpr unsigned int kLongPreambleFixCount = 7;

// Preambles a frame built now for this port gets.
unsigned int PreamblesFor(const tagCOMPORTINFO &port);
// The length BuildHartFrame would report, preambles and checksum included; may pass 256.
unsigned int BuiltFrameLength(const tagCOMPORTINFO &port, const tagHARTREQUEST &request);

// Writes the whole frame for the request to pOut (at least 256 bytes) and its length to
// *pnLength. The caller makes sure BuiltFrameLength fits the buffer. Always 1.
unsigned int BuildHartFrame(const tagCOMPORTINFO *pPort, const tagHARTREQUEST *pRequest,
                            unsigned int *pnLength, unsigned char *pOut);

// Builds the frame into pOut only if it fits `capacity` bytes, reading the port's settings once;
// false (nothing written) for a frame that would not fit.
bool BuildFrameChecked(const tagCOMPORTINFO &port, const tagHARTREQUEST &request, unsigned char *pOut,
                       unsigned int capacity, unsigned int *pnLength);

// Takes a received frame (from the delimiter, nLength bytes through the checksum) apart: the
// command and the data bytes (status bytes included). pOut holds at least 255 bytes. Always 1.
unsigned int ExtractReplyData(unsigned int nLength, const unsigned char *pFrame, unsigned int *pnDataLen,
                              unsigned char *pOut, unsigned int *pnCommand);

}  // namespace velmora

#endif
