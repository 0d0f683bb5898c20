// A careless client: calls on rows it never had or has left, a port closed under registered
// applications, a window that cannot take notices, threads that close and leave at once. None of
// it may harm another application. In-memory lines with real workers and no device: every
// request ends with the failure notice after its time-out.
#include <gtest/gtest.h>

#include <barrier>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "platform/memory_line.h"
#include "port/port_control.h"
#include "tables/tables.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

constexpr unsigned int kPort = 6, kReplyMsg = 0x600;

class MisuseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetDriverTables();
    static int counter = 0;
    line_ = platform::MemoryLine::Create("misuse-" + std::to_string(++counter));
    SetComPortDevice(kPort, ("mem:" + line_->Name()).c_str());
  }
  void TearDown() override {
    ResetDriverTables();
    SetComPortDevice(kPort, nullptr);
    DestroyNoticeWindow(window_);
  }
  // Registers at 19200 baud without retries, so that a silent request ends quickly.
  unsigned int Register(HWND window) {
    tagHARTREGISTRATION registration{window, kPort, 2, 0, kReplyMsg, 0, 1};
    unsigned int hApp = kNone;
    HART_RegisterDriver(&registration, &hApp);
    tagHARTCONFIG config{1, 5, 0, 2, 0};
    HART_SetConfiguration(hApp, &config);
    return hApp;
  }
  unsigned int Send(unsigned int hApp) {
    tagHARTREQUEST request{};
    return HART_SendRequest(hApp, &request, 7);
  }
  // The request's reply fetched within 3 s (by polling, as a client without a window does): its
  // response code, or -1.
  static unsigned int Fetch(unsigned int hApp, unsigned int hServ) {
    tagHARTREQUEST reply{};
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3); std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(std::chrono::milliseconds(5)))
      if (HART_ReceiveRequest(hApp, hServ, &reply, nullptr) == 1) return reply.nResponseCode;
    return kNone;
  }
  static unsigned int TakenServiceRows() {
    unsigned int taken = 0;
    for (const tagSERVICEINFO &service : ServiceTable) taken += service.nServiceState.load() != 0;
    return taken;
  }
  tagCOMPORTINFO &Port() { return ComPortTable[kPort - 1]; }
  bool Serving() { return Port().hComPort.load() != NoHandle() && Port().bThreadRun.load() != 0; }

  std::shared_ptr<platform::MemoryLine> line_;
  HWND window_ = CreateNoticeWindow();
};

// Calls on a row that is not registered fail and change nothing: the application still on the
// port keeps it open and its request ends as usual.
TEST_F(MisuseTest, CallsOnRowsNotRegisteredChangeNothing) {
  const unsigned int live = Register(window_), gone = Register(window_);
  ASSERT_EQ(HART_UnRegisterDriver(gone), 1u);
  tagHARTREQUEST request{};
  tagHARTCONFIG config{1, 5, 0, 2, 0};
  const std::pair<const char *, std::function<unsigned int()>> rows[] = {
      {"leave again", [&] { return HART_UnRegisterDriver(gone); }},
      {"leave a row never had", [&] { return UnRegisterApplication(57); }},
      {"send on a row never had", [&] { return HART_SendRequest(5, &request, 1) + 1; }},
      {"send after leaving", [&] { return HART_SendRequest(gone, &request, 1) + 1; }},
      {"service handle after leaving", [&] { return GetServiceHandle(gone, nullptr, nullptr, nullptr) + 1; }},
      {"append after leaving", [&] { return AppendTransmitQueue(gone, nullptr); }},
      {"fetch after leaving", [&] { return HART_ReceiveRequest(gone, 0, &request, nullptr); }},
      {"configure after leaving", [&] { return HART_SetConfiguration(gone, &config); }},
      {"monitor after leaving", [&] { return RegisterLLMonitor(gone, window_, 0x700); }},
      {"burst key after leaving", [&] { return HART_RegisterBurstAppKey(gone, 3); }},
  };
  for (const auto &[what, call] : rows) {
    SCOPED_TRACE(what);
    EXPECT_EQ(call(), 0u);
    EXPECT_EQ(std::tuple(Serving(), Port().nOpenCount, TakenServiceRows(), Port().nMonitorMsg.load()),
              std::tuple(true, 1u, 0u, 0u));
  }
  EXPECT_EQ(Fetch(live, Send(live)), 128u);
  EXPECT_EQ(TakenServiceRows(), 0u);
}

// CloseComPort under registered applications: what they wait for fails, the row reads closed
// for good, and the next registration opens the port again with a worker, counting everyone.
TEST_F(MisuseTest, PortClosedUnderItsApplications) {
  const unsigned int first = Register(window_);
  Port().nRetries = 5;  // still trying when the port closes
  const unsigned int pending = Send(first);
  HANDLE handle = Port().hComPort.load();
  unsigned char frame[8] = {};
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_EQ(CloseComPort(handle), 1u);
  EXPECT_EQ(std::tuple(Serving(), CloseComPort(handle), WriteToCom(handle, frame, 8), Send(first)),
            std::tuple(false, 0u, kNone, kNone));
  EXPECT_EQ(Fetch(first, pending), 128u);
  const unsigned int second = Register(window_);
  EXPECT_EQ(std::tuple(second != kNone, Serving(), Port().nOpenCount), std::tuple(true, true, 2u));
  EXPECT_EQ(Fetch(first, Send(first)), 128u);  // served again
  HART_UnRegisterDriver(second);
  EXPECT_TRUE(Serving());
  HART_UnRegisterDriver(first);
  EXPECT_EQ(std::tuple(Serving(), PortHasRemains(kPort - 1), TakenServiceRows()), std::tuple(false, false, 0u));
}

// Leaving in the middle of a frame with a six-second tail: the worker stops at once and the
// port can be opened again straight away.
TEST_F(MisuseTest, LeavingInTheMiddleOfALongFrame) {
  unsigned int hApp = Register(window_);
  tagHARTCONFIG slow{1, 5, 0, 0, 6000};  // 1200 baud, RTS held 6 s after the frame
  HART_SetConfiguration(hApp, &slow);
  Send(hApp);
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  const auto start = std::chrono::steady_clock::now();
  HART_UnRegisterDriver(hApp);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  hApp = Register(window_);
  EXPECT_EQ(std::pair(hApp != kNone, Serving()), std::pair(true, true));
}

// A client without a window polls for its results; the row of each is free once fetched.
TEST_F(MisuseTest, ClientWithoutAWindowPolls) {
  const unsigned int hApp = Register(nullptr);
  ASSERT_NE(hApp, kNone);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Fetch(hApp, Send(hApp)), 128u);
  EXPECT_EQ(TakenServiceRows(), 0u);
}

// What a row's next owner must not inherit: the burst key and the window of the last.
TEST_F(MisuseTest, LeavingClearsTheRow) {
  const unsigned int hApp = Register(window_);
  GetAppInfo(hApp)->nBurstAppKey = 5;
  HART_UnRegisterDriver(hApp);
  EXPECT_EQ(std::pair(AppTable[hApp].nBurstAppKey.load(), AppTable[hApp].hWnd.load()), std::pair(0u, HWND{}));
}

// Threads that close the port and leave it at the same moment, and threads that take the line
// monitor while it is given up: the outcome is one of the orders, never a mixture.
TEST_F(MisuseTest, CloseLeaveAndMonitorFromTwoThreads) {
  for (int round = 0; round < 20; ++round) {
    const unsigned int a = Register(window_), b = Register(window_);
    HANDLE handle = Port().hComPort.load();
    std::jthread closer([&] { CloseComPort(handle); });
    HART_UnRegisterDriver(a);
    HART_UnRegisterDriver(b);
    closer.join();
    ASSERT_EQ(std::pair(Serving(), PortHasRemains(kPort - 1)), std::pair(false, false)) << "round " << round;
  }
  const unsigned int hApp = Register(window_);
  HWND other = CreateNoticeWindow();
  std::barrier both(2);
  std::jthread leaver([&] {
    for (int round = 0; round < 2000; ++round) {
      both.arrive_and_wait();
      UnRegisterLLMonitor(hApp);
      both.arrive_and_wait();
      both.arrive_and_wait();
    }
  });
  for (int round = 0; round < 2000; ++round) {
    RegisterLLMonitor(hApp, other, 0x700);
    both.arrive_and_wait();
    RegisterLLMonitor(hApp, other, 0x700);
    both.arrive_and_wait();
    // A monitor registered has its window.
    ASSERT_TRUE(Port().nMonitorMsg.load() == 0 || Port().hMonitorWnd.load() == other) << "round " << round;
    both.arrive_and_wait();
  }
  leaver.join();
  DestroyNoticeWindow(other);
}

}  // namespace
}  // namespace velmora::test
