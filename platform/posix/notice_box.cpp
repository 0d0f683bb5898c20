// The notice API on POSIX, where a window is a mailbox: post never blocks; peek, wait with time-out, and a pollable descriptor.
//
// Handles are numbers that are never reused, looked up in a registry, so that a post to a
// destroyed window fails cleanly instead of touching freed memory.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/clock.h"
#include "platform/posix/wake_signal.h"
#include "velmora.h"

namespace velmora::platform {
namespace {

constexpr size_t kMailboxLimit = 10000;  // notices a window holds before posts fail

struct Mailbox {
  std::mutex mutex;
  std::condition_variable arrived;
  std::deque<MSG> notices;
  bool destroyed = false;
  WakeSignal wake;
};

struct Registry {
  std::mutex mutex;
  std::unordered_map<std::uintptr_t, std::shared_ptr<Mailbox>> boxes;
  std::uintptr_t next_id = 0x1000;
};

Registry &TheRegistry() {
  static Registry *registry = new Registry;  // never destroyed: workers may post during exit
  return *registry;
}

std::shared_ptr<Mailbox> Lookup(HWND window) {
  if (!window) return nullptr;
  Registry &registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto found = registry.boxes.find(reinterpret_cast<std::uintptr_t>(window));
  return found == registry.boxes.end() ? nullptr : found->second;
}

bool Matches(const MSG &msg, UINT min, UINT max) {
  if (min == 0 && max == 0) return true;
  return msg.message >= min && msg.message <= max;
}

}  // namespace
}  // namespace velmora::platform

using velmora::platform::Lookup;
using velmora::platform::Mailbox;

extern "C" {

HWND CreateNoticeWindow(void) noexcept {
  try {
    auto box = std::make_shared<Mailbox>();
    if (!box->wake.Valid()) return nullptr;
    auto &registry = velmora::platform::TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    std::uintptr_t id = registry.next_id++;
    registry.boxes.emplace(id, std::move(box));
    return reinterpret_cast<HWND>(id);
  } catch (...) {
    return nullptr;
  }
}

void DestroyNoticeWindow(HWND hWnd) noexcept {
  std::shared_ptr<Mailbox> box;
  {
    auto &registry = velmora::platform::TheRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    auto found = registry.boxes.find(reinterpret_cast<std::uintptr_t>(hWnd));
    if (found == registry.boxes.end()) return;
    box = std::move(found->second);
    registry.boxes.erase(found);
  }
  std::lock_guard<std::mutex> lock(box->mutex);
  box->destroyed = true;
  box->notices.clear();
  box->wake.Lower();
  box->arrived.notify_all();
}

BOOL PostMessageA(HWND hWnd, UINT nMsg, WPARAM wParam, LPARAM lParam) noexcept {
  try {
    std::shared_ptr<Mailbox> box = Lookup(hWnd);
    if (!box) return 0;
    std::lock_guard<std::mutex> lock(box->mutex);
    if (box->destroyed || box->notices.size() >= velmora::platform::kMailboxLimit) return 0;
    box->notices.push_back(MSG{hWnd, nMsg, wParam, lParam, velmora::platform::NowMs()});
    box->wake.Raise();
    box->arrived.notify_one();
    return 1;
  } catch (...) {
    return 0;
  }
}

BOOL PeekMessageA(MSG *pMsg, HWND hWnd, UINT nMin, UINT nMax, UINT nRemove) noexcept {
  std::shared_ptr<Mailbox> box = Lookup(hWnd);
  if (!box || !pMsg) return 0;
  std::lock_guard<std::mutex> lock(box->mutex);
  for (auto it = box->notices.begin(); it != box->notices.end(); ++it) {
    if (!velmora::platform::Matches(*it, nMin, nMax)) continue;
    *pMsg = *it;
    if (nRemove & PM_REMOVE) {
      box->notices.erase(it);
      if (box->notices.empty()) box->wake.Lower();
    }
    return 1;
  }
  return 0;
}

BOOL GetMessageTimeout(MSG *pMsg, HWND hWnd, unsigned int nTimeoutMs) noexcept {
  std::shared_ptr<Mailbox> box = Lookup(hWnd);
  if (!box || !pMsg) return 0;
  std::unique_lock<std::mutex> lock(box->mutex);
  bool ready = box->arrived.wait_for(lock, std::chrono::milliseconds(nTimeoutMs),
                                     [&] { return box->destroyed || !box->notices.empty(); });
  if (!ready || box->destroyed) return 0;
  *pMsg = box->notices.front();
  box->notices.pop_front();
  if (box->notices.empty()) box->wake.Lower();
  return 1;
}

int GetNoticeWindowFd(HWND hWnd) noexcept {
  std::shared_ptr<Mailbox> box = Lookup(hWnd);
  return box ? box->wake.Fd() : -1;
}

}  // extern "C"
