// The session over the public interface: registration, requests and notices.
#include "line_session.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "port_problem.h"
#include "terminal.h"

namespace velmora::tool {
namespace {

// Message numbers of the notices, above the system's range.
constexpr unsigned int kReplyMsg = 0x8101, kLinkEventMsg = 0x8102, kHistoryMsg = 0x8103, kMonitorMsg = 0x8104;
constexpr unsigned int kSlicMs = 100;  // notice waits are cut so that Ctrl-C is seen soon

unsigned int BaudCode(unsigned int baud) { return baud == 19200 ? 2 : baud == 9600 ? 1 : 0; }

bool AllDigits(const std::string &text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
}

int32_t LittleEndian32(const unsigned char *at) {
  return static_cast<int32_t>(at[0] | (static_cast<uint32_t>(at[1]) << 8) | (static_cast<uint32_t>(at[2]) << 16) |
                              (static_cast<uint32_t>(at[3]) << 24));
}

// The monitor stamps notices with the library's clock (monotonic milliseconds); the wall time
// of the frame is now less the notice's age less the frame's length.
std::chrono::system_clock::time_point FrameStart(const MSG &msg, int32_t frame_ms) {
  const auto now = std::chrono::system_clock::now();
  const auto mono_ms = static_cast<uint32_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch()).count());
  uint32_t age = mono_ms - static_cast<uint32_t>(msg.time);
  if (age > 10000) age = 0;  // another time base: the notice is taken as fresh
  return now - std::chrono::milliseconds(age) - std::chrono::milliseconds(frame_ms > 0 ? frame_ms : 0);
}

}  // namespace

LineSession::~LineSession() {
  if (app_ != VELMORA_NONE) {
    if (monitoring_) UnRegisterLLMonitor(app_);
    HART_UnRegisterDriver(app_);
  }
  if (window_) {
    // Monitor notices own their byte arrays: take them out before the window goes.
    MSG msg;
    while (PeekMessageA(&msg, window_, 0, 0, PM_REMOVE))
      if (msg.message == kMonitorMsg) delete reinterpret_cast<CByteArray *>(msg.lParam);
    DestroyNoticeWindow(window_);
  }
}

bool LineSession::Open(const std::string &port, const LinkSettings &settings, std::string &error) {
  settings_ = settings;
  unsigned int number = 1;
  if (AllDigits(port)) {
    number = static_cast<unsigned int>(std::stoul(port.substr(0, 3)));
    if (number < 1 || number > 32) {
      error = "port " + port + " does not exist: port numbers are 1 to 32 (port n is /dev/ttyS<n-1>), or give a "
              "device path such as /dev/ttyUSB0";
      return false;
    }
    device_ = "/dev/ttyS" + std::to_string(number - 1);
  } else {
    device_ = port;
    SetComPortDevice(number, port.c_str());
  }
  window_ = CreateNoticeWindow();
  if (!window_) {
    error = "cannot make a notice window";
    return false;
  }
  tagHARTREGISTRATION registration{window_, number, BaudCode(settings.baud), kLinkEventMsg, kReplyMsg,
                                   settings.history ? kHistoryMsg : 0u, 1};
  if (!HART_RegisterDriver(&registration, &app_)) {
    app_ = VELMORA_NONE;
    error = DiagnosePort(device_);
    if (error.empty()) error = "cannot open " + device_ + " as a HART port";
    return false;
  }
  tagHARTCONFIG config{settings.secondary ? 0u : 1u, settings.preambles, settings.retries, BaudCode(settings.baud), 0};
  HART_SetConfiguration(app_, &config);
  return true;
}

bool LineSession::WatchLine(FrameSink sink) {
  sink_ = std::move(sink);
  monitoring_ = RegisterLLMonitor(app_, window_, kMonitorMsg) == 1;
  return monitoring_;
}

bool LineSession::Dispatch(const MSG &msg, unsigned int hServ) {
  if (msg.message == kMonitorMsg) {
    auto *array = reinterpret_cast<CByteArray *>(msg.lParam);
    if (!array) return false;
    const auto size = static_cast<size_t>(array->GetSize());
    if (sink_ && size >= 8) {
      const unsigned char *bytes = array->GetData();
      MonitorFrame frame;
      frame.bytes.assign(bytes, bytes + size - 8);
      frame.code = static_cast<unsigned int>(msg.wParam);
      frame.gap_ms = LittleEndian32(bytes + size - 8);
      frame.frame_ms = LittleEndian32(bytes + size - 4);
      frame.start = FrameStart(msg, frame.frame_ms);
      sink_(frame);
    }
    delete array;
    return false;
  }
  if (msg.message == kLinkEventMsg && msg.wParam == VELMORA_LINK_LOST) lost_ = true;
  return msg.message == kReplyMsg && msg.wParam == hServ;
}

Reply LineSession::Transact(const Target &target, uint8_t command, const std::vector<uint8_t> &data,
                            std::string &error) {
  Reply reply;
  tagHARTREQUEST request{};
  request.nCommand = command;
  request.nPollingAddress = target.polling_address;
  if (target.long_frame) {
    request.nAddressFormat = 2;
    std::memcpy(request.abLongAddress, target.long_address.data(), 5);
  }
  std::vector<uint8_t> payload = data;
  request.pData = payload.empty() ? nullptr : payload.data();
  request.nDataCount = static_cast<unsigned int>(payload.size());
  const unsigned int hServ = HART_SendRequest(app_, &request, command);
  if (hServ == VELMORA_NONE) {
    error = "the request was not taken (too much data for one frame?)";
    return reply;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(settings_.timeout_s);
  MSG msg;
  while (!StopRequested()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      error = "no reply notice within " + std::to_string(settings_.timeout_s) + " s";
      return reply;
    }
    if (!GetMessageTimeout(&msg, window_, static_cast<unsigned int>(std::min<long long>(left.count(), kSlicMs))))
      continue;
    if (!Dispatch(msg, hServ)) continue;
    unsigned char buffer[256];
    tagHARTREQUEST answer{};
    answer.pData = buffer;
    unsigned int app_id = 0;
    if (!HART_ReceiveRequest(app_, hServ, &answer, &app_id)) continue;
    if ((static_cast<unsigned int>(msg.lParam) & 0xFFFF) == 0xFFFF) {
      error = lost_ ? "the line went away (device unplugged, or its far end closed)"
                    : "no answer from the device after " + std::to_string(settings_.retries + 1) + " tries";
      return reply;
    }
    reply.answered = true;
    reply.command = static_cast<uint8_t>(answer.nCommand);
    reply.response_code = answer.nResponseCode;
    reply.device_status = answer.nDeviceStatus;
    reply.data.assign(buffer, buffer + std::min(answer.nDataCount, 253u));
    return reply;
  }
  error = "stopped";
  return reply;
}

void LineSession::Listen(std::chrono::milliseconds duration) {
  const auto deadline = std::chrono::steady_clock::now() + duration;
  MSG msg;
  while (!StopRequested() && !lost_) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return;
    if (GetMessageTimeout(&msg, window_, static_cast<unsigned int>(std::min<long long>(left.count(), kSlicMs))))
      Dispatch(msg, VELMORA_NONE);
  }
}

}  // namespace velmora::tool
