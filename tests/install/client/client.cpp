// A client of the installed library: the tables answer after load.
#include <cstdio>

#include "velmora.h"

int main() {
  tagCOMPORTINFO *port = GetComPortInfo(0);
  if (!port || port->nPreambles.load() != 5 || GetComPortHandle(VELMORA_NONE) != VELMORA_INVALID_HANDLE) return 1;
  std::puts("installed library loaded");
  return 0;
}
