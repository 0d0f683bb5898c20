// Counters of the frames the receiver dropped, per port: nothing reports these events otherwise.
#ifndef VELMORA_LINK_LINK_COUNTERS_H
#define VELMORA_LINK_LINK_COUNTERS_H

#include <atomic>
#include <cstdint>

#include "velmora.h"

namespace velmora {

struct LinkCounters {
  std::atomic<uint32_t> frames_discarded{0};  // noise, bad delimiter, impossible byte count
  std::atomic<uint32_t> frames_cut_off{0};    // given up by the gap rule
  std::atomic<uint32_t> frames_bad_checksum{0};
};

LinkCounters &CountersOf(const tagCOMPORTINFO &port);

}  // namespace velmora

#endif
