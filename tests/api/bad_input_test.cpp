// Bad input through every export family: null pointers, ports, handles and indexes out of range,
// huge lengths, text that is not what it should be, calls before any registration and after the
// last unregistration. Each row is a call and the failure value it must give; none may crash or
// draw a sanitizer report.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>

#include "platform/memory_line.h"
#include "tables/tables.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

using Word = std::uintptr_t;
constexpr Word kFail = 0, kNoHandle = ~Word{0};
constexpr unsigned int kHuge = 0xFFFFFFF0u;

Word W(const void *pointer) { return reinterpret_cast<Word>(pointer); }

struct Row {
  const char *call;
  std::function<Word()> run;
  Word expected;
};

class BadInputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetDriverTables();
    line_ = platform::MemoryLine::Create("bad-input");
    SetComPortDevice(2, "mem:bad-input");
    SetComPortDevice(9, "/dev/velmora-no-such-device");
  }
  void TearDown() override {
    ResetDriverTables();
    for (unsigned int port : {2u, 9u}) SetComPortDevice(port, nullptr);
    DestroyNoticeWindow(window_);
  }
  std::vector<Row> Rows() {
    static unsigned char bytes[600] = {0x82, 0x11};  // past the 512 bytes a record keeps
    static tagHARTREQUEST request{};
    static tagHARTCONFIG config{1, 5, 0, 0, 0};
    static tagHARTREGISTRATION port_zero{nullptr, 0, 0, 0, 1, 0, 0}, port_33{nullptr, 33, 0, 0, 1, 0, 0},
        missing{nullptr, 9, 0, 0, 1, 0, 0};
    static unsigned int handle = 0, length = 0;
    static char text[] = "\x01\xff not a line";
    static typQueue queue{};
    static typTimerControlStruct timer{};
    HWND window = window_;
    return {
        // Registration and the request interface.
        {"HART_RegisterDriver null record", [] { return HART_RegisterDriver(nullptr, &handle) + handle + 1; }, 0},
        {"HART_RegisterDriver port 0", [] { return HART_RegisterDriver(&port_zero, nullptr); }, kFail},
        {"HART_RegisterDriver port 33", [] { return HART_RegisterDriver(&port_33, &handle); }, kFail},
        {"HART_RegisterDriver device missing", [] { return HART_RegisterDriver(&missing, &handle); }, kFail},
        {"RegisterApplication port -1",
         [&] { return RegisterApplication(kNone, window, 0, 1, 0, 0, 0, nullptr, nullptr, nullptr); }, kFail},
        {"HART_UnRegisterDriver 0", [] { return HART_UnRegisterDriver(0); }, kFail},
        {"HART_UnRegisterDriver -1", [] { return HART_UnRegisterDriver(kNone); }, kFail},
        {"UnRegisterApplication 100", [] { return UnRegisterApplication(kAppCount); }, kFail},
        {"HART_SetConfiguration 0", [] { return HART_SetConfiguration(0, &config); }, kFail},
        {"HART_GetConfiguration 99", [] { return HART_GetConfiguration(99, &config); }, kFail},
        {"HART_SendRequest 0", [] { return HART_SendRequest(0, &request, 1); }, kNone},
        {"HART_SendRequest -1 null", [] { return HART_SendRequest(kNone, nullptr, 1); }, kNone},
        {"HART_ReceiveRequest 0", [] { return HART_ReceiveRequest(0, 0, &request, nullptr); }, kFail},
        {"HART_ReceiveRequest service -1", [] { return HART_ReceiveRequest(0, kNone, nullptr, nullptr); }, kFail},
        {"HART_GetNumberOfBurst 100", [] { return HART_GetNumberOfBurst(kAppCount, nullptr); }, kFail},
        {"HART_SetDebugFlags 0", [] { return HART_SetDebugFlags(0, ~0u); }, kFail},
        {"RegisterLLMonitor 0", [&] { return RegisterLLMonitor(0, window, 5); }, kFail},
        {"UnRegisterLLMonitor -1", [] { return UnRegisterLLMonitor(kNone); }, kFail},
        {"GetServiceHandle 0", [] { return GetServiceHandle(0, nullptr, nullptr, nullptr); }, kNone},
        {"AppendTransmitQueue 0 null", [] { return AppendTransmitQueue(0, nullptr); }, kFail},
        {"SetBaudRate null", [] { return SetBaudRate(nullptr); }, kFail},
        // Accessors.
        {"GetAppInfo 100", [] { return W(GetAppInfo(kAppCount)); }, kFail},
        {"GetAppReceiveQueue -1", [] { return W(GetAppReceiveQueue(kNone)); }, kFail},
        {"GetComPortHandle -1", [] { return W(GetComPortHandle(kNone)); }, kNoHandle},
        {"GetComPortInfo 100", [] { return W(GetComPortInfo(kAppCount)); }, kFail},
        {"GetDriverId 100", [] { return Word{GetDriverId(kAppCount)}; }, kNone},
        {"GetServiceInfo 1000", [] { return W(GetServiceInfo(kServiceCount)); }, kFail},
        // Ports.
        {"SetComPortDevice 0", [] { return SetComPortDevice(0, "/dev/null"); }, kFail},
        {"SetComPortDevice 33", [] { return SetComPortDevice(33, "/dev/null"); }, kFail},
        {"OpenComPort port 0", [] { return W(OpenComPort(0, 0, 8, 1, 0, nullptr, 0)); }, kNoHandle},
        {"OpenComPort 7 data bits", [] { return W(OpenComPort(2, 0, 7, 1, 0, nullptr, 0)); }, kNoHandle},
        {"OpenComPort no parity", [] { return W(OpenComPort(2, 0, 8, 0, 0, nullptr, 0)); }, kNoHandle},
        {"OpenComPort device missing", [] { return W(OpenComPort(9, 0, 8, 1, 0, nullptr, 0)); }, kNoHandle},
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
        {"PickPackedASCII part of a group", [] { return static_cast<Word>(PickPackedASCII(bytes, 2, 0).GetLength()); }, 0},
        {"PickString length 0", [] { return static_cast<Word>(PickString(bytes, 0, 5).GetLength()); }, 0},
        {"BufferToHex negative length",
         [] {
           CString out("kept?");
           BufferToHex(bytes, -5, out);
           return Word{out == "not valid !"};
         },
         1},
        {"HexDump null", [] { return Word{HexDump(nullptr, 40).Find("_>") >= 0}; }, 0},
        {"SimpleHexDump null", [] { return static_cast<Word>(SimpleHexDump(nullptr, kHuge).GetLength()); }, 0},
        {"GetHexVal prefix only",
         [] {
           CString prefix(" 0x ");
           return Word{GetHexVal(prefix)};
         },
         0},
        {"NumStrToBuffer null",
         [] {
           CString numbers("1 2 3");
           NumStrToBuffer(numbers, nullptr, &length);
           return Word{0};
         },
         0},
        {"GetSelectedBuffer null", [] { return GetSelectedBuffer(CString("1 2"), nullptr), Word{0}; }, 0},
        {"FrameDump null", [] { return FrameDump(nullptr, kHuge, nullptr, nullptr, nullptr), Word{0}; }, 0},
        {"GetHartUnit huge", [] { return static_cast<Word>(GetHartUnit(kHuge).GetLength() > 100); }, 0},
    };
  }

  std::shared_ptr<platform::MemoryLine> line_;
  HWND window_ = CreateNoticeWindow();
};

TEST_F(BadInputTest, EveryFamilyFailsCleanly) {
  for (const char *when : {"before any registration", "after the last unregistration"}) {
    SCOPED_TRACE(when);
    for (const Row &row : Rows()) EXPECT_EQ(row.run(), row.expected) << row.call;
    // Between the rounds an application comes and goes.
    tagHARTREGISTRATION registration{window_, 2, 0, 0, 1, 0, 0};
    unsigned int hApp = kNone;
    ASSERT_EQ(HART_RegisterDriver(&registration, &hApp), 1u);
    ASSERT_EQ(HART_UnRegisterDriver(hApp), 1u);
  }
}

}  // namespace
}  // namespace velmora::test
