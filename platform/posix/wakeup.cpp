// Wakeup on POSIX: an eventfd beside the condition variable.
#include "platform/wakeup.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace velmora::platform {

Wakeup::Wakeup() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Wakeup::~Wakeup() {
  if (fd_ >= 0) close(fd_);
}

void Wakeup::Raise() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    raised_ = true;
  }
  cv_.notify_all();
  // One count in the descriptor is enough, however often it is raised.
  if (fd_ >= 0 && !fd_set_.exchange(true)) {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t put = write(fd_, &one, sizeof one);
  }
}

bool Wakeup::Take() {
  // The descriptor first: a raise that lands between the two steps then leaves it readable
  // (a spare wake) rather than a raised flag behind an empty descriptor (a lost one).
  // The read is unconditional: a raise's write may land just after the flag was cleared.
  if (fd_ >= 0) {
    fd_set_.store(false);
    uint64_t count;
    [[maybe_unused]] ssize_t got = read(fd_, &count, sizeof count);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  const bool was = raised_;
  raised_ = false;
  return was;
}

}  // namespace velmora::platform
