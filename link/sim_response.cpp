// Storage of the simulated-response hook.
#include "link/sim_response.h"

#include <atomic>

namespace velmora {
namespace {
std::atomic<VelmoraSimResponseFn> g_sim_hook{nullptr};
}  // namespace

VelmoraSimResponseFn SimResponseHook() { return g_sim_hook.load(); }

}  // namespace velmora

extern "C" void SetSimResponseHook(VelmoraSimResponseFn pfnHook) noexcept { velmora::g_sim_hook.store(pfnHook); }
