// The serial line: what the port layer needs of a serial device, with one contract for every
// backend (POSIX termios for real ports and pseudo-terminals, the in-memory line for tests).
#ifndef VELMORA_PLATFORM_SERIAL_LINE_H
#define VELMORA_PLATFORM_SERIAL_LINE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/wakeup.h"

namespace velmora::platform {

// Waits on the platform clock: no deadline at all.
constexpr uint64_t kNoDeadline = UINT64_MAX;

// Why a wait ended.
enum class WaitResult { kInput, kWoken, kDeadline };

// Whose fault a failure was, with the OS error kept for the trace.
enum class LineStatus { kOk, kNotFound, kBusy, kNotSerial, kOsError, kBadArgument };

const char *LineStatusText(LineStatus status);

class SerialLine {
 public:
  virtual ~SerialLine() = default;

  // 1200, 9600 or 19200 baud; 8 data bits, odd parity, 1 stop bit, raw, no flow control.
  bool SetBaud(uint32_t baud);
  uint32_t Baud() const { return baud_; }
  // An RTS or DTR request the device refuses (a pseudo-terminal) reports false; callers ignore it.
  bool SetRts(bool on) { return DoSetRts(on); }
  bool SetDtr(bool on) { return DoSetDtr(on); }
  // Bytes waiting in the input.
  uint32_t BytesWaiting() { return DoBytesWaiting(); }
  // Reads up to max bytes without blocking; 0 when none wait, -1 on a device error.
  int32_t Read(uint8_t *buffer, uint32_t max);
  // Starts writing; may return before the bytes have left. Bytes accepted, -1 on error.
  int32_t Write(const uint8_t *bytes, uint32_t count);
  // When the output will have drained, on the platform clock in microseconds; the present or
  // earlier once it has. The worker arms its drain deadline with it rather than block.
  uint64_t DrainedByUs() { return DoDrainedByUs(); }
  // Waits until input waits (if watch_input), the wakeup is raised, or the platform clock reaches
  // deadline_us. Under a virtual clock it advances the clock a millisecond at a time instead.
  // Does not take the raise: the woken caller does.
  WaitResult Wait(Wakeup &wakeup, uint64_t deadline_us, bool watch_input);
  // Drops all unsent output and unread input.
  void Purge() { DoPurge(); }
  int LastOsError() const { return last_os_error_; }
  // The device went away (unplugged, or the far end of a pseudo-terminal closed): a read or
  // write failed, or the wait saw a hang-up. Final: the line object is of no further use.
  bool Lost() const { return lost_.load(std::memory_order_acquire); }

 protected:
  void MarkLost() { lost_.store(true, std::memory_order_release); }
  int last_os_error_ = 0;

 private:
  virtual bool DoSetBaud(uint32_t baud) = 0;
  virtual bool DoSetRts(bool on) = 0;
  virtual bool DoSetDtr(bool on) = 0;
  virtual uint32_t DoBytesWaiting() = 0;
  virtual int32_t DoRead(uint8_t *buffer, uint32_t max) = 0;
  virtual int32_t DoWrite(const uint8_t *bytes, uint32_t count) = 0;
  virtual uint64_t DoDrainedByUs() = 0;
  virtual WaitResult DoWait(Wakeup &wakeup, uint64_t deadline_us, bool watch_input) = 0;
  virtual void DoPurge() = 0;

  uint32_t baud_ = 0;
  std::atomic<bool> lost_{false};
};

struct OpenedLine {
  std::unique_ptr<SerialLine> line;
  LineStatus status = LineStatus::kOk;
  int os_error = 0;
};

// Opens a device by name, exclusively. "mem:NAME" is the first end of the in-memory line NAME;
// anything else is a device path for the OS backend. The line rests with RTS off.
OpenedLine OpenSerialLine(const std::string &device);

namespace os {
// The OS backend: termios on POSIX, the Win32 communications calls on Windows.
OpenedLine OpenOsLine(const std::string &path);
}

}  // namespace velmora::platform

#endif
