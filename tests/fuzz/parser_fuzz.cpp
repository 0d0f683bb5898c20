// Fuzzes the frame receiver with arbitrary chunks on a port row that no worker runs.
#include <cstdint>

#include "link/frame_parser.h"
#include "tables/tables.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tagCOMPORTINFO &port = velmora::ComPortTable[20];
  port.nMacState = 9;  // no transition: the state machine stays out of the way
  for (size_t at = 0; at < size;) {
    const size_t chunk = 1 + data[at] % 256;
    const size_t take = chunk < size - at ? chunk : size - at;
    velmora::ProcessReceivedBytes(&port, data + at, static_cast<unsigned int>(take));
    at += take;
    if (port.pRxFrame->nRxState == 4) port.pRxFrame->nRxState = 0;
  }
  return 0;
}
