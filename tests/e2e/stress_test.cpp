// Many applications on eight ports at once, in real time: registering, sending, receiving and
// leaving at random. Every request sent gets exactly one notice and one successful receive,
// unless its application left first; in the end no service row is left taken.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <string>
#include <thread>

#include "core/tables.h"
#include "tests/support/line_responder.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

constexpr unsigned int kPorts = 8;
constexpr unsigned int kThreads = 20;
constexpr unsigned int kReplyMsg = 0xA00;
constexpr auto kRunTime = std::chrono::seconds(4);

std::vector<unsigned char> Answer(const std::vector<unsigned char> &request) {
  // Echo the command with status 0, 0 and the request's first data byte, if any.
  std::vector<unsigned char> data = {0x00, 0x00};
  if (request[3] > 0) data.push_back(request[4]);
  return ShortResponse(request[1] & 0x0F, request[2], data, (request[1] & 0x80) != 0, 5);
}

struct Tally {
  std::atomic<unsigned int> sent{0}, received{0}, abandoned{0}, errors{0};
  std::atomic<unsigned int> stray{0}, bad_reply{0}, missing{0};
};

void Application(unsigned int seed, std::chrono::steady_clock::time_point end, Tally &tally) {
  std::mt19937 random(seed);
  while (std::chrono::steady_clock::now() < end) {
    HWND window = CreateNoticeWindow();
    tagHARTREGISTRATION registration{window, static_cast<unsigned int>(1 + random() % kPorts), 2, 0, kReplyMsg, 0, seed};
    unsigned int hApp = kNone;
    if (!HART_RegisterDriver(&registration, &hApp)) {
      DestroyNoticeWindow(window);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      continue;
    }
    const unsigned int requests = 1 + random() % 3;
    std::map<unsigned int, unsigned char> outstanding;
    for (unsigned int i = 0; i < requests; ++i) {
      unsigned char tag = static_cast<unsigned char>(random());
      tagHARTREQUEST request{};
      request.nCommand = 1;
      request.pData = &tag;
      request.nDataCount = 1;
      const unsigned int hServ = HART_SendRequest(hApp, &request, (seed << 16) | i);
      if (hServ == kNone) continue;
      ++tally.sent;
      outstanding[hServ] = tag;
    }
    const bool leave_early = random() % 5 == 0;
    if (!leave_early) {
      MSG msg;
      while (!outstanding.empty() && GetMessageTimeout(&msg, window, 10000)) {
        if (msg.message != kReplyMsg) continue;
        const unsigned int hServ = static_cast<unsigned int>(msg.wParam);
        auto it = outstanding.find(hServ);
        if (it == outstanding.end()) {
          ++tally.errors;  // a notice twice, or for a request not ours
          ++tally.stray;
          continue;
        }
        unsigned char data[256];
        tagHARTREQUEST reply{};
        reply.pData = data;
        if (HART_ReceiveRequest(hApp, hServ, &reply, nullptr) != 1 || reply.nDataCount != 1 ||
            data[0] != it->second) {
          ++tally.errors;
          ++tally.bad_reply;
        }
        else {
          ++tally.received;
        }
        outstanding.erase(it);
      }
      if (!outstanding.empty()) {
        tally.errors += static_cast<unsigned int>(outstanding.size());
        tally.missing += static_cast<unsigned int>(outstanding.size());
      }
    } else {
      tally.abandoned += static_cast<unsigned int>(outstanding.size());
    }
    HART_UnRegisterDriver(hApp);
    MSG msg;
    while (PeekMessageA(&msg, window, 0, 0, PM_REMOVE)) {
    }
    DestroyNoticeWindow(window);
  }
}

TEST(StressTest, ManyApplicationsOnEightPorts) {
  ResetDriverTables();
  std::vector<std::shared_ptr<platform::MemoryLine>> lines;
  std::vector<std::unique_ptr<LineResponder>> responders;
  for (unsigned int port = 1; port <= kPorts; ++port) {
    const std::string name = "stress-" + std::to_string(port);
    lines.push_back(platform::MemoryLine::Create(name));
    lines.back()->SetEndBaud(platform::MemoryLine::kFarEnd, 19200);
    responders.push_back(std::make_unique<LineResponder>(lines.back(), Answer));
    SetComPortDevice(port, ("mem:" + name).c_str());
  }
  Tally tally;
  const auto end = std::chrono::steady_clock::now() + kRunTime;
  std::vector<std::thread> threads;
  for (unsigned int i = 0; i < kThreads; ++i) threads.emplace_back(Application, 1000 + i, end, std::ref(tally));
  for (std::thread &thread : threads) thread.join();

  SCOPED_TRACE("sent " + std::to_string(tally.sent.load()) + ", received " + std::to_string(tally.received.load()) +
               ", abandoned " + std::to_string(tally.abandoned.load()) + "; stray " +
               std::to_string(tally.stray.load()) + ", bad " + std::to_string(tally.bad_reply.load()) + ", missing " +
               std::to_string(tally.missing.load()));
  EXPECT_EQ(tally.errors.load(), 0u);
  EXPECT_GT(tally.received.load(), 20u);
  EXPECT_EQ(tally.sent.load(), tally.received.load() + tally.abandoned.load());
  for (const tagAPPINFO &app : AppTable) EXPECT_EQ(app.bInUse.load(), 0u);
  for (const tagCOMPORTINFO &port : ComPortTable) EXPECT_EQ(port.hComPort.load(), NoHandle());
  unsigned int taken = 0;
  for (const tagSERVICEINFO &service : ServiceTable) taken += service.nServiceState.load() != 0;
  EXPECT_EQ(taken, 0u);
  responders.clear();
  for (unsigned int port = 1; port <= kPorts; ++port) SetComPortDevice(port, nullptr);
  ResetDriverTables();
}

}  // namespace
}  // namespace velmora::test
