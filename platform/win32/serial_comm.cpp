// The Windows serial backend: a COM port opened for overlapped I/O, so that the worker waits on
// arriving bytes and on its wakeup in one WaitForMultipleObjects.
//
// Reads never block (an interval time-out of MAXDWORD returns what has arrived). RTS and DTR are
// under program control; the port's settings carry their present state, so that changing the
// rate does not move them.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/clock.h"
#include "platform/serial_line.h"

namespace velmora::platform::os {
namespace {

class CommLine final : public SerialLine {
 public:
  explicit CommLine(HANDLE handle) : handle_(handle) {
    read_.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    write_.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    wait_.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  }
  ~CommLine() override {
    // A pending event wait or write still points at this object's records: end them first, from
    // whichever thread closes.
    SetCommMask(handle_, 0);
    CancelIoEx(handle_, nullptr);  // the worker that started them may have ended
    DWORD ignored;
    if (wait_pending_) GetOverlappedResult(handle_, &wait_, &ignored, TRUE);
    if (write_pending_) GetOverlappedResult(handle_, &write_, &ignored, TRUE);
    EscapeCommFunction(handle_, CLRRTS);
    CloseHandle(handle_);
    for (HANDLE event : {read_.hEvent, write_.hEvent, wait_.hEvent})
      if (event) CloseHandle(event);
  }

  bool Setup() {
    if (!read_.hEvent || !write_.hEvent || !wait_.hEvent) return Fail();
    SetupComm(handle_, 4096, 4096);
    COMMTIMEOUTS timeouts{};
    timeouts.ReadIntervalTimeout = MAXDWORD;  // with both read totals 0: return at once
    if (!SetCommTimeouts(handle_, &timeouts)) return Fail();
    if (!SetCommMask(handle_, EV_RXCHAR)) return Fail();
    EscapeCommFunction(handle_, CLRRTS);
    return true;
  }

 private:
  bool Fail() {
    last_os_error_ = static_cast<int>(GetLastError());
    return false;
  }
  // An error that says the device is gone rather than that a call was refused.
  void FailLost() {
    Fail();
    MarkLost();
  }
  bool DoSetBaud(uint32_t baud) override {
    // Settings are set once per rate: some drivers pulse the modem lines on every change.
    if (baud == Baud()) return true;
    DCB dcb{};
    dcb.DCBlength = sizeof dcb;
    if (!GetCommState(handle_, &dcb)) return Fail();
    dcb.BaudRate = baud;
    dcb.ByteSize = 8;
    dcb.Parity = ODDPARITY;
    dcb.StopBits = ONESTOPBIT;
    dcb.fBinary = TRUE;
    dcb.fParity = TRUE;
    dcb.fOutxCtsFlow = FALSE;
    dcb.fOutxDsrFlow = FALSE;
    dcb.fDtrControl = dtr_ ? DTR_CONTROL_ENABLE : DTR_CONTROL_DISABLE;
    dcb.fRtsControl = rts_ ? RTS_CONTROL_ENABLE : RTS_CONTROL_DISABLE;
    dcb.fDsrSensitivity = FALSE;
    dcb.fOutX = FALSE;
    dcb.fInX = FALSE;
    dcb.fErrorChar = FALSE;
    dcb.fNull = FALSE;  // a 0x00 byte is data
    dcb.fAbortOnError = FALSE;  // a parity error must not stop all I/O until it is cleared
    if (!SetCommState(handle_, &dcb)) return Fail();
    return true;
  }
  bool DoSetRts(bool on) override {
    rts_ = on;
    return EscapeCommFunction(handle_, on ? SETRTS : CLRRTS) ? true : Fail();
  }
  bool DoSetDtr(bool on) override {
    dtr_ = on;
    return EscapeCommFunction(handle_, on ? SETDTR : CLRDTR) ? true : Fail();
  }
  uint32_t DoBytesWaiting() override {
    DWORD errors = 0;
    COMSTAT status{};
    // It fails once the device has gone (an unplugged adapter).
    if (!ClearCommError(handle_, &errors, &status)) {
      FailLost();
      return 0;
    }
    return status.cbInQue;
  }
  int32_t DoRead(uint8_t *buffer, uint32_t max) override {
    // Only what has arrived: some drivers (Wine's among them) let an overlapped read of an empty
    // queue wait for the first byte despite the time-outs above.
    const uint32_t waiting = DoBytesWaiting();
    if (Lost()) return -1;
    if (waiting == 0) return 0;
    DWORD got = 0;
    ResetEvent(read_.hEvent);
    if (!ReadFile(handle_, buffer, std::min(max, waiting), &got, &read_)) {
      // The bytes are there: a pending read completes at once, and the wait only collects it.
      if (GetLastError() != ERROR_IO_PENDING || !GetOverlappedResult(handle_, &read_, &got, TRUE)) {
        FailLost();
        return -1;
      }
    }
    return static_cast<int32_t>(got);
  }
  int32_t DoWrite(const uint8_t *bytes, uint32_t count) override {
    // The bytes must outlive the call: the write goes on after it returns.
    if (!FinishWrite(true)) return -1;
    count = std::min<uint32_t>(count, sizeof tx_);
    std::memcpy(tx_, bytes, count);
    DWORD put = 0;
    ResetEvent(write_.hEvent);
    if (WriteFile(handle_, tx_, count, &put, &write_)) return static_cast<int32_t>(put);
    if (GetLastError() != ERROR_IO_PENDING) {
      FailLost();
      return -1;
    }
    write_pending_ = true;
    written_ = count;
    return static_cast<int32_t>(count);
  }
  // Collects a pending write (waiting for it if `block`); false if it failed.
  bool FinishWrite(bool block) {
    if (!write_pending_) return true;
    DWORD put = 0;
    if (!GetOverlappedResult(handle_, &write_, &put, block ? TRUE : FALSE)) {
      if (GetLastError() == ERROR_IO_INCOMPLETE) return true;
      write_pending_ = false;
      FailLost();
      return false;
    }
    write_pending_ = false;
    return true;
  }
  uint64_t DoDrainedByUs() override {
    const uint64_t now = NowMicros();
    FinishWrite(false);
    DWORD errors = 0;
    COMSTAT status{};
    uint32_t queued = ClearCommError(handle_, &errors, &status) ? status.cbOutQue : 0;
    // A driver that does not count the bytes of a write still in progress: count them all.
    if (write_pending_ && queued == 0) queued = written_;
    // Drained at some moment not known: "earlier", so that a worker that looks late counts its
    // tail from when it should have looked, not from now.
    if (queued == 0) return 0;
    const uint32_t baud = Baud() ? Baud() : 1200;
    return now + uint64_t{queued} * 11u * 1000000u / baud;
  }
  WaitResult DoWait(Wakeup &wakeup, uint64_t deadline_us, bool watch_input) override {
    HANDLE handles[2] = {wakeup.Event(), nullptr};
    DWORD count = 1;
    bool poll_input = false;
    if (watch_input && !Lost()) {
      if (DoBytesWaiting() != 0) return WaitResult::kInput;
      if (Lost()) return WaitResult::kWoken;
      if (!events_work_) {
        poll_input = true;
      } else if (!wait_pending_) {
        ResetEvent(wait_.hEvent);
        mask_ = 0;
        if (WaitCommEvent(handle_, &mask_, &wait_)) return WaitResult::kInput;
        if (GetLastError() == ERROR_IO_PENDING) {
          wait_pending_ = true;
        } else {
          EventsFailed();
          poll_input = true;
        }
        // A byte that came between the look above and the start of the wait raised no event.
        if (DoBytesWaiting() != 0) return WaitResult::kInput;
      }
      if (wait_pending_) handles[count++] = wait_.hEvent;
    }
    DWORD wait_ms = INFINITE;
    if (deadline_us != kNoDeadline) {
      const uint64_t now = NowMicros();
      // Rounded up: a wait that ends before its deadline would only be repeated.
      wait_ms = deadline_us > now ? static_cast<DWORD>(std::min<uint64_t>((deadline_us - now + 999) / 1000,
                                                                          INFINITE - 1))
                                  : 0;
    }
    if (!handles[0] || poll_input) wait_ms = std::min<DWORD>(wait_ms, kFallbackPollMs);
    const DWORD ready = WaitForMultipleObjects(handles[0] ? count : count - 1, handles[0] ? handles : handles + 1,
                                               FALSE, wait_ms);
    if (ready == WAIT_TIMEOUT) return WaitResult::kDeadline;
    const bool line_event = handles[0] ? ready == WAIT_OBJECT_0 + 1 : ready == WAIT_OBJECT_0;
    if (!line_event) return WaitResult::kWoken;
    DWORD ignored = 0;
    wait_pending_ = false;
    if (!GetOverlappedResult(handle_, &wait_, &ignored, FALSE)) EventsFailed();
    return WaitResult::kInput;
  }
  // A driver that cannot wait for line events (or one that failed a wait): look for bytes every
  // few milliseconds instead. A device that has gone fails the look itself.
  void EventsFailed() {
    Fail();
    events_work_ = false;
    DoBytesWaiting();
  }
  void DoPurge() override { PurgeComm(handle_, PURGE_RXCLEAR | PURGE_TXCLEAR); }

  static constexpr DWORD kFallbackPollMs = 5;
  HANDLE handle_;
  OVERLAPPED read_{}, write_{}, wait_{};
  DWORD mask_ = 0;
  bool wait_pending_ = false, write_pending_ = false, events_work_ = true;
  bool rts_ = false, dtr_ = false;
  uint32_t written_ = 0;
  uint8_t tx_[1024];
};

LineStatus StatusOf(DWORD error) {
  switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_BAD_UNIT:
    case ERROR_DEV_NOT_EXIST: return LineStatus::kNotFound;
    // A COM port open elsewhere answers "access denied".
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION: return LineStatus::kBusy;
    default: return LineStatus::kOsError;
  }
}

}  // namespace

OpenedLine OpenOsLine(const std::string &path) {
  // COM10 and above exist only in the device namespace; the short names work there too.
  const std::string name = path.find('\\') == std::string::npos ? "\\\\.\\" + path : path;
  HANDLE handle = CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              FILE_FLAG_OVERLAPPED, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    const DWORD error = GetLastError();
    return OpenedLine{nullptr, StatusOf(error), static_cast<int>(error)};
  }
  DCB dcb{};
  dcb.DCBlength = sizeof dcb;
  if (!GetCommState(handle, &dcb)) {
    const DWORD error = GetLastError();
    CloseHandle(handle);
    return OpenedLine{nullptr, LineStatus::kNotSerial, static_cast<int>(error)};
  }
  auto *line = new (std::nothrow) CommLine(handle);
  if (!line) {
    CloseHandle(handle);
    return OpenedLine{nullptr, LineStatus::kOsError, ERROR_NOT_ENOUGH_MEMORY};
  }
  std::unique_ptr<SerialLine> owned(line);
  if (!line->Setup() || !owned->SetBaud(1200))
    return OpenedLine{nullptr, LineStatus::kOsError, owned->LastOsError()};
  return OpenedLine{std::move(owned), LineStatus::kOk, 0};
}

}  // namespace velmora::platform::os
