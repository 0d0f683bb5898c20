// POSIX threads: SCHED_FIFO at its top priority when permitted, else the default policy.
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>

#include <new>

#include "platform/thread.h"

namespace velmora::platform {
namespace {

class PosixThread final : public Thread {
 public:
  PosixThread(pthread_t handle, bool real_time) : handle_(handle), real_time_(real_time) {}
  ~PosixThread() override {
    if (!done_) pthread_detach(handle_);
  }
  void Join() override {
    if (done_) return;
    pthread_join(handle_, nullptr);
    done_ = true;
  }
  void Detach() override {
    if (done_) return;
    pthread_detach(handle_);
    done_ = true;
  }
  bool RealTime() const override { return real_time_; }

 private:
  pthread_t handle_;
  bool real_time_;
  bool done_ = false;
};

struct Trampoline {
  void (*fn)(void *);
  void *arg;
};

void *Run(void *raw) {
  Trampoline t = *static_cast<Trampoline *>(raw);
  delete static_cast<Trampoline *>(raw);
  // The worker's deadlines are a millisecond apart: the default 50 us of timer slack would
  // make every one of them late.
  prctl(PR_SET_TIMERSLACK, 1UL);
  t.fn(t.arg);
  return nullptr;
}

}  // namespace

std::unique_ptr<Thread> StartThread(void (*fn)(void *), void *arg) {
  auto *trampoline = new (std::nothrow) Trampoline{fn, arg};
  if (!trampoline) return nullptr;
  pthread_t handle;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  sched_param param{};
  param.sched_priority = sched_get_priority_max(SCHED_FIFO);
  bool real_time = pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED) == 0 &&
                   pthread_attr_setschedpolicy(&attr, SCHED_FIFO) == 0 &&
                   pthread_attr_setschedparam(&attr, &param) == 0 &&
                   pthread_create(&handle, &attr, Run, trampoline) == 0;
  pthread_attr_destroy(&attr);
  // Without the privilege for real-time scheduling, run at the default priority.
  if (!real_time && pthread_create(&handle, nullptr, Run, trampoline) != 0) {
    delete trampoline;
    return nullptr;
  }
  return std::unique_ptr<Thread>(new (std::nothrow) PosixThread(handle, real_time));
}

// A shared object's destructors run while the process's threads still run: stop them as usual.
bool ProcessExiting() { return false; }

}  // namespace velmora::platform
