// The checks every backend shares, and the choice of backend by device name.
#include "platform/serial_line.h"

#include "platform/clock.h"
#include "platform/memory_line.h"

namespace velmora::platform {

const char *LineStatusText(LineStatus status) {
  switch (status) {
    case LineStatus::kOk: return "ok";
    case LineStatus::kNotFound: return "no such device";
    case LineStatus::kBusy: return "device in use";
    case LineStatus::kNotSerial: return "not a serial device";
    case LineStatus::kOsError: return "operating system error";
    case LineStatus::kBadArgument: return "bad argument";
  }
  return "unknown";
}

bool SerialLine::SetBaud(uint32_t baud) {
  if (baud != 1200 && baud != 9600 && baud != 19200) return false;
  if (!DoSetBaud(baud)) return false;
  baud_ = baud;
  return true;
}

int32_t SerialLine::Read(uint8_t *buffer, uint32_t max) {
  if (!buffer || max == 0) return 0;
  return DoRead(buffer, max);
}

int32_t SerialLine::Write(const uint8_t *bytes, uint32_t count) {
  if (!bytes || count == 0) return 0;
  return DoWrite(bytes, count);
}

WaitResult SerialLine::Wait(Wakeup &wakeup, uint64_t deadline_us, bool watch_input) {
  if (!InstalledVirtualClock()) return DoWait(wakeup, deadline_us, watch_input);
  for (;;) {
    if (watch_input && BytesWaiting() != 0) return WaitResult::kInput;
    if (wakeup.Raised()) return WaitResult::kWoken;
    if (NowMicros() >= deadline_us) return WaitResult::kDeadline;
    SleepMs(1);
  }
}

OpenedLine OpenSerialLine(const std::string &device) {
  static const std::string kMemoryPrefix = "mem:";
  if (device.compare(0, kMemoryPrefix.size(), kMemoryPrefix) == 0)
    return MemoryLine::OpenByName(device.substr(kMemoryPrefix.size()));
  return os::OpenOsLine(device);
}

}  // namespace velmora::platform
