// Per-port runtime records, one per row of the port table.
#include "port/port_runtime.h"

#include "core/tables.h"

namespace velmora {
namespace {

PortRuntime &Runtimes(unsigned int index) {
  // Never destroyed: a worker that outlived its close may still reach its record at exit.
  static PortRuntime *runtimes = new PortRuntime[kPortCount];
  return runtimes[index < kPortCount ? index : 0];
}

std::atomic<VelmoraSimResponseFn> g_sim_hook{nullptr};

}  // namespace

PortRuntime &RuntimeOf(unsigned int nDriverId) { return Runtimes(nDriverId); }

PortRuntime &RuntimeOf(const tagCOMPORTINFO &port) {
  return Runtimes(static_cast<unsigned int>(&port - &ComPortTable[0]));
}

platform::SerialLine *LineOf(const tagCOMPORTINFO &port) { return RuntimeOf(port).line.get(); }

VelmoraSimResponseFn SimResponseHook() { return g_sim_hook.load(); }

}  // namespace velmora

extern "C" void SetSimResponseHook(VelmoraSimResponseFn pfnHook) noexcept { velmora::g_sim_hook.store(pfnHook); }
