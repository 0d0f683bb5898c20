// Building request frames and extracting reply data.
#include "link/frame_builder.h"

#include <cstring>

namespace velmora {

unsigned int PreamblesFor(const tagCOMPORTINFO &port) {
  if (port.bLongPreambleFix.load() != 0) return kLongPreambleFixCount;
  unsigned int preambles = port.nPreambles.load();
  return preambles > kMaxPreambles ? kMaxPreambles : preambles;
}

unsigned int BuiltFrameLength(const tagCOMPORTINFO &port, const tagHARTREQUEST &request) {
  const unsigned int header = request.nAddressFormat == 2 ? 8 : 4;
  return PreamblesFor(port) + header + (request.nDataCount & 0xFF) + 1;
}

namespace {

void Build(unsigned int preambles, unsigned char master_bit, const tagHARTREQUEST *pRequest,
           unsigned int *pnLength, unsigned char *pOut) {
  unsigned int at = 0;
  for (unsigned int i = 0; i < preambles; ++i) pOut[at++] = kPreamble;
  const unsigned int frame_start = at;
  if (pRequest->nAddressFormat == 2) {
    pOut[at++] = kDelimiterLongRequest;
    pOut[at++] = static_cast<unsigned char>((pRequest->abLongAddress[0] & 63) | master_bit);
    for (int i = 1; i < 5; ++i) pOut[at++] = pRequest->abLongAddress[i];
  } else {
    pOut[at++] = kDelimiterShortRequest;
    pOut[at++] = static_cast<unsigned char>((pRequest->nPollingAddress & 15) | master_bit);
  }
  const unsigned int count = pRequest->nDataCount & 0xFF;
  pOut[at++] = static_cast<unsigned char>(pRequest->nCommand & 0xFF);
  pOut[at++] = static_cast<unsigned char>(count);
  if (count > 0 && pRequest->pData) std::memcpy(pOut + at, pRequest->pData, count);
  else if (count > 0) std::memset(pOut + at, 0, count);
  at += count;
  unsigned char checksum = 0;
  for (unsigned int i = frame_start; i < at; ++i) checksum ^= pOut[i];
  pOut[at++] = checksum;
  *pnLength = at;
}

unsigned char MasterBit(const tagCOMPORTINFO &port) { return port.bPrimaryMaster.load() != 0 ? 0x80 : 0x00; }

}  // namespace

unsigned int BuildHartFrame(const tagCOMPORTINFO *pPort, const tagHARTREQUEST *pRequest,
                            unsigned int *pnLength, unsigned char *pOut) {
  Build(PreamblesFor(*pPort), MasterBit(*pPort), pRequest, pnLength, pOut);
  return 1;
}

bool BuildFrameChecked(const tagCOMPORTINFO &port, const tagHARTREQUEST &request, unsigned char *pOut,
                       unsigned int capacity, unsigned int *pnLength) {
  // One reading of the settings, so that a change between the check and the build can't
  // make the frame longer than was checked.
  const unsigned int preambles = PreamblesFor(port);
  const unsigned int header = request.nAddressFormat == 2 ? 8 : 4;
  if (preambles + header + (request.nDataCount & 0xFF) + 1 > capacity) return false;
  Build(preambles, MasterBit(port), &request, pnLength, pOut);
  return true;
}

unsigned int ExtractReplyData(unsigned int nLength, const unsigned char *pFrame, unsigned int *pnDataLen,
                              unsigned char *pOut, unsigned int *pnCommand) {
  const bool long_frame = (pFrame[0] & 0x80) != 0;
  const int base = long_frame ? 6 : 2;
  *pnCommand = pFrame[base];
  // The length comes from the frame's real length; the parser has made it agree with the count.
  const long data_len = static_cast<long>(nLength) - base - 3;
  if (data_len >= 1) {
    const unsigned int copy = data_len > 255 ? 255u : static_cast<unsigned int>(data_len);
    std::memcpy(pOut, pFrame + base + 2, copy);
    *pnDataLen = copy;
  } else {
    *pnDataLen = 0;
  }
  return 1;
}

}  // namespace velmora
