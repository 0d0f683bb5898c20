// Registration of applications with ports, the exports' handling of their arguments, and
// unregistering, on in-memory lines with real workers.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "platform/memory_line.h"
#include "tables/tables.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

using Words = std::vector<std::uintptr_t>;

class RegistrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetDriverTables();
    static int counter = 0;
    for (unsigned int port : {1u, 32u}) {
      lines_.push_back(platform::MemoryLine::Create("registration-" + std::to_string(++counter)));
      SetComPortDevice(port, ("mem:" + lines_.back()->Name()).c_str());
    }
  }
  void TearDown() override {
    ResetDriverTables();  // closes the ports and frees every row
    for (unsigned int port : {1u, 5u, 32u}) SetComPortDevice(port, nullptr);
    DestroyNoticeWindow(window_);
  }
  // The row registered, or kNone; the result agrees with the row.
  unsigned int Register(unsigned int port, unsigned int baud = 0) {
    tagHARTREGISTRATION registration{window_, port, baud, 0, 0x500, 0, 9};
    unsigned int hApp = 12345;
    const unsigned int result = HART_RegisterDriver(&registration, &hApp);
    EXPECT_EQ(result, hApp != kNone ? 1u : 0u);
    return hApp;
  }
  unsigned int Baud(unsigned int line) { return lines_[line]->EndBaud(platform::MemoryLine::kMasterEnd); }

  std::vector<std::shared_ptr<platform::MemoryLine>> lines_;
  HWND window_ = CreateNoticeWindow();
};

// One registration at a time, each left again: ports 1..32 only, a device that cannot be opened
// fails cleanly, the line runs at the rate of the baud code, and the last to leave closes the port.
TEST_F(RegistrationTest, PortNumbersDevicesAndBaudCodes) {
  SetComPortDevice(5, "/dev/velmora-no-such-device");
  const unsigned int rows[][3] = {  // port, baud code, line rate (0: refused)
      {0, 0, 0}, {33, 0, 0}, {5, 1, 0}, {1, 0, 1200}, {1, 1, 9600}, {32, 2, 19200}, {32, 3, 1200}};
  for (const auto &[port, baud, rate] : rows) {
    SCOPED_TRACE(::testing::Message() << "port " << port << ", baud code " << baud);
    const unsigned int hApp = Register(port, baud);
    EXPECT_EQ(hApp, rate ? 0u : kNone);
    if (rate) { EXPECT_EQ(Baud(port == 1 ? 0 : 1), rate); }
    if (port == 5) { EXPECT_EQ(ComPortTable[4].nBaudCode.load(), baud); }  // stored before the open
    HART_UnRegisterDriver(hApp);
    for (const tagCOMPORTINFO &p : ComPortTable) EXPECT_EQ(p.hComPort.load(), NoHandle());
    for (const tagAPPINFO &app : AppTable) EXPECT_EQ(app.bInUse.load(), 0u);
  }
}

// Two threads register 50 applications each on port 1: none is refused, so no row went to both,
// and the 101st finds none and leaves no trace. Of a leaving application's requests, those still
// queued go at once and the rest are marked; the port stays open for the others, and keeps its
// configuration for the next registration after the last has left.
TEST_F(RegistrationTest, HundredApplicationsFromTwoThreads) {
  std::atomic<unsigned int> refused{0};
  auto client = [&] {
    for (int i = 0; i < 50; ++i) refused += Register(1) == kNone;
  };
  { std::jthread first(client), second(client); }
  EXPECT_EQ(Words({refused.load(), Register(1), ComPortTable[0].nOpenCount}), (Words{0, kNone, kAppCount}));
  tagHARTREQUEST request{};
  const unsigned int s1 = HART_SendRequest(0, &request, 1), s2 = HART_SendRequest(1, &request, 2);
  const unsigned int s3 = HART_SendRequest(0, &request, 3);  // behind s1 and s2 until s1 has timed out
  ServiceTable[999].nAppHandle = 0;                           // a reply not fetched yet
  ServiceTable[999].nServiceState = 1;
  HART_UnRegisterDriver(0);
  EXPECT_EQ(Words({ServiceTable[s3].nServiceState.load(), ServiceTable[999].nServiceState.load(),
                   ServiceTable[s1].nServiceState.load() != 1, ServiceTable[s2].nServiceState.load(),
                   !fncFindTransmitApplication(0, 0), GetComPortHandle(1) != NoHandle()}),
            (Words{0, 4, 1, 1, 1, 1}));
  for (unsigned int hApp = 1; hApp < kAppCount; ++hApp) HART_UnRegisterDriver(hApp);
  ComPortTable[0].nRetries = 4;
  tagHARTCONFIG config{};
  HART_GetConfiguration(Register(1), &config);
  EXPECT_EQ(Words({config.nRetries, ComPortTable[0].bThreadRun.load()}), (Words{4, 1}));
}

// The exports on bad handles and null records, what the configuration keeps of what it is
// given, and frames that would pass 256 bytes.
TEST_F(RegistrationTest, ExportsAnswerFromTheirArguments) {
  const unsigned int a = Register(32, 1);
  tagHARTREQUEST request{};
  tagHARTCONFIG config{};
  unsigned int none = 0, id = 99;
  unsigned char data[255] = {};
  auto configured = [&](tagHARTCONFIG written) {
    const unsigned int set = HART_SetConfiguration(a, &written), got = HART_GetConfiguration(a, &config);
    return Words({set, got, config.nMasterType, config.nPreambles, config.nRetries, config.nBaudCode,
                  config.nExtraRtsDelay, Baud(1)});
  };
  auto send = [&](unsigned char format, unsigned int bytes) {
    tagHARTREQUEST big{0, format, 0, {}, data, 0, bytes, 0, 0, 0};
    return HART_SendRequest(a, &big, 1);
  };
  EXPECT_EQ(Words({HART_RegisterDriver(nullptr, &none), none, HART_UnRegisterDriver(kNone),
                   UnRegisterApplication(kNone), RegisterLLMonitor(kNone, window_, 1),
                   UnRegisterLLMonitor(kNone), HART_SetConfiguration(kAppCount, &config),
                   HART_SetConfiguration(a, nullptr), HART_GetConfiguration(kNone, &config),
                   HART_GetConfiguration(a, nullptr), HART_SendRequest(kAppCount, &request, 1),
                   HART_SendRequest(a, nullptr, 1), HART_ReceiveRequest(kNone, 1, &request, &id),
                   HART_ReceiveRequest(a, kServiceCount, &request, &id),
                   HART_ReceiveRequest(a, kBurstService, &request, &id),
                   HART_ReceiveRequest(a, 3, &request, &id), HART_ReceiveRequest(a, 3, nullptr, nullptr), id,
                   AppReceiveQueues[a].bLocked.load()}),
            (Words{0, kNone, 0, 0, 0, 0, 0, 0, 0, 0, kNone, kNone, 0, 0, 0, 0, 0, 99, 0}));
  EXPECT_EQ(Words({HART_GetConfiguration(a, &config), config.nMasterType, config.nPreambles, config.nRetries,
                   config.nBaudCode, config.nExtraRtsDelay}),
            (Words{1, 1, 5, 0, 1, 0}));  // as registered
  EXPECT_EQ(configured({1, 4, 11, 3, 7}), (Words{1, 1, 1, 5, 10, 0, 7, 1200}));
  EXPECT_EQ(configured({0, 5, 3, 2, 1000}), (Words{1, 1, 2, 5, 3, 2, 1000, 19200}));
  EXPECT_EQ(configured({1, 21, 0, 1, 0}), (Words{1, 1, 1, 20, 0, 1, 0, 9600}));
  // 20 preambles, 4 bytes of short frame, the data and the checksum
  EXPECT_EQ(Words({send(0, 232), send(2, 228), ServiceTable[0].nServiceState.load(), send(0, 231)}),
            (Words{kNone, kNone, 0, 0}));
}

// The accessors read the registered row and never past a table; the exports kept for older
// clients answer 1 for a registered application, whatever else they are given, and 0 otherwise.
TEST_F(RegistrationTest, AccessorsReadTheRowOrNothingPastTheTables) {
  const unsigned int a = Register(32, 2);
  AppTable[a].nBurstAppKey = 4;
  AppTable[a].bRepeatIfBusy = 1;
  auto P = [](const void *pointer) { return reinterpret_cast<std::uintptr_t>(pointer); };
  auto row = [&](unsigned int hApp) {
    return Words({P(GetAppInfo(hApp)), GetAppKey(hApp), P(GetAppReceiveQueue(hApp)), P(GetApphWnd(hApp)),
                  GetBurstAppKey(hApp), P(GetComPortHandle(hApp)), P(GetComPortInfo(hApp)), GetDriverId(hApp),
                  GetRepeatIfBusy(hApp)});
  };
  EXPECT_EQ(row(a), (Words{P(&AppTable[a]), 9, P(&AppReceiveQueues[a]), P(window_), 4,
                           P(ComPortTable[31].hComPort.load()), P(&ComPortTable[31]), 31, 1}));
  EXPECT_EQ(row(kAppCount), (Words{0, 0, 0, 0, 0, P(NoHandle()), 0, kNone, 0}));
  EXPECT_EQ(Words({P(GetServiceInfo(kServiceCount - 1)), P(GetServiceInfo(kServiceCount))}),
            (Words{P(&ServiceTable[kServiceCount - 1]), 0}));
  // A later registration with a history window takes the port's history over.
  tagHARTREGISTRATION second{window_, 32, 2, 0, 0x500, 0x600, 3};
  unsigned int b = kNone;
  EXPECT_EQ(Words({HART_RegisterDriver(&second, &b), ComPortTable[31].nHistoryMsg.load(),
                   P(ComPortTable[31].hHistoryWnd.load())}),
            (Words{1, 0x600, P(window_)}));
  unsigned int count = 0;
  for (unsigned int hApp : {a, kNone})
    EXPECT_EQ(Words({HART_DiscardRequests(hApp), HART_SetTestDLL(hApp, nullptr), HART_RegisterBurstAppKey(hApp, 1),
                     HART_SetRepeatIfBusy(hApp), HART_ClearRepeatIfBusy(hApp), HART_ClearBurstQueue(hApp),
                     HART_GetNumberOfBurst(hApp, &count), HART_GetBurst(hApp, nullptr), HART_SetDebugFlags(hApp, 0)}),
              Words(9, hApp == a));
}

}  // namespace
}  // namespace velmora::test
