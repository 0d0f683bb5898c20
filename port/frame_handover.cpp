// WriteToCom lays a frame in abTxFrame and sets nTxRequest; the worker's next pass sends it.
#include "port/frame_handover.h"

#include <cstring>

#include "core/tables.h"

namespace velmora {

int FindComPort(HANDLE hComPort) {
  for (unsigned int i = 0; i < kPortCount; ++i)
    if (ComPortTable[i].hComPort.load() == hComPort) return static_cast<int>(i);
  return -1;
}

}  // namespace velmora

extern "C" unsigned int WriteToCom(HANDLE hComPort, unsigned char *pFrame, unsigned int nLength) noexcept {
  using namespace velmora;
  // -1 would match the first closed row; a frame over the buffer would run past it.
  if (hComPort == NoHandle() || nLength > kMaxFrame || (!pFrame && nLength)) return kNone;
  const int row = FindComPort(hComPort);
  if (row < 0) return kNone;
  tagCOMPORTINFO &port = ComPortTable[row];
  if (port.nTxRequest.load() != 0) return 0;
  if (nLength) std::memcpy(port.abTxFrame, pFrame, nLength);
  port.nTxFrameLen = nLength;
  port.nTxRequest = 1;
  return 1;
}
