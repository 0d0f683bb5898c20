// One port opened through the public interface, as any client does: a notice window, a
// registration, requests sent and their reply notices awaited, the line monitor's frames handed
// to a sink. Everything the tool does to a device goes through here.
#ifndef VELMORA_TOOLS_LINE_SESSION_H
#define VELMORA_TOOLS_LINE_SESSION_H

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "velmora.h"

namespace velmora::tool {

struct LinkSettings {
  unsigned int baud = 1200;
  unsigned int retries = 2;
  unsigned int preambles = 5;
  bool secondary = false;
  double timeout_s = 10;  // the longest wait for one request's notice
  bool history = false;   // keep a history record of each exchange
};

// Where a request goes: a polling address in a short frame, or a long address.
struct Target {
  bool long_frame = false;
  uint8_t polling_address = 0;
  std::array<uint8_t, 5> long_address{};
};

struct Reply {
  bool answered = false;  // false: no reply after all tries, or no notice in time
  uint8_t command = 0;
  uint8_t response_code = 0;
  uint8_t device_status = 0;
  std::vector<uint8_t> data;  // without the status bytes
};

// A frame (or a time-out) off the line monitor.
struct MonitorFrame {
  std::vector<uint8_t> bytes;  // as on the line, preambles included; empty for a time-out
  unsigned int code = 0;       // 0 a frame; else the monitor's time-out or error code
  int32_t gap_ms = 0;          // from the end of the frame before
  int32_t frame_ms = 0;        // from its first byte to its last
  std::chrono::system_clock::time_point start;  // when its first byte was on the line
};

class LineSession {
 public:
  using FrameSink = std::function<void(const MonitorFrame &)>;

  LineSession() = default;
  LineSession(const LineSession &) = delete;
  LineSession &operator=(const LineSession &) = delete;
  ~LineSession();

  // port: a device path or a port number (1..32). False with a message for the user.
  bool Open(const std::string &port, const LinkSettings &settings, std::string &error);
  // Every frame on the line goes to the sink from now on, while the session waits.
  bool WatchLine(FrameSink sink);

  // Sends one request and waits for its reply; error says why there is none.
  Reply Transact(const Target &target, uint8_t command, const std::vector<uint8_t> &data, std::string &error);
  // Waits, handing frames to the sink, until the time has passed or a stop is asked for.
  void Listen(std::chrono::milliseconds duration);
  // True once the line has gone away (the device file vanished or its far end closed).
  bool LineLost() const { return lost_; }
  const std::string &Device() const { return device_; }

 private:
  // Handles one notice; true if it is the reply to hServ.
  bool Dispatch(const MSG &msg, unsigned int hServ);

  HWND window_ = nullptr;
  unsigned int app_ = VELMORA_NONE;
  bool monitoring_ = false;
  bool lost_ = false;
  LinkSettings settings_;
  std::string device_;
  FrameSink sink_;
};

}  // namespace velmora::tool

#endif
