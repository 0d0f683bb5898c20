// Many applications on eight ports at once, in real time: registering, sending, receiving and
// leaving at random. Every request sent gets exactly one notice and one successful receive with
// its own reply, unless its application left first; in the end no row is left taken.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <string>
#include <thread>

#include "sim/sim_memory_runner.h"
#include "tables/tables.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

constexpr unsigned int kPorts = 8, kThreads = 20, kReplyMsg = 0xA00;
// What a request writes and its reply gives back: each reply tells which request it is for.
using Tag = std::array<unsigned char, 3>;

struct Tally {
  std::atomic<unsigned int> sent{0}, received{0}, abandoned{0}, stray{0}, bad_reply{0}, missing{0};
};

void Application(unsigned int seed, std::chrono::steady_clock::time_point end, Tally &tally) {
  std::mt19937 random(seed);
  while (std::chrono::steady_clock::now() < end) {
    HWND window = CreateNoticeWindow();
    tagHARTREGISTRATION at{window, 1 + static_cast<unsigned int>(random() % kPorts), 2, 0, kReplyMsg, 0, seed};
    unsigned int hApp = kNone;
    if (!HART_RegisterDriver(&at, &hApp)) {
      DestroyNoticeWindow(window);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      continue;
    }
    std::map<unsigned int, Tag> outstanding, abandoned;
    for (unsigned int i = 0, requests = 1 + random() % 3; i < requests; ++i) {
      Tag tag;
      for (unsigned char &byte : tag) byte = static_cast<unsigned char>(random());
      tagHARTREQUEST request{};
      request.nCommand = 19;  // writes three bytes and answers with them
      request.pData = tag.data();
      request.nDataCount = 3;
      const unsigned int hServ = HART_SendRequest(hApp, &request, (seed << 16) | i);
      if (hServ == kNone) continue;
      ++tally.sent;
      outstanding[hServ] = tag;
    }
    MSG msg;
    if (random() % 5 == 0) outstanding.swap(abandoned);  // leaves without waiting
    while (!outstanding.empty() && GetMessageTimeout(&msg, window, 10000)) {
      if (msg.message != kReplyMsg) continue;
      auto it = outstanding.find(static_cast<unsigned int>(msg.wParam));
      if (it == outstanding.end()) {
        ++tally.stray;  // a notice twice, or for a request not ours
        continue;
      }
      unsigned char data[256];
      tagHARTREQUEST reply{};
      reply.pData = data;
      const bool good = HART_ReceiveRequest(hApp, it->first, &reply, nullptr) == 1 && reply.nDataCount == 3 &&
                        std::equal(it->second.begin(), it->second.end(), data);
      ++(good ? tally.received : tally.bad_reply);
      outstanding.erase(it);
    }
    tally.missing += static_cast<unsigned int>(outstanding.size());
    tally.abandoned += static_cast<unsigned int>(abandoned.size());
    HART_UnRegisterDriver(hApp);
    DestroyNoticeWindow(window);
  }
}

TEST(StressTest, ManyApplicationsOnEightPorts) {
  ResetDriverTables();
  std::vector<std::unique_ptr<sim::MemoryLineRunner>> devices;
  for (unsigned int port = 1; port <= kPorts; ++port) {
    const std::string name = "stress-" + std::to_string(port);
    devices.push_back(std::make_unique<sim::MemoryLineRunner>(platform::MemoryLine::Create(name),
                                                              sim::LineConfig{.baud = 19200, .turnaround_us = 5000}));
    sim::DeviceConfig device = sim::DefaultDevice(0);
    device.short_frame_all_commands = true;
    devices.back()->Core().AddDevice(device);
    devices.back()->StartRealTime();
    SetComPortDevice(port, ("mem:" + name).c_str());
  }
  Tally tally;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(4);
  std::vector<std::thread> threads;
  for (unsigned int i = 0; i < kThreads; ++i) threads.emplace_back(Application, 1000 + i, end, std::ref(tally));
  for (std::thread &thread : threads) thread.join();

  SCOPED_TRACE("sent " + std::to_string(tally.sent) + ", received " + std::to_string(tally.received) + ", abandoned " +
               std::to_string(tally.abandoned));
  EXPECT_EQ(tally.stray, 0u);
  EXPECT_EQ(tally.bad_reply, 0u);
  EXPECT_EQ(tally.missing, 0u);
  EXPECT_GT(tally.received, 20u);
  EXPECT_EQ(tally.sent, tally.received + tally.abandoned);
  for (const tagAPPINFO &app : AppTable) EXPECT_EQ(app.bInUse.load(), 0u);
  for (const tagCOMPORTINFO &port : ComPortTable) EXPECT_EQ(port.hComPort.load(), NoHandle());
  EXPECT_EQ(TakenServiceRows(), 0u);
  devices.clear();
  for (unsigned int port = 1; port <= kPorts; ++port) SetComPortDevice(port, nullptr);
  ResetDriverTables();
}

}  // namespace
}  // namespace velmora::test
