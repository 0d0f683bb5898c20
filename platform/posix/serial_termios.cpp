// The POSIX serial backend: real ports and pseudo-terminals through termios.
//
// Traps it avoids: Linux raises RTS and DTR inside open(), so RTS is cleared at once; settings
// are never verified by reading them back, because a pseudo-terminal reads odd parity back as
// none.
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "platform/clock.h"
#include "platform/posix/termios_settings.h"
#include "platform/serial_line.h"

namespace velmora::platform::os {
namespace {

class TermiosLine final : public SerialLine {
 public:
  explicit TermiosLine(int fd) : fd_(fd) {}
  ~TermiosLine() override {
    flock(fd_, LOCK_UN);
    close(fd_);
  }

  bool Setup() {
    termios tio{};
    if (tcgetattr(fd_, &tio) != 0) return Fail();
    MakeHartLineSettings(tio, 1200);
    if (tcsetattr(fd_, TCSANOW, &tio) == 0) return true;
    // A pseudo-terminal that an earlier master left with odd parity refuses parity again
    // (EINVAL); it has no parity bit on its wire anyway, so take it without.
    if (errno != EINVAL) return Fail();
    tio.c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD);
    if (tcsetattr(fd_, TCSANOW, &tio) != 0) return Fail();
    return true;
  }

 private:
  bool Fail() {
    last_os_error_ = errno;
    return false;
  }
  bool DoSetBaud(uint32_t baud) override {
    termios tio{};
    if (tcgetattr(fd_, &tio) != 0) return Fail();
    cfsetispeed(&tio, SpeedOf(baud));
    cfsetospeed(&tio, SpeedOf(baud));
    if (tcsetattr(fd_, TCSANOW, &tio) != 0) return Fail();
    return true;
  }
  bool SetModemBit(int bit, bool on) {
    if (ioctl(fd_, on ? TIOCMBIS : TIOCMBIC, &bit) != 0) return Fail();
    return true;
  }
  bool DoSetRts(bool on) override { return SetModemBit(TIOCM_RTS, on); }
  bool DoSetDtr(bool on) override { return SetModemBit(TIOCM_DTR, on); }
  uint32_t DoBytesWaiting() override {
    int waiting = 0;
    if (ioctl(fd_, FIONREAD, &waiting) != 0) {
      Fail();
      return 0;
    }
    return waiting > 0 ? static_cast<uint32_t>(waiting) : 0;
  }
  int32_t DoRead(uint8_t *buffer, uint32_t max) override {
    ssize_t got = read(fd_, buffer, max);
    if (got >= 0) return static_cast<int32_t>(got);
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
    Fail();
    MarkLost();
    return -1;
  }
  int32_t DoWrite(const uint8_t *bytes, uint32_t count) override {
    uint32_t done = 0;
    while (done < count) {
      ssize_t put = write(fd_, bytes + done, count - done);
      if (put > 0) {
        done += static_cast<uint32_t>(put);
      } else if (put < 0 && errno == EINTR) {
        continue;
      } else {
        if (put < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
          Fail();
          MarkLost();
          if (done == 0) return -1;
        }
        break;
      }
    }
    return static_cast<int32_t>(done);
  }
  uint64_t DoDrainedByUs() override {
    const uint64_t now = NowMicros();
    int queued = 0;
    // Drained at some moment not known: "earlier", so that a worker that looks late counts its
    // tail from when it should have looked, not from now.
    if (ioctl(fd_, TIOCOUTQ, &queued) != 0 || queued <= 0) return 0;
    const uint32_t baud = Baud() ? Baud() : 1200;
    return now + static_cast<uint64_t>(queued) * 11u * 1000000u / baud;
  }
  WaitResult DoWait(Wakeup &wakeup, uint64_t deadline_us, bool watch_input) override {
    // A negative descriptor is left out: poll() reports a hang-up even when asked for nothing.
    pollfd fds[2] = {{watch_input && !Lost() ? fd_ : -1, POLLIN, 0}, {wakeup.Fd(), POLLIN, 0}};
    uint64_t wait_us = deadline_us;
    const uint64_t now = NowMicros();
    if (deadline_us != kNoDeadline) wait_us = deadline_us > now ? deadline_us - now : 0;
    // Without a wake descriptor, look again every few milliseconds instead.
    if (wakeup.Fd() < 0) wait_us = std::min<uint64_t>(wait_us, kFallbackPollUs);
    timespec timeout{static_cast<time_t>(wait_us / 1000000u), static_cast<long>(wait_us % 1000000u * 1000u)};
    const int ready = ppoll(fds, 2, wait_us == kNoDeadline ? nullptr : &timeout, nullptr);
    if (ready <= 0) return ready == 0 ? WaitResult::kDeadline : WaitResult::kWoken;
    // A hang-up polls ready for ever: the device is gone (unplugged, or the far end closed).
    if (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) {
      MarkLost();
      return WaitResult::kWoken;
    }
    if (fds[1].revents & POLLIN) return WaitResult::kWoken;
    return (fds[0].revents & POLLIN) ? WaitResult::kInput : WaitResult::kWoken;
  }
  void DoPurge() override { tcflush(fd_, TCIOFLUSH); }

  static constexpr uint64_t kFallbackPollUs = 5000;
  int fd_;
};

}  // namespace

OpenedLine OpenOsLine(const std::string &path) {
  int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    int error = errno;
    LineStatus status = (error == ENOENT || error == ENXIO || error == ENODEV) ? LineStatus::kNotFound
                        : (error == EBUSY)                                   ? LineStatus::kBusy
                                                                             : LineStatus::kOsError;
    return OpenedLine{nullptr, status, error};
  }
  // Exclusive: TIOCEXCL keeps other opens out (except root's), the lock keeps out other masters.
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    int error = errno;
    close(fd);
    return OpenedLine{nullptr, LineStatus::kBusy, error};
  }
  if (!isatty(fd)) {
    flock(fd, LOCK_UN);
    close(fd);
    return OpenedLine{nullptr, LineStatus::kNotSerial, ENOTTY};
  }
  ioctl(fd, TIOCEXCL);
  // Linux raised RTS and DTR in open(); a HART modem transmits while RTS is up.
  int rts = TIOCM_RTS;
  ioctl(fd, TIOCMBIC, &rts);
  auto *line = new (std::nothrow) TermiosLine(fd);
  if (!line) {
    close(fd);
    return OpenedLine{nullptr, LineStatus::kOsError, ENOMEM};
  }
  std::unique_ptr<SerialLine> owned(line);
  if (!line->Setup()) return OpenedLine{nullptr, LineStatus::kOsError, line->LastOsError()};
  owned->SetBaud(1200);
  return OpenedLine{std::move(owned), LineStatus::kOk, 0};
}

}  // namespace velmora::platform::os
