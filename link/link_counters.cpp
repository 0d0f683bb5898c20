// One set of counters per row of the port table.
#include "link/link_counters.h"

#include "tables/tables.h"

namespace velmora {

LinkCounters &CountersOf(const tagCOMPORTINFO &port) {
  static LinkCounters counters[kPortCount];
  const auto row = static_cast<unsigned int>(&port - &ComPortTable[0]);
  return counters[row < kPortCount ? row : 0];
}

}  // namespace velmora
