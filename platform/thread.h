// Worker threads: started at the highest priority the OS grants, joined or let go at the end.
#ifndef VELMORA_PLATFORM_THREAD_H
#define VELMORA_PLATFORM_THREAD_H

#include <memory>

namespace velmora::platform {

class Thread {
 public:
  virtual ~Thread() = default;
  // Waits for the thread's function to return.
  virtual void Join() = 0;
  // Lets the thread run on unwatched; for a worker that did not stop in time.
  virtual void Detach() = 0;
  // True when the OS granted real-time scheduling.
  virtual bool RealTime() const = 0;
};

// Starts fn(arg). Asks for real-time priority and accepts less without failing. Null if no
// thread could be started at all.
std::unique_ptr<Thread> StartThread(void (*fn)(void *), void *arg);

// True while the process is ending with the library loaded (Windows: the DLL's detach at process
// exit). Every other thread has been ended by then, perhaps inside a lock: nothing may wait.
bool ProcessExiting();

}  // namespace velmora::platform

#endif
