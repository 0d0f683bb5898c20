// Registration, configuration and the idle exports, on in-memory lines with real workers.
#include <gtest/gtest.h>

#include <string>

#include "core/tables.h"
#include "platform/memory_line.h"
#include "port/port_control.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

class RegistrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetDriverTables();
    static int counter = 0;
    for (unsigned int port : {1u, 2u}) {
      const std::string name = "registration-" + std::to_string(++counter);
      lines_.push_back(platform::MemoryLine::Create(name));
      SetComPortDevice(port, ("mem:" + name).c_str());
    }
    window_ = CreateNoticeWindow();
  }
  void TearDown() override {
    for (unsigned int hApp = 0; hApp < kAppCount; ++hApp)
      if (AppTable[hApp].bInUse.load()) HART_UnRegisterDriver(hApp);
    ResetDriverTables();
    SetComPortDevice(1, nullptr);
    SetComPortDevice(2, nullptr);
    Drain(window_);
    DestroyNoticeWindow(window_);
  }
  unsigned int Register(unsigned int port, unsigned int baud = 0, unsigned int history = 0) {
    tagHARTREGISTRATION registration{window_, port, baud, 0, 0x500, history, 9};
    unsigned int hApp = 12345;
    EXPECT_EQ(HART_RegisterDriver(&registration, &hApp), 1u);
    return hApp;
  }

  std::vector<std::shared_ptr<platform::MemoryLine>> lines_;
  HWND window_ = nullptr;
};

TEST_F(RegistrationTest, PortNumbersOutsideTheRangeFailWithoutChange) {
  for (unsigned int port : {0u, 33u, 1000u}) {
    tagHARTREGISTRATION registration{window_, port, 0, 0, 0x500, 0, 9};
    unsigned int hApp = 5;
    EXPECT_EQ(HART_RegisterDriver(&registration, &hApp), 0u) << port;
    EXPECT_EQ(hApp, kNone);
  }
  for (const tagAPPINFO &app : AppTable) EXPECT_EQ(app.bInUse.load(), 0u);
}

TEST_F(RegistrationTest, MissingDeviceFailsCleanly) {
  SetComPortDevice(5, "/dev/velmora-no-such-device");
  tagHARTREGISTRATION registration{window_, 5, 1, 0, 0x500, 0, 9};
  unsigned int hApp = 5;
  EXPECT_EQ(HART_RegisterDriver(&registration, &hApp), 0u);
  EXPECT_EQ(hApp, kNone);
  EXPECT_EQ(ComPortTable[4].hComPort.load(), NoHandle());
  EXPECT_EQ(ComPortTable[4].nBaudCode.load(), 1u);  // stored before the open
  EXPECT_EQ(AppTable[0].bInUse.load(), 0u);
  SetComPortDevice(5, nullptr);
}

TEST_F(RegistrationTest, RowsAreTakenLowestFirstAndReused) {
  const unsigned int a = Register(1), b = Register(1), c = Register(2);
  EXPECT_EQ(a, 0u);
  EXPECT_EQ(b, 1u);
  EXPECT_EQ(c, 2u);
  EXPECT_EQ(ComPortTable[0].nOpenCount, 2u);
  HART_UnRegisterDriver(a);
  EXPECT_EQ(Register(2), 0u);
  EXPECT_EQ(GetDriverId(a), 1u);
}

TEST_F(RegistrationTest, FirstOpenStartsWorkerAndLastUnregistrationClosesPort) {
  const unsigned int a = Register(1);
  EXPECT_NE(GetComPortHandle(a), NoHandle());
  EXPECT_EQ(ComPortTable[0].bThreadRun.load(), 1u);
  EXPECT_EQ(ComPortTable[0].dwDebugFlags.load(), 15u);
  const unsigned int b = Register(1);
  EXPECT_EQ(GetComPortHandle(b), GetComPortHandle(a));
  HART_UnRegisterDriver(a);
  EXPECT_NE(GetComPortHandle(b), NoHandle());
  HART_UnRegisterDriver(b);
  EXPECT_EQ(GetComPortHandle(b), NoHandle());
  EXPECT_EQ(ComPortTable[0].bThreadRun.load(), 0u);
  // A new registration starts a new worker with the configuration of the last one.
  ComPortTable[0].nRetries = 4;
  const unsigned int c = Register(1);
  tagHARTCONFIG config{};
  HART_GetConfiguration(c, &config);
  EXPECT_EQ(config.nRetries, 4u);
  EXPECT_EQ(ComPortTable[0].bThreadRun.load(), 1u);
}

TEST_F(RegistrationTest, FurtherRegistrationChangesBaudWordButNotTheLine) {
  const unsigned int a = Register(1, 1);
  Register(1, 0);
  EXPECT_EQ(GetComPortInfo(a)->nBaudCode.load(), 0u);
  EXPECT_EQ(GetComPortInfo(a)->pTimer->nBaudCode.load(), 1u);
  EXPECT_EQ(lines_[0]->EndBaud(platform::MemoryLine::kMasterEnd), 9600u);
  SetBaudRate(GetComPortInfo(a));
  EXPECT_EQ(GetComPortInfo(a)->pTimer->nBaudCode.load(), 0u);
  EXPECT_EQ(lines_[0]->EndBaud(platform::MemoryLine::kMasterEnd), 1200u);
}

TEST_F(RegistrationTest, HistoryWindowFollowsNonZeroMessageNumbers) {
  HWND second = CreateNoticeWindow();
  const unsigned int a = Register(1, 0, 0x600);
  tagHARTREGISTRATION registration{second, 1, 0, 0, 0x500, 0, 9};
  unsigned int b = 0;
  HART_RegisterDriver(&registration, &b);
  EXPECT_EQ(GetComPortInfo(a)->hHistoryWnd.load(), window_);
  registration.nHistoryMsg = 0x601;
  unsigned int c = 0;
  HART_RegisterDriver(&registration, &c);
  EXPECT_EQ(GetComPortInfo(a)->hHistoryWnd.load(), second);
  EXPECT_EQ(GetComPortInfo(a)->nHistoryMsg.load(), 0x601u);
  HART_UnRegisterDriver(c);
  EXPECT_EQ(GetComPortInfo(a)->hHistoryWnd.load(), second);
  HART_UnRegisterDriver(b);
  DestroyNoticeWindow(second);
}

TEST_F(RegistrationTest, OneMonitorPerPortFirstCome) {
  const unsigned int a = Register(1), b = Register(1);
  HWND monitor = CreateNoticeWindow();
  EXPECT_EQ(RegisterLLMonitor(kNone, monitor, 0x700), 0u);
  EXPECT_EQ(RegisterLLMonitor(a, monitor, 0x700), 1u);
  EXPECT_EQ(RegisterLLMonitor(b, monitor, 0x701), 0u);
  EXPECT_EQ(ComPortTable[0].nMonitorMsg.load(), 0x700u);
  EXPECT_EQ(UnRegisterLLMonitor(kNone), 0u);
  EXPECT_EQ(UnRegisterLLMonitor(b), 1u);
  EXPECT_EQ(RegisterLLMonitor(b, monitor, 0x701), 1u);
  UnRegisterLLMonitor(a);
  DestroyNoticeWindow(monitor);
}

struct ConfigCase {
  tagHARTCONFIG written;
  tagHARTCONFIG read;
};

class ConfigurationTest : public RegistrationTest, public ::testing::WithParamInterface<ConfigCase> {};

TEST_P(ConfigurationTest, ValuesAreClampedAsTheyAreStored) {
  const unsigned int hApp = Register(1, 1);
  tagHARTCONFIG written = GetParam().written;
  EXPECT_EQ(HART_SetConfiguration(hApp, &written), 1u);
  tagHARTCONFIG read{};
  EXPECT_EQ(HART_GetConfiguration(hApp, &read), 1u);
  const tagHARTCONFIG expect = GetParam().read;
  EXPECT_EQ(read.nMasterType, expect.nMasterType);
  EXPECT_EQ(read.nPreambles, expect.nPreambles);
  EXPECT_EQ(read.nRetries, expect.nRetries);
  EXPECT_EQ(read.nBaudCode, expect.nBaudCode);
  EXPECT_EQ(read.nExtraRtsDelay, expect.nExtraRtsDelay);
  EXPECT_EQ(lines_[0]->EndBaud(platform::MemoryLine::kMasterEnd), BaudRateOf(expect.nBaudCode));
}

INSTANTIATE_TEST_SUITE_P(
    Clamping, ConfigurationTest,
    ::testing::Values(ConfigCase{{1, 4, 11, 3, 7}, {1, 5, 10, 0, 7}}, ConfigCase{{2, 21, 0, 1, 0}, {2, 20, 0, 1, 0}},
                      ConfigCase{{0, 5, 3, 2, 1000}, {2, 5, 3, 2, 1000}}, ConfigCase{{7, 12, 10, 0, 0}, {2, 12, 10, 0, 0}}));

TEST_F(RegistrationTest, ConfigurationAfterRegistrationIsTheDefault) {
  const unsigned int hApp = Register(2, 1);
  tagHARTCONFIG read{};
  HART_GetConfiguration(hApp, &read);
  EXPECT_EQ(read.nMasterType, 1u);
  EXPECT_EQ(read.nPreambles, 5u);
  EXPECT_EQ(read.nRetries, 0u);
  EXPECT_EQ(read.nBaudCode, 1u);
  EXPECT_EQ(read.nExtraRtsDelay, 0u);
}

TEST_F(RegistrationTest, IdleExportsChangeNothing) {
  const unsigned int hApp = Register(1);
  tagHARTREQUEST request{};
  unsigned int count = 0;
  EXPECT_EQ(HART_DiscardRequests(hApp), 1u);
  EXPECT_EQ(HART_SetTestDLL(hApp, "x"), 1u);
  EXPECT_EQ(HART_RegisterBurstAppKey(hApp, 5), 1u);
  EXPECT_EQ(HART_SetRepeatIfBusy(hApp), 1u);
  EXPECT_EQ(HART_ClearRepeatIfBusy(hApp), 1u);
  EXPECT_EQ(HART_ClearBurstQueue(hApp), 1u);
  EXPECT_EQ(HART_GetNumberOfBurst(hApp, &count), 1u);
  EXPECT_EQ(HART_GetBurst(hApp, &request), 1u);
  EXPECT_EQ(HART_SetDebugFlags(hApp, 0), 1u);
  EXPECT_EQ(AppTable[hApp].nBurstAppKey.load(), 0u);
  EXPECT_EQ(AppTable[hApp].bRepeatIfBusy.load(), 0u);
  EXPECT_EQ(ComPortTable[0].dwDebugFlags.load(), 15u);
}

TEST_F(RegistrationTest, SendRequestRefusesFramesOver256Bytes) {
  const unsigned int hApp = Register(1);
  tagHARTCONFIG config{1, 20, 0, 0, 0};
  HART_SetConfiguration(hApp, &config);
  unsigned char data[255] = {};
  tagHARTREQUEST request{};
  request.pData = data;
  request.nDataCount = 232;  // 20 + 4 + 232 + 1 = 257
  EXPECT_EQ(HART_SendRequest(hApp, &request, 1), kNone);
  for (const tagSERVICEINFO &service : ServiceTable) EXPECT_EQ(service.nServiceState.load(), 0u);
  request.nDataCount = 231;
  const unsigned int hServ = HART_SendRequest(hApp, &request, 1);
  EXPECT_NE(hServ, kNone);
  request.nAddressFormat = 2;
  request.nDataCount = 228;
  EXPECT_EQ(HART_SendRequest(hApp, &request, 1), kNone);
}

TEST_F(RegistrationTest, ReceiveRequestForBurstOrUnknownServiceGivesZero) {
  const unsigned int hApp = Register(1);
  tagHARTREQUEST reply{};
  unsigned int app_id = 99;
  EXPECT_EQ(HART_ReceiveRequest(hApp, 65535, &reply, &app_id), 0u);
  EXPECT_EQ(HART_ReceiveRequest(hApp, 3, &reply, &app_id), 0u);
  EXPECT_EQ(app_id, 99u);
  EXPECT_EQ(AppReceiveQueues[hApp].bLocked.load(), 0u);
}

TEST_F(RegistrationTest, UnregisterFreesQueuedRequestsAndMarksTheRest) {
  const unsigned int a = Register(1), b = Register(1);
  tagHARTREQUEST request{};
  const unsigned int s1 = HART_SendRequest(a, &request, 1);
  const unsigned int s2 = HART_SendRequest(b, &request, 2);
  const unsigned int s3 = HART_SendRequest(a, &request, 3);
  // The worker may take the head at any moment; whatever is still queued of a goes at once.
  HART_UnRegisterDriver(a);
  for (unsigned int s : {s1, s3}) {
    const unsigned int state = ServiceTable[s].nServiceState.load();
    EXPECT_TRUE(state == 0 || state == 4) << state;
  }
  EXPECT_EQ(fncFindTransmitApplication(0, a), nullptr);
  EXPECT_NE(ServiceTable[s2].nServiceState.load(), 0u);
}

}  // namespace
}  // namespace velmora::test
