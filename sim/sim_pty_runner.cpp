// The simulated line on a pseudo-terminal: creation, raw mode, and the paced read-write loop.
#include "sim/sim_pty_runner.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/clock.h"

namespace velmora::sim {

PtyRunner::PtyRunner(LineConfig config) : core_(config) {}

PtyRunner::~PtyRunner() {
  Stop();
  Close();
}

bool PtyRunner::Open(std::string *error) {
  auto fail = [&](const char *what) {
    if (error) *error = std::string(what) + ": " + std::strerror(errno);
    Close();
    return false;
  };
  fd_ = posix_openpt(O_RDWR | O_NOCTTY);
  if (fd_ < 0) return fail("posix_openpt");
  if (grantpt(fd_) != 0) return fail("grantpt");
  if (unlockpt(fd_) != 0) return fail("unlockpt");
  const char *name = ptsname(fd_);
  if (!name) return fail("ptsname");
  path_ = name;
  // Raw both ways, so that no byte is translated or echoed before the master sets its own
  // mode; the termios of the pair is shared, so this also holds for the far side.
  termios tio{};
  if (tcgetattr(fd_, &tio) != 0) return fail("tcgetattr");
  cfmakeraw(&tio);
  tio.c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD);
  if (tcsetattr(fd_, TCSANOW, &tio) != 0) return fail("tcsetattr");
  int flags = fcntl(fd_, F_GETFL);
  if (flags < 0 || fcntl(fd_, F_SETFL, flags | O_NONBLOCK) != 0) return fail("fcntl");
  fcntl(fd_, F_SETFD, FD_CLOEXEC);
  return true;
}

void PtyRunner::ClearStaleParity() {
  // A pseudo-terminal takes a master's odd parity but keeps only PARODD, without PARENB. With
  // that left over, Linux refuses the next request for odd parity (EINVAL), so a master that
  // closes and opens the terminal again could not set it up. Clearing PARODD changes nothing
  // on a pseudo-terminal, which carries no parity, and keeps it ready for the next open.
  termios tio{};
  if (tcgetattr(fd_, &tio) != 0) return;
  if ((tio.c_cflag & PARODD) == 0 || (tio.c_cflag & PARENB) != 0) return;
  tio.c_cflag &= ~static_cast<tcflag_t>(PARODD);
  tcsetattr(fd_, TCSANOW, &tio);
}

void PtyRunner::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

void PtyRunner::Poll() {
  std::lock_guard<std::mutex> lock(mutex_);
  uint64_t now_us = platform::NowMicros();
  if (fd_ >= 0) {
    uint8_t buffer[256];
    for (;;) {
      ssize_t got = read(fd_, buffer, sizeof buffer);
      if (got < 0 && errno == EIO) {
        // No master has the terminal open: nothing to read, keep waiting.
        if (connected_) core_.Log().Note(now_us, "master closed the terminal");
        connected_ = false;
        break;
      }
      if (!connected_ && (got > 0 || (got < 0 && errno == EAGAIN))) {
        connected_ = true;
        core_.Log().Note(now_us, "master opened the terminal");
      }
      if (got <= 0) break;
      for (ssize_t i = 0; i < got; ++i) {
        rx_line_free_us_ = std::max(now_us, rx_line_free_us_ + core_.CharTimeUs());
        incoming_.push_back(OutByte{buffer[i], rx_line_free_us_});
      }
      if (core_.Config().echo) echo_.insert(echo_.end(), buffer, buffer + got);
    }
  }
  while (!incoming_.empty() && incoming_.front().start_us <= now_us) {
    core_.Receive(incoming_.front().value, incoming_.front().start_us, now_us);
    incoming_.pop_front();
  }
  if (fd_ >= 0) ClearStaleParity();
  core_.Advance(now_us);
  for (const OutByte &out : core_.TakeOutput()) queue_.push_back(out);
  WriteDue(now_us);
}

void PtyRunner::WriteDue(uint64_t now_us) {
  if (fd_ < 0) {
    queue_.clear();
    echo_.clear();
    return;
  }
  if (!echo_.empty()) {
    ssize_t put = write(fd_, echo_.data(), echo_.size());
    if (put > 0)
      echo_.erase(echo_.begin(), echo_.begin() + put);
    else if (put < 0 && errno != EAGAIN && errno != EINTR)
      echo_.clear();
  }
  // A byte is handed over when its stop bit would have ended on a real line.
  uint64_t char_us = core_.CharTimeUs();
  std::vector<uint8_t> due;
  for (const OutByte &out : queue_) {
    if (out.start_us + char_us > now_us) break;
    due.push_back(out.value);
  }
  if (due.empty()) return;
  ssize_t put = write(fd_, due.data(), due.size());
  // Nobody has the terminal open (EIO) or another error: the bytes are lost, as on an open line.
  size_t done = put >= 0 ? static_cast<size_t>(put) : (errno == EAGAIN || errno == EINTR ? 0 : due.size());
  queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(done));
}

void PtyRunner::RunUntil(const std::function<bool()> &should_stop) {
  while (!should_stop()) {
    Poll();
    platform::os::SleepMicros(1000);
  }
}

void PtyRunner::Start() {
  Stop();
  running_ = true;
  thread_ = std::thread([this] { RunUntil([this] { return !running_.load(); }); });
}

void PtyRunner::Stop() {
  running_ = false;
  if (thread_.joinable()) thread_.join();
}

}  // namespace velmora::sim
