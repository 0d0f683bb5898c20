// Per-port runtime records, one per row of the port table.
#include "port/port_runtime.h"

#include "tables/tables.h"

namespace velmora {
namespace {

PortRuntime &Runtimes(unsigned int index) {
  // Never destroyed: a worker that outlived its close may still reach its record at exit.
  static PortRuntime *runtimes = new PortRuntime[kPortCount];
  return runtimes[index < kPortCount ? index : 0];
}

}  // namespace

PortRuntime &RuntimeOf(unsigned int nDriverId) { return Runtimes(nDriverId); }

PortRuntime &RuntimeOf(const tagCOMPORTINFO &port) {
  return Runtimes(static_cast<unsigned int>(&port - &ComPortTable[0]));
}

platform::SerialLine *LineOf(const tagCOMPORTINFO &port) { return RuntimeOf(port).line.get(); }

}  // namespace velmora
