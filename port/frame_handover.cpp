// WriteToCom finds the port by its handle and hands the frame over; the worker sends it.
#include "port/frame_handover.h"

#include "link/transaction.h"
#include "tables/port_wake.h"
#include "tables/tables.h"

namespace velmora {

int FindComPort(HANDLE hComPort) {
  for (unsigned int i = 0; i < kPortCount; ++i)
    if (ComPortTable[i].hComPort.load() == hComPort) return static_cast<int>(i);
  return -1;
}

}  // namespace velmora

extern "C" unsigned int WriteToCom(HANDLE hComPort, unsigned char *pFrame, unsigned int nLength) noexcept {
  using namespace velmora;
  // -1 would match the first closed row.
  if (hComPort == NoHandle()) return kNone;
  const int row = FindComPort(hComPort);
  if (row < 0) return kNone;
  const unsigned int taken = HandOverFrame(&ComPortTable[row], pFrame, nLength);
  // A frame handed in from outside the worker's own thread must wake it.
  if (taken == 1) WakePort(static_cast<unsigned int>(row));
  return taken;
}
