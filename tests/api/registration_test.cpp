// Registration of applications with ports, the exports' handling of their arguments, and leaving;
// bad input through every export family; and a careless client: a port closed under registered
// applications, leaving in the middle of a frame, threads that close and leave at once. In-memory
// lines with real workers and no device: a request ends with the failure notice after its time-out.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "link/mac.h"
#include "platform/memory_line.h"
#include "platform/clock.h"
#include "port/port_control.h"
#include "tables/tables.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

using Word = std::uintptr_t;
using Words = std::vector<Word>;
constexpr Word kFail = 0, kNoHandle = ~Word{0};
constexpr unsigned int kHuge = 0xFFFFFFF0u;

Word W(const void *pointer) { return reinterpret_cast<Word>(pointer); }

// A call and the failure value it must give.
struct Row { const char *call; std::function<Word()> run; Word expected; };

std::vector<Row> BadInputRows(HWND window) {
  static unsigned char bytes[600] = {0x82, 0x11};  // past the 512 bytes a record keeps
  static tagHARTREQUEST request{};
  static tagHARTCONFIG config{1, 5, 0, 0, 0};
  // Port 33 and a device missing: PortNumbersDevicesAndBaudCodes.
  static tagHARTREGISTRATION port_zero{nullptr, 0, 0, 0, 1, 0, 0};
  static unsigned int handle = 0, length = 0;
  static char text[] = "\x01\xff not a line";
  static CString numbers("1 2 3");
  static typQueue queue{};
  static typTimerControlStruct timer{};
  return {
      // Registration and the request interface.
      {"HART_RegisterDriver null record", [] { return HART_RegisterDriver(nullptr, &handle) + handle + 1; }, 0},
      {"HART_RegisterDriver port 0", [] { return HART_RegisterDriver(&port_zero, nullptr); }, kFail},
      {"RegisterApplication port -1",
       [&] { return RegisterApplication(kNone, window, 0, 1, 0, 0, 0, nullptr, nullptr, nullptr); }, kFail},
      {"HART_UnRegisterDriver 0", [] { return HART_UnRegisterDriver(0); }, kFail},
      {"UnRegisterApplication 100", [] { return UnRegisterApplication(kAppCount); }, kFail},
      {"HART_SetConfiguration 0", [] { return HART_SetConfiguration(0, &config); }, kFail},
      {"HART_GetConfiguration 99", [] { return HART_GetConfiguration(99, &config); }, kFail},
      {"HART_SendRequest 0", [] { return HART_SendRequest(0, &request, 1); }, kNone},
      {"HART_ReceiveRequest 0", [] { return HART_ReceiveRequest(0, 0, &request, nullptr); }, kFail},
      {"HART_GetNumberOfBurst 100", [] { return HART_GetNumberOfBurst(kAppCount, nullptr); }, kFail},
      {"HART_SetDebugFlags 0", [] { return HART_SetDebugFlags(0, ~0u); }, kFail},
      {"RegisterLLMonitor 0", [&] { return RegisterLLMonitor(0, window, 5); }, kFail},
      {"UnRegisterLLMonitor -1", [] { return UnRegisterLLMonitor(kNone); }, kFail},
      {"GetServiceHandle 0", [] { return GetServiceHandle(0, nullptr, nullptr, nullptr); }, kNone},
      {"AppendTransmitQueue 0 null", [] { return AppendTransmitQueue(0, nullptr); }, kFail},
      {"SetBaudRate null", [] { return SetBaudRate(nullptr); }, kFail},
      // Accessors.
      {"GetAppInfo 100", [] { return W(GetAppInfo(kAppCount)); }, kFail},
      {"GetAppKey 100", [] { return Word{GetAppKey(kAppCount)}; }, kFail},
      {"GetApphWnd -1", [] { return W(GetApphWnd(kNone)); }, kFail},
      {"GetBurstAppKey 100", [] { return Word{GetBurstAppKey(kAppCount)} + GetRepeatIfBusy(kAppCount); }, kFail},
      {"GetAppReceiveQueue -1", [] { return W(GetAppReceiveQueue(kNone)); }, kFail},
      {"GetComPortHandle -1", [] { return W(GetComPortHandle(kNone)); }, kNoHandle},
      {"GetComPortInfo 100", [] { return W(GetComPortInfo(kAppCount)); }, kFail},
      {"GetDriverId 100", [] { return Word{GetDriverId(kAppCount)}; }, kNone},
      {"GetServiceInfo 1000", [] { return W(GetServiceInfo(kServiceCount)); }, kFail},
      // Ports.
      {"SetComPortDevice 0", [] { return SetComPortDevice(0, "/dev/null"); }, kFail},
      {"SetComPortDevice 33", [] { return SetComPortDevice(33, "/dev/null"); }, kFail},
      {"OpenComPort port 0", [] { return W(OpenComPort(0, 0, 8, 1, 0, nullptr, 0)); }, kNoHandle},
      {"OpenComPort 7 data bits", [] { return W(OpenComPort(32, 0, 7, 1, 0, nullptr, 0)); }, kNoHandle},
      {"OpenComPort no parity", [] { return W(OpenComPort(32, 0, 8, 0, 0, nullptr, 0)); }, kNoHandle},
      {"OpenComPort device missing", [] { return W(OpenComPort(5, 0, 8, 1, 0, nullptr, 0)); }, kNoHandle},
      {"CloseComPort -1", [] { return CloseComPort(VELMORA_INVALID_HANDLE); }, kFail},
      {"CloseComPort unknown", [] { return CloseComPort(reinterpret_cast<HANDLE>(0x1234)); }, kFail},
      {"ComSetBaudRate null", [] { return ComSetBaudRate(nullptr); }, kFail},
      {"WriteToCom unknown", [] { return WriteToCom(reinterpret_cast<HANDLE>(8), bytes, 2); }, kNone},
      {"WriteToCom -1 huge", [] { return WriteToCom(VELMORA_INVALID_HANDLE, nullptr, kHuge); }, kNone},
      // Queues.
      {"fncSetQueueElementData null", [] { return fncSetQueueElementData(nullptr, bytes, 2); }, kFail},
      {"fncGetQueueElementData null", [] { return fncGetQueueElementData(nullptr, bytes, &length); }, kFail},
      {"fncGetQueueElementHartData null",
       [] { return fncGetQueueElementHartData(nullptr, bytes, &length); }, kFail},
      {"fncCopyQueueElement null", [] { return fncCopyQueueElement(nullptr, nullptr); }, kFail},
      {"fncAppendQueueElement null", [] { return fncAppendQueueElement(&queue, nullptr); }, kFail},
      {"fncRemoveQueueElement null", [] { return fncRemoveQueueElement(nullptr, nullptr); }, kFail},
      {"fncFindTransmitService 100", [] { return W(fncFindTransmitService(kAppCount, 0)); }, kFail},
      {"fncFindTransmitApplication 32", [] { return W(fncFindTransmitApplication(kPortCount, 0)); }, kFail},
      {"fncFindReceiveApplication -1", [] { return W(fncFindReceiveApplication(kNone, 0)); }, kFail},
      {"fncAppQueueExists 100", [] { return W(fncAppQueueExists(kAppCount)); }, kFail},
      {"fncGetBurstCount 100", [] { return fncGetBurstCount(kAppCount); }, kFail},
      {"fncPassToApplication null", [] { return fncPassToApplication(nullptr, 1, nullptr, 1, 0); }, 1},
      {"toIfTimeOut idle timer", [] { return toIfTimeOut(&timer); }, kFail},
      // Diagnostics.
      {"putHistRequest null huge", [] { return putHistRequest(nullptr, kHuge), GetHistorySize(); }, 0},
      {"putHistResponse huge", [] { return putHistResponse(bytes, kHuge), GetHistorySize(); }, 0},
      {"addHistStates null", [] { return addHistStates(nullptr), GetHistorySize(); }, 0},
      {"addHistServiceDetails junk", [] { return addHistServiceDetails(text), GetHistorySize(); }, 0},
      {"GetHistory all flags", [] { return static_cast<Word>(GetHistory(~0u).GetLength() > 1000000); }, 0},
      {"NotifyLLmonitor null", [] { return NotifyLLmonitor(nullptr), Word{0}; }, 0},
      // The toolbox.
      {"PickPackedASCII null", [] { return static_cast<Word>(PickPackedASCII(nullptr, 6, 0).GetLength()); }, 0},
      {"PickPackedASCII short group", [] { return static_cast<Word>(PickPackedASCII(bytes, 2, 0).GetLength()); }, 0},
      {"PickString length 0", [] { return static_cast<Word>(PickString(bytes, 0, 5).GetLength()); }, 0},
      {"HexDump null", [] { return Word{HexDump(nullptr, 40).Find("_>") >= 0}; }, 0},
      {"SimpleHexDump null", [] { return static_cast<Word>(SimpleHexDump(nullptr, kHuge).GetLength()); }, 0},
      {"NumStrToBuffer null", [] { return NumStrToBuffer(numbers, nullptr, &length), Word{0}; }, 0},
      {"GetSelectedBuffer null", [] { return GetSelectedBuffer(CString("1 2"), nullptr), Word{0}; }, 0},
      {"FrameDump null", [] { return FrameDump(nullptr, kHuge, nullptr, nullptr, nullptr), Word{0}; }, 0},
      {"GetHartUnit huge", [] { return static_cast<Word>(GetHartUnit(kHuge).GetLength() > 100); }, 0},
  };
}

class RegistrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetDriverTables();
    static int counter = 0;
    for (unsigned int port : {1u, 32u}) {
      lines_.push_back(platform::MemoryLine::Create("registration-" + std::to_string(++counter)));
      SetComPortDevice(port, ("mem:" + lines_.back()->Name()).c_str());
    }
    SetComPortDevice(5, "/dev/velmora-no-such-device");
  }
  void TearDown() override {
    ResetDriverTables();  // closes the ports and frees every row
    for (unsigned int port : {1u, 5u, 32u}) SetComPortDevice(port, nullptr);
    DestroyNoticeWindow(window_);
  }
  // The row registered, or kNone; the result agrees with the row. Without a window the client polls.
  unsigned int Register(unsigned int port, unsigned int baud = 0, bool windowed = true) {
    tagHARTREGISTRATION registration{windowed ? window_ : nullptr, port, baud, 0, 0x500, 0, 9};
    unsigned int hApp = 12345;
    const unsigned int result = HART_RegisterDriver(&registration, &hApp);
    EXPECT_EQ(result, hApp != kNone ? 1u : 0u);
    return hApp;
  }
  unsigned int Baud(unsigned int line) { return lines_[line]->EndBaud(platform::MemoryLine::kMasterEnd); }
  static unsigned int Send(unsigned int hApp) {
    tagHARTREQUEST request{};
    return HART_SendRequest(hApp, &request, 7);
  }
  // The request's reply fetched within 3 s by polling: its response code, or -1.
  static unsigned int Fetch(unsigned int hApp, unsigned int hServ) {
    tagHARTREQUEST reply{};
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3); std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(std::chrono::milliseconds(5)))
      if (HART_ReceiveRequest(hApp, hServ, &reply, nullptr) == 1) return reply.nResponseCode;
    return kNone;
  }
  static tagCOMPORTINFO &Port1() { return ComPortTable[0]; }
  static bool Serving() { return Port1().hComPort.load() != NoHandle() && Port1().bThreadRun.load() != 0; }

  std::vector<std::shared_ptr<platform::MemoryLine>> lines_;
  HWND window_ = CreateNoticeWindow();
};

// One registration at a time, each left again: ports 1..32 only, a device that cannot be opened
// fails cleanly, the line runs at the rate of the baud code, and the last to leave closes the port.
TEST_F(RegistrationTest, PortNumbersDevicesAndBaudCodes) {
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
// queued go at once and the rest are marked, and its row keeps nothing; the port stays open for
// the others, and keeps its configuration for the next registration after the last has left.
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
  AppTable[0].nBurstAppKey = 5;  // neither it nor the window goes to the row's next owner
  HART_UnRegisterDriver(0);
  EXPECT_EQ(Words({ServiceTable[s3].nServiceState.load(), ServiceTable[999].nServiceState.load(),
                   ServiceTable[s1].nServiceState.load() != 1, ServiceTable[s2].nServiceState.load(),
                   !fncFindTransmitApplication(0, 0), GetComPortHandle(1) != NoHandle(),
                   AppTable[0].nBurstAppKey.load(), AppTable[0].hWnd.load() == nullptr}),
            (Words{0, 4, 1, 1, 1, 1, 0, 1}));
  for (unsigned int hApp = 1; hApp < kAppCount; ++hApp) HART_UnRegisterDriver(hApp);
  ComPortTable[0].nRetries = 4;
  tagHARTCONFIG config{};
  HART_GetConfiguration(Register(1), &config);
  EXPECT_EQ(Words({config.nRetries, ComPortTable[0].bThreadRun.load()}), (Words{4, 1}));
}

// The exports on a registered application with null records and services not its own (bad
// handles: bad_input_test), what the configuration keeps of what it is given, and frames that
// would pass 256 bytes.
TEST_F(RegistrationTest, ExportsAnswerFromTheirArguments) {
  const unsigned int a = Register(32, 1);
  tagHARTREQUEST request{};
  tagHARTCONFIG config{};
  unsigned int id = 99;
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
  EXPECT_EQ(Words({HART_SetConfiguration(a, nullptr), HART_GetConfiguration(a, nullptr),
                   HART_SendRequest(a, nullptr, 1), HART_ReceiveRequest(a, kServiceCount, &request, &id),
                   HART_ReceiveRequest(a, kBurstService, &request, &id), HART_ReceiveRequest(a, 3, &request, &id),
                   HART_ReceiveRequest(a, 3, nullptr, nullptr), id, AppReceiveQueues[a].bLocked.load()}),
            (Words{0, 0, kNone, 0, 0, 0, 0, 99, 0}));
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

// Bad input through every export family: null pointers, ports, handles and indexes out of range,
// huge lengths, text that is not what it should be, calls before any registration and on a row
// left while another application stays on its port. None may crash or draw a sanitizer report,
// nor harm the application that stays: it keeps its port and its request ends as usual.
TEST_F(RegistrationTest, BadInputFailsCleanly) {
  unsigned int gone = kNone, live = kNone;
  for (const char *when : {"before any registration", "on a row left, another staying"}) {
    SCOPED_TRACE(when);
    for (const Row &row : BadInputRows(window_)) EXPECT_EQ(row.run(), row.expected) << row.call;
    if (live != kNone) break;
    gone = Register(1, 2);
    live = Register(1, 2);
    ASSERT_EQ(std::tuple(gone, live, HART_UnRegisterDriver(gone)), std::tuple(0u, 1u, 1u));
  }
  EXPECT_EQ(std::tuple(Serving(), Port1().nOpenCount, Port1().nMonitorMsg.load(), TakenServiceRows()),
            std::tuple(true, 1u, 0u, 0u));
  EXPECT_EQ(Fetch(live, Send(live)), 128u);
}

// The accessors read the registered row and its port's (out of range: BadInputFailsCleanly); a later
// registration with a history window takes the port's history over; the exports kept for older
// clients answer 1 for a registered application, whatever else they are given, and 0 otherwise.
TEST_F(RegistrationTest, AccessorsAndExportsKeptForOlderClients) {
  const unsigned int a = Register(32, 2);
  auto P = [](const void *pointer) { return reinterpret_cast<std::uintptr_t>(pointer); };
  AppTable[a].nBurstAppKey = 4;
  EXPECT_EQ(Words({P(GetAppInfo(a)), GetAppKey(a), P(GetAppReceiveQueue(a)), P(GetApphWnd(a)), GetBurstAppKey(a),
                   GetRepeatIfBusy(a), P(GetComPortHandle(a)), P(GetComPortInfo(a)), GetDriverId(a),
                   P(GetServiceInfo(kServiceCount - 1))}),
            (Words{P(&AppTable[a]), 9, P(&AppReceiveQueues[a]), P(window_), 4, 0, P(ComPortTable[31].hComPort.load()),
                   P(&ComPortTable[31]), 31, P(&ServiceTable[kServiceCount - 1])}));
  // The line monitor: the first to ask gets it, until it gives it up.
  EXPECT_EQ(Words({RegisterLLMonitor(a, window_, 0x700), RegisterLLMonitor(a, window_, 0x701), UnRegisterLLMonitor(a),
                   ComPortTable[31].nMonitorMsg.load(), P(ComPortTable[31].hMonitorWnd.load())}),
            (Words{1, 0, 1, 0, 0}));
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

// CloseComPort under registered applications: what they wait for fails, the row reads closed
// for good, and the next registration opens the port again with a worker, counting everyone. The
// first application has no window and polls; a third leaves while the port reads closed.
TEST_F(RegistrationTest, PortClosedUnderItsApplications) {
  const unsigned int first = Register(1, 2, false), third = Register(1, 2);
  Port1().nRetries = 5;  // still trying when the port closes
  const unsigned int pending = Send(first);
  HANDLE handle = Port1().hComPort.load();
  unsigned char frame[8] = {};
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  ASSERT_EQ(CloseComPort(handle), 1u);
  ASSERT_EQ(HART_UnRegisterDriver(third), 1u);
  EXPECT_EQ(std::tuple(Serving(), CloseComPort(handle), WriteToCom(handle, frame, 8), Send(first)),
            std::tuple(false, 0u, kNone, kNone));
  EXPECT_EQ(Fetch(first, pending), 128u);
  const unsigned int second = Register(1, 2);
  EXPECT_EQ(std::tuple(second != kNone, Serving(), Port1().nOpenCount), std::tuple(true, true, 2u));
  Port1().nRetries = 0;
  EXPECT_EQ(Fetch(first, Send(first)), 128u);  // served again
  HART_UnRegisterDriver(second);
  EXPECT_TRUE(Serving());
  HART_UnRegisterDriver(first);
  EXPECT_EQ(std::tuple(Serving(), PortHasRemains(0), TakenServiceRows()), std::tuple(false, false, 0u));
}

// Leaving in the middle of a frame with a six-second tail, then leaving a worker asleep on the
// idle line without any deadline: the worker stops at once, well inside the close's bound of 5 s
// for one that does not come back, and the port can be opened again straight away.
TEST_F(RegistrationTest, LeavingStopsTheWorkerAtOnce) {
  unsigned int hApp = Register(1, 2);
  tagHARTCONFIG slow{1, 5, 0, 0, 6000};  // 1200 baud, RTS held 6 s after the frame
  HART_SetConfiguration(hApp, &slow);
  Send(hApp);
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  for (int round = 0; round < 2; ++round) {
    const auto start = std::chrono::steady_clock::now();
    HART_UnRegisterDriver(hApp);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << "round " << round;
    EXPECT_EQ(TakenServiceRows(), 0u);  // the request in service went with it
    hApp = Register(1, 2);
    ASSERT_EQ(std::pair(hApp != kNone, Serving()), std::pair(true, true));
    for (int i = 0; i < 200 && Port1().nMacState.load() != macLineFree; ++i) platform::os::SleepMicros(5000);
  }
}

// Threads that close the port and leave it at the same moment: the outcome is one of the orders,
// never a mixture.
TEST_F(RegistrationTest, CloseAndLeaveFromTwoThreads) {
  for (int round = 0; round < 20; ++round) {
    const unsigned int a = Register(1, 2), b = Register(1, 2);
    HANDLE handle = Port1().hComPort.load();
    std::jthread closer([&] { CloseComPort(handle); });
    HART_UnRegisterDriver(a);
    HART_UnRegisterDriver(b);
    closer.join();
    ASSERT_EQ(std::pair(Serving(), PortHasRemains(0)), std::pair(false, false)) << "round " << round;
  }
}

}  // namespace
}  // namespace velmora::test
