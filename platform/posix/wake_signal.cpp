// WakeSignal on POSIX: a non-blocking pipe holding one byte while raised.
#include "platform/posix/wake_signal.h"

#include <fcntl.h>
#include <unistd.h>

namespace velmora::platform {

WakeSignal::WakeSignal() {
  int fds[2];
  if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) == 0) {
    read_fd_ = fds[0];
    write_fd_ = fds[1];
  }
}

WakeSignal::~WakeSignal() {
  if (read_fd_ >= 0) close(read_fd_);
  if (write_fd_ >= 0) close(write_fd_);
}

void WakeSignal::Raise() {
  if (raised_ || write_fd_ < 0) return;
  const char one = 1;
  raised_ = write(write_fd_, &one, 1) == 1;
}

void WakeSignal::Lower() {
  if (!raised_ || read_fd_ < 0) return;
  char byte;
  while (read(read_fd_, &byte, 1) == 1) {
  }
  raised_ = false;
}

}  // namespace velmora::platform
