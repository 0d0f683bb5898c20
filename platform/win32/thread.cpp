// Windows threads: time-critical priority where permitted, and the system timer at 1 ms for as
// long as a worker runs, so that its waits end within a millisecond rather than a 15.6 ms tick.
#include <windows.h>
#include <process.h>
#include <timeapi.h>

#include <atomic>
#include <new>

#include "platform/thread.h"

namespace velmora::platform {
namespace {

std::atomic<bool> g_process_exiting{false};

class Win32Thread final : public Thread {
 public:
  Win32Thread(HANDLE handle, bool real_time) : handle_(handle), real_time_(real_time) {}
  ~Win32Thread() override {
    if (handle_) CloseHandle(handle_);
  }
  void Join() override {
    if (!handle_) return;
    WaitForSingleObject(handle_, INFINITE);
    CloseHandle(handle_);
    handle_ = nullptr;
  }
  void Detach() override {
    if (!handle_) return;
    CloseHandle(handle_);
    handle_ = nullptr;
  }
  bool RealTime() const override { return real_time_; }

 private:
  HANDLE handle_;
  bool real_time_;
};

struct Trampoline {
  void (*fn)(void *);
  void *arg;
};

unsigned __stdcall Run(void *raw) {
  Trampoline t = *static_cast<Trampoline *>(raw);
  delete static_cast<Trampoline *>(raw);
  // The system counts these calls: the period goes back once the last worker has ended.
  timeBeginPeriod(1);
  t.fn(t.arg);
  timeEndPeriod(1);
  return 0;
}

}  // namespace

std::unique_ptr<Thread> StartThread(void (*fn)(void *), void *arg) {
  auto *trampoline = new (std::nothrow) Trampoline{fn, arg};
  if (!trampoline) return nullptr;
  // Suspended, so that the priority is in force before the first instruction of the worker.
  const uintptr_t raw = _beginthreadex(nullptr, 0, Run, trampoline, CREATE_SUSPENDED, nullptr);
  if (raw == 0) {
    delete trampoline;
    return nullptr;
  }
  HANDLE handle = reinterpret_cast<HANDLE>(raw);
  const bool real_time = SetThreadPriority(handle, THREAD_PRIORITY_TIME_CRITICAL) != 0;
  ResumeThread(handle);
  auto *thread = new (std::nothrow) Win32Thread(handle, real_time);
  if (!thread) {
    // Nobody can join it now; let it run to its end.
    CloseHandle(handle);
    return nullptr;
  }
  return std::unique_ptr<Thread>(thread);
}

bool ProcessExiting() { return g_process_exiting.load(); }

}  // namespace velmora::platform

// The DLL's entry. The runtime calls it before it runs the library's destructors, so they know
// whether the process is ending (threads already gone) or the DLL is being unloaded.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_DETACH && reserved != nullptr) velmora::platform::g_process_exiting = true;
  return TRUE;
}
