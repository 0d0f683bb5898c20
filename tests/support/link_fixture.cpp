// The link-layer fixture: virtual clock, in-memory line, a port without worker, one application.
#include "tests/support/link_fixture.h"

#include <algorithm>
#include <numeric>

#include "port/port_control.h"
#include "port/worker.h"
#include "tables/tables.h"

namespace velmora::test {

using platform::MemoryLine;

Bytes Frame(unsigned int preambles, Bytes body) {
  Bytes out(preambles, 0xFF);
  out.insert(out.end(), body.begin(), body.end());
  out.push_back(static_cast<unsigned char>(std::accumulate(body.begin(), body.end(), 0, std::bit_xor<>())));
  return out;
}

Bytes ShortResponse(unsigned char address, unsigned char command, Bytes data, bool primary,
                    unsigned int preambles, bool burst) {
  const int address_byte = (primary ? 0x80 : 0) | (burst ? 0x40 : 0) | address;
  Bytes body = {static_cast<unsigned char>(burst ? 0x01 : 0x06), static_cast<unsigned char>(address_byte),
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
    port.bRequestPending = port.nRetryCount = port.nRetries = port.bLongPreambleFix = port.dwDebugFlags = 0;
    port.nPreambles = 5;
    port.bPrimaryMaster = 1;
    port.nMacState = port.nTxRequest = port.nMonitorMsg = port.nHistoryMsg = port.nOpenCount = 0;
    port.hMonitorWnd = port.hHistoryWnd = nullptr;
    port.nExtraRtsDelay = port.nFailedCycles = port.nNonPreambleBytes = port.nBaudCode = 0;
    RxFrameTable[i] = typRxFrameStruct{};
    RxFrameTable[i].bRxRolePrimary = 1;
    typTimerControlStruct &timer = TimerTable[i];
    timer.tStart = timer.tLastRx = timer.nTimeOutMs = timer.tNow = timer.nCharTimeOutMs = timer.nBaudCode = 0;
  }
  fncClearAllQueues();
  for (tagAPPINFO &app : AppTable) {
    app.bInUse = app.nBurstAppKey = app.bRepeatIfBusy = app.nLinkEventMsg = app.nReplyMsg = 0;
    app.nReplyCount = app.nAppKey = 0;
    app.hWnd = nullptr;
  }
  for (tagSERVICEINFO &service : ServiceTable) service.nServiceState = 0;
  FlushHistory();
}

unsigned int TakenServiceRows() {
  return static_cast<unsigned int>(std::count_if(std::begin(ServiceTable), std::end(ServiceTable),
                                                 [](const tagSERVICEINFO &s) { return s.nServiceState.load() != 0; }));
}

tagCOMPORTINFO &LinkFixture::Port() { return ComPortTable[kPort - 1]; }

void LinkFixture::OpenAt(unsigned int baud_code) {
  if (clock_) TearDown();
  ResetDriverTables();
  clock_ = std::make_unique<platform::VirtualClock>(100000);
  static int counter = 0;
  const std::string name = "link-fixture-" + std::to_string(++counter);
  line_ = MemoryLine::Create(name);
  line_->SetEndBaud(MemoryLine::kFarEnd, BaudRateOf(baud_code));
  SetComPortDevice(kPort, ("mem:" + name).c_str());
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
  far_in_.clear();
  far_in_times_.clear();
  states_ = {Port().nMacState.load()};
  notices_.clear();
  listener_ = clock_->AddTickListener([this](uint64_t) {
    MemoryLine::TimedByte bytes[256];
    for (uint32_t got; (got = line_->ReadTimed(MemoryLine::kFarEnd, bytes, 256)) > 0;)
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
  for (HWND w : {app_window_, history_window_}) DestroyNoticeWindow(w);
  line_.reset();
  clock_.reset();
}

void LinkFixture::Pass() {
  RunWorkerPass(&Port());
  if (Port().nMacState.load() != states_.back()) states_.push_back(Port().nMacState.load());
  for (const MSG &msg : Drain(app_window_)) notices_.push_back(msg);
}

void LinkFixture::RunFor(unsigned int ms) { RunUntil([] { return false; }, ms); }

bool LinkFixture::RunUntil(const std::function<bool()> &pred, unsigned int ms) {
  for (const uint64_t end = NowUs() + ms * 1000ull; NowUs() < end; Pass())
    if (pred()) return true;
  return pred();
}

std::vector<MSG> LinkFixture::Notices(unsigned int message) const {
  std::vector<MSG> out;
  std::copy_if(notices_.begin(), notices_.end(), std::back_inserter(out),
               [&](const MSG &msg) { return msg.message == message; });
  return out;
}

void LinkFixture::FarSend(const Bytes &bytes) {
  line_->WriteAt(MemoryLine::kFarEnd, bytes.data(), static_cast<uint32_t>(bytes.size()), NowUs());
}

unsigned int LinkFixture::Send(unsigned char command) {
  tagHARTREQUEST request{};
  request.nCommand = command;
  return HART_SendRequest(kApp, &request, 0x00120034);
}

void LinkFixture::AutoReply(std::function<Bytes(const Bytes &)> reply, uint64_t turnaround_us) {
  auto seen = std::make_shared<size_t>(0);
  clock_->AddTickListener([this, reply, turnaround_us, seen](uint64_t) {
    // Look for a complete request frame in what the far end has received since the last one.
    size_t at = *seen;
    while (at < far_in_.size() && far_in_[at] == 0xFF) ++at;
    const size_t header = at < far_in_.size() && (far_in_[at] & 0x80) ? 8 : 4;
    if (at + header > far_in_.size()) return;
    const size_t total = header + far_in_[at + header - 1] + 1;
    if (at + total > far_in_.size()) return;
    const Bytes out = reply(Bytes(far_in_.data() + at, far_in_.data() + at + total));
    *seen = at + total;
    if (!out.empty())
      line_->WriteAt(MemoryLine::kFarEnd, out.data(), static_cast<uint32_t>(out.size()),
                     far_in_times_[at + total - 1] + turnaround_us);
  });
}

}  // namespace velmora::test
