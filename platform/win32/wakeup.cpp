// Wakeup on Windows: a manual-reset event beside the condition variable.
#include "platform/wakeup.h"

#include <windows.h>

namespace velmora::platform {

Wakeup::Wakeup() : event_(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}

Wakeup::~Wakeup() {
  if (event_) CloseHandle(event_);
}

void Wakeup::Raise() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    raised_ = true;
  }
  cv_.notify_all();
  if (event_) SetEvent(event_);
}

bool Wakeup::Take() {
  // The event first: a raise that lands between the two steps then leaves it signalled (a spare
  // wake) rather than a raised flag behind an unsignalled event (a lost one).
  if (event_) ResetEvent(event_);
  std::lock_guard<std::mutex> lock(mutex_);
  const bool was = raised_;
  raised_ = false;
  return was;
}

}  // namespace velmora::platform
