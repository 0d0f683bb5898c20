// What a port needs beside its public row: the serial line, the worker thread, the receive
// buffer and the counters of frames the receiver dropped.
#ifndef VELMORA_PORT_PORT_RUNTIME_H
#define VELMORA_PORT_PORT_RUNTIME_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/serial_line.h"
#include "platform/thread.h"
#include "velmora.h"

namespace velmora {

struct LinkCounters {
  std::atomic<uint32_t> frames_discarded{0};  // noise, bad delimiter, impossible byte count
  std::atomic<uint32_t> frames_cut_off{0};    // given up by the gap rule
  std::atomic<uint32_t> frames_bad_checksum{0};
};

struct PortRuntime {
  std::unique_ptr<platform::SerialLine> line;
  std::unique_ptr<platform::Thread> thread;
  std::atomic<bool> started{false};  // the worker has passed its start-up
  unsigned char rx_buffer[256] = {};
  LinkCounters counters;
  // Requests from application threads that the worker carries out on its own element.
  std::atomic<bool> mark_active_cleared{false};
  std::atomic<bool> drop_active{false};
};

PortRuntime &RuntimeOf(unsigned int nDriverId);
PortRuntime &RuntimeOf(const tagCOMPORTINFO &port);
platform::SerialLine *LineOf(const tagCOMPORTINFO &port);

// The installed simulated-response hook, or null.
VelmoraSimResponseFn SimResponseHook();

}  // namespace velmora

#endif
