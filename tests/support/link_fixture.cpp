// The link-layer fixture: virtual clock, in-memory line, a port without worker, one application.
#include "tests/support/link_fixture.h"

#include "core/tables.h"
#include "link/transaction.h"
#include "port/port_control.h"
#include "port/port_runtime.h"
#include "port/worker.h"

namespace velmora::test {

std::vector<unsigned char> Frame(unsigned int preambles, std::vector<unsigned char> body) {
  std::vector<unsigned char> out(preambles, 0xFF);
  unsigned char checksum = 0;
  for (unsigned char b : body) checksum ^= b;
  out.insert(out.end(), body.begin(), body.end());
  out.push_back(checksum);
  return out;
}

std::vector<unsigned char> ShortResponse(unsigned char address, unsigned char command,
                                         std::vector<unsigned char> data, bool primary, unsigned int preambles,
                                         bool burst) {
  std::vector<unsigned char> body = {static_cast<unsigned char>(burst ? 0x01 : 0x06),
                                     static_cast<unsigned char>((primary ? 0x80 : 0) | (burst ? 0x40 : 0) | address),
                                     command, static_cast<unsigned char>(data.size())};
  body.insert(body.end(), data.begin(), data.end());
  return Frame(preambles, body);
}

std::vector<MSG> Drain(HWND window) {
  std::vector<MSG> out;
  MSG msg;
  while (PeekMessageA(&msg, window, 0, 0, PM_REMOVE)) out.push_back(msg);
  return out;
}

void ResetDriverTables() {
  for (unsigned int i = 0; i < kPortCount; ++i) {
    tagCOMPORTINFO &port = ComPortTable[i];
    if (port.hComPort.load() != NoHandle()) {
      CloseComPort(port.hComPort.load());
      port.hComPort = NoHandle();
    }
    if (port.pActiveElement) fncDestroyQueueElement(port.pActiveElement);
    port.pActiveElement = nullptr;
    port.bRequestPending = 0;
    port.nRetryCount = 0;
    port.nRetries = 0;
    port.nPreambles = 5;
    port.bPrimaryMaster = 1;
    port.bLongPreambleFix = 0;
    port.nMacState = 0;
    port.nTxRequest = 0;
    port.nMonitorMsg = 0;
    port.hMonitorWnd = nullptr;
    port.hHistoryWnd = nullptr;
    port.nHistoryMsg = 0;
    port.nOpenCount = 0;
    port.nExtraRtsDelay = 0;
    port.nFailedCycles = 0;
    port.nNonPreambleBytes = 0;
    port.nBaudCode = 0;
    port.dwDebugFlags = 0;
    RxFrameTable[i] = typRxFrameStruct{};
    RxFrameTable[i].bRxRolePrimary = 1;
    typTimerControlStruct &timer = TimerTable[i];
    timer.tStart = timer.tLastRx = timer.nTimeOutMs = timer.tNow = timer.nCharTimeOutMs = 0;
    timer.nBaudCode = 0;
  }
  fncClearAllQueues();
  for (tagAPPINFO &app : AppTable) {
    app.bInUse = 0;
    app.nBurstAppKey = 0;
    app.bRepeatIfBusy = 0;
    app.hWnd = nullptr;
    app.nLinkEventMsg = 0;
    app.nReplyMsg = 0;
    app.nReplyCount = 0;
    app.nAppKey = 0;
  }
  for (tagSERVICEINFO &service : ServiceTable) service.nServiceState = 0;
  FlushHistory();
}

tagCOMPORTINFO &LinkFixture::ComPort() { return ComPortTable[kPort - 1]; }

void LinkFixture::OpenAt(unsigned int baud_code) {
  ResetDriverTables();
  clock_ = std::make_unique<platform::VirtualClock>(100000);
  static int counter = 0;
  line_name_ = "link-fixture-" + std::to_string(++counter);
  line_ = platform::MemoryLine::Create(line_name_);
  line_->SetEndBaud(platform::MemoryLine::kFarEnd, BaudRateOf(baud_code));
  SetComPortDevice(kPort, ("mem:" + line_name_).c_str());
  app_window_ = CreateNoticeWindow();
  history_window_ = CreateNoticeWindow();
  Port().nBaudCode = baud_code;
  ASSERT_NE(OpenPort(kPort, baud_code, 8, 1, 0, history_window_, kHistoryMsg, false), NoHandle());
  tagAPPINFO &app = AppTable[kApp];
  app.bInUse = 1;
  app.nDriverId = kPort - 1;
  app.hWnd = app_window_;
  app.nReplyMsg = kReplyMsg;
  app.nLinkEventMsg = kLinkMsg;
  app.nAppKey = 77;
  listener_ = clock_->AddTickListener([this](uint64_t) {
    platform::MemoryLine::TimedByte bytes[256];
    uint32_t got;
    while ((got = line_->ReadTimed(platform::MemoryLine::kFarEnd, bytes, 256)) > 0)
      for (uint32_t i = 0; i < got; ++i) {
        far_in_.push_back(bytes[i].value);
        far_in_times_.push_back(bytes[i].arrival_us);
      }
  });
}

void LinkFixture::TearDown() {
  if (clock_ && listener_) clock_->RemoveTickListener(listener_);
  ResetDriverTables();
  SetComPortDevice(kPort, nullptr);
  for (HWND w : {app_window_, history_window_}) {
    Drain(w);
    DestroyNoticeWindow(w);
  }
  line_.reset();
  clock_.reset();
}

void LinkFixture::Pass() { RunWorkerPass(&Port()); }

void LinkFixture::RunFor(unsigned int ms) {
  const uint64_t end = NowUs() + static_cast<uint64_t>(ms) * 1000;
  while (NowUs() < end) Pass();
}

bool LinkFixture::RunUntil(const std::function<bool()> &pred, unsigned int ms) {
  const uint64_t end = NowUs() + static_cast<uint64_t>(ms) * 1000;
  while (NowUs() < end) {
    if (pred()) return true;
    Pass();
  }
  return pred();
}

void LinkFixture::FarSend(const std::vector<unsigned char> &bytes, uint64_t start_us) {
  line_->WriteAt(platform::MemoryLine::kFarEnd, bytes.data(), static_cast<uint32_t>(bytes.size()),
                 start_us ? start_us : NowUs());
}

std::vector<unsigned char> LinkFixture::FarReceived() { return far_in_; }

unsigned int LinkFixture::Send(unsigned char command, std::vector<unsigned char> data, unsigned char address) {
  tagHARTREQUEST request{};
  request.nCommand = command;
  request.nPollingAddress = address;
  request.pData = data.data();
  request.nDataCount = static_cast<unsigned int>(data.size());
  return HART_SendRequest(kApp, &request, 0x00120034);
}

void LinkFixture::AutoReply(std::function<std::vector<unsigned char>(const std::vector<unsigned char> &)> reply,
                            uint64_t turnaround_us) {
  auto seen = std::make_shared<size_t>(0);
  clock_->AddTickListener([this, reply, turnaround_us, seen](uint64_t) {
    // Look for a complete request frame in what the far end has received since the last one.
    size_t at = *seen;
    while (at < far_in_.size() && far_in_[at] == 0xFF) ++at;
    if (at + 4 > far_in_.size()) return;
    const unsigned char delimiter = far_in_[at];
    const size_t header = (delimiter & 0x80) ? 8 : 4;
    if (at + header > far_in_.size()) return;
    const size_t total = header + far_in_[at + header - 1] + 1;
    if (at + total > far_in_.size()) return;
    std::vector<unsigned char> frame(far_in_.begin() + static_cast<long>(at),
                                     far_in_.begin() + static_cast<long>(at + total));
    const uint64_t last_us = far_in_times_[at + total - 1];
    *seen = at + total;
    std::vector<unsigned char> out = reply(frame);
    if (!out.empty())
      line_->WriteAt(platform::MemoryLine::kFarEnd, out.data(), static_cast<uint32_t>(out.size()),
                     last_us + turnaround_us);
  });
}

}  // namespace velmora::test
