// The history store (its bound of 100 records, writers on many threads, the state trace) and its
// text, plain and decoded, byte for byte; and the monitor notices, their bytes and times, across
// the clock wrap.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "diag/history_store.h"
#include "platform/clock.h"
#include "tables/tables.h"

namespace velmora {
namespace {

using Bytes = std::vector<unsigned char>;

char *Text(const char *text) { return const_cast<char *>(text); }

class HistoryTest : public ::testing::Test {
 protected:
  void SetUp() override { FlushHistory(); }
  // One exchange as the link layer records it: a reply left from before (the request must clear
  // it), the request, details of each kind, and the reply 183 ms on after 7 preambles.
  void Exchange(Bytes request, Bytes response) {
    StartHistory();
    putHistResponse(Bytes{0x06, 0x99}.data(), 2);
    addHistServiceDetails(Text("svc"));
    if (!request.empty()) putHistRequest(request.data(), static_cast<unsigned int>(request.size()));
    clock_.AdvanceMs(12);
    addHistStates(Text("st"));
    clock_.AdvanceMs(171);
    addHistReceiveDetails(Text("rx"));
    addHistQueueDetails(Text("queue"));  // never shown
    SetRspPAs(7);
    EXPECT_EQ(GetRspPAs(), GetHistorySize() < kHistoryRecords ? 7u : 0u);  // a full store keeps none
    if (!response.empty()) putHistResponse(response.data(), static_cast<unsigned int>(response.size()));
    IncrementHistory();
  }
  platform::VirtualClock clock_{500000};
};

// A frame's bytes as the history shows them.
std::string Dump(const std::string &hex, int count) {
  return "Length: " + std::to_string(count) + "\r\n____00,01,02,03,04,05,06,07,08,09,0A,0B,0C,0D,0E,0F\r\n" +
         "00_>" + hex + "\r\n";
}

TEST_F(HistoryTest, TextOfRecordsPlainAndDecoded) {
  // Command 6 with one data byte to polling address 0; command 44 with one data byte to a 5-byte
  // address, answered with status 8 and 0x50 and two data bytes (values apart from the byte count
  // and the address, so that reading a long frame one byte off shows).
  const Bytes request = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0x80, 0x06, 0x01, 0x05, 0x80};
  const Bytes reply = {0x06, 0x80, 0x06, 0x03, 0x00, 0x40, 0x05, 0xC6};
  const Bytes long_request = {0xFF, 0xFF, 0xFF, 0xFF, 0x82, 0xA6, 0x4E, 1, 2, 3, 0x2C, 0x01, 0x07, 0x40};
  const Bytes long_reply = {0x86, 0xA6, 0x4E, 1, 2, 3, 0x2C, 0x04, 0x08, 0x50, 0x07, 0x09, 0x10};
  const std::string plain = "000000: Request, Preambles 5, STX, CMD 6, " + Dump("02,80,06,01,05,80", 6) +
                            "000183: Response, Preambles 7, ACK, " + Dump("06,80,06,03,00,40,05,C6", 8);
  const std::string decoded = "000000: Request, Preambles 5, STX, CMD 6, Data " + Dump("05", 1);
  const std::string none = "000000: No Response or Error!\r\n";
  const std::tuple<Bytes, Bytes, unsigned int, std::string> rows[] = {
      {request, reply, 30, "000000: svc\r\n" + decoded + "000012: st\r\n000183: rx\r\n" +
                               "000183: Rsp Code 1: 00, Rsp Code 2: 01000000, Data " + Dump("05", 1)},
      {request, {}, 16, decoded + none},
      {request, {0x06, 0x80, 0x06, 0x02, 0x84, 0x00, 0x80}, 16,
       decoded + "000183: Rsp Code 1: 0x84, Rsp Code 2: 00000000, No Response Data"},
      {request, {0x06, 0x80, 0x06, 0x01, 0x7F}, 16,
       decoded + "000183: Rsp Code 1: 127, No Rsp Code 2 !, No Response Data"},
      {request, {0x06, 0x80, 0x06, 0x01}, 16, decoded + "000183: No Response Codes !, No Response Data"},
      {long_request, long_reply, 18,
       "000000: Request, Preambles 4, EXT_STX, CMD 44, Data " + Dump("07", 1) + "000183: rx\r\n" +
           "000183: Rsp Code 1: 08, Rsp Code 2: 01010000, Data " + Dump("07,09", 2)},
      {{0xFF, 0xFF}, {}, 0, "Preambles 2, No Request Frame ?\r\n" + none},
      {{0xFF, 0x02, 0x80}, {}, 16, "000000: Request, Preambles 1, STX, CMD ?, Data Length: 0\r\n" + none},
      {{}, {3, 1}, 0, "No Request Frame ?\r\n000183: Response, Preambles 7, INVALID, " + Dump("03,01", 2)},
      {request, reply, 0, plain},
  };
  for (const auto &[request_bytes, response_bytes, flags, text] : rows) {
    SCOPED_TRACE(text);
    FlushHistory();
    Exchange(request_bytes, response_bytes);
    EXPECT_EQ(GetHistory(flags).str(), text);
  }
  Exchange(request, reply);
  EXPECT_EQ(GetHistory(0).str(), plain + "\r\n" + plain);  // records apart by an empty line
}

TEST_F(HistoryTest, StateTraceIsBoundedAndFlushed) {
  tagCOMPORTINFO &port = ComPortTable[5];
  port.tTraceBase = platform::NowMs();
  StartHistory();
  for (const auto &[ms, mark] : {std::pair{4u, "->K"}, {2u, "Tstr"}, {51u, "Tend"}, {0u, "->D"}}) {
    clock_.AdvanceMs(ms);
    TraceState(&port, mark);
  }
  FlushStateTrace(&port);
  for (int i = 0; i < 2000; ++i, clock_.AdvanceMs(1)) {
    TraceState(&port, "->AJO");
    ASSERT_LT(std::string(StateTraceOf(&port)).size(), kStateTraceSize);
  }
  FlushStateTrace(&port);
  IncrementHistory();
  const std::string states = GetHistory(4).str();
  EXPECT_EQ(states.substr(0, 63), "000057: 4:->K / 2:Tstr / 51:Tend / ->D\r\n000414: ->AJO / 1:->AJO");
  EXPECT_EQ(std::count(states.begin(), states.end(), 'J'), 2000);  // no mark lost where it flushed
  EXPECT_EQ(states.find(":  / "), std::string::npos);              // a line begun by a flush starts clean
}

// At most 100 records, whatever the writers do: alone, or on several threads with a reader that
// renders and flushes (ThreadSanitizer checks the locking).
TEST_F(HistoryTest, HundredRecordsAgainstConcurrentWriters) {
  for (int i = 0; i < 100; ++i) ASSERT_EQ(IncrementHistory(), 1u);
  Exchange({0x02, 0x80}, {0x06, 0x80});  // every writer, each finding no open record
  EXPECT_EQ(GetHistorySize(), 100u);
  std::vector<std::thread> writers;
  for (int w = 0; w < 4; ++w)
    writers.emplace_back([] {
      unsigned char frame[] = {0xFF, 0x02, 0x80, 0x00, 0x00, 0x82};
      for (int i = 0; i < 2000; ++i) {
        putHistRequest(frame, sizeof frame);
        addHistServiceDetails(Text("svc"));
        putHistResponse(frame + 1, 5);
        IncrementHistory();
      }
    });
  for (int i = 0; i < 200; ++i) {
    const std::string text = GetHistory(30).str();
    if (i % 10 == 0) FlushHistory();
    ASSERT_LE(GetHistorySize(), 100u);
  }
  for (std::thread &writer : writers) writer.join();
}

// Every monitor notice waiting as "code bytes gap/frame ", each array deleted as a receiver must.
// The frames are text here: the monitor passes on whatever bytes it holds.
std::string TakeNotices(HWND window) {
  std::string out;
  for (MSG msg; PeekMessageA(&msg, window, 0, 0, PM_REMOVE);) {
    auto *array = reinterpret_cast<CByteArray *>(msg.lParam);
    const unsigned char *data = array->GetData(), *t = data + array->GetSize() - 8;
    auto ms = [](auto *p) { return std::to_string(p[0] | p[1] << 8 | p[2] << 16 | p[3] << 24); };
    out += std::to_string(msg.wParam) + " " + std::string(data, t) + " " + ms(t) + "/" + ms(t + 4) + " ";
    delete array;
  }
  return out;
}

TEST(MonitorTest, NoticesCarryBytesGapAndFrameTime) {
  platform::VirtualClock clock(0xFFFFFFC0ull);  // 64 ms before the 32-bit clock wraps
  tagCOMPORTINFO &port = ComPortTable[11];
  typRxFrameStruct &rx = *port.pRxFrame;
  HWND window = CreateNoticeWindow();
  port.nMonitorMsg = 0x321;
  port.hMonitorWnd = window;
  char *arg = reinterpret_cast<char *>(&port);
  auto hold = [&](const std::string &bytes) { for (char b : bytes) rx.abMonitor[rx.nMonitorLen++] = b; };
  port.tLastNotify = port.tFrameStart = platform::NowMs();
  // A request goes out 9 ms after its start (the echo held is dropped); the next gap runs from there.
  typQueueElement *active = fncCreateQueueElement();
  fncSetQueueElementData(active, reinterpret_cast<unsigned char *>(Text("request")), 7);
  port.pActiveElement = active;
  hold("echo");
  clock.AdvanceMs(9);
  NotifyLLmonitorTransmit(arg);
  clock.AdvanceMs(30);  // no reply: a time-out notice with nothing held
  NotifyLLmonitorTimeOut(arg, 3);
  clock.AdvanceMs(40);  // across the wrap a reply starts, and takes 25 ms
  port.tFrameStart = platform::NowMs();
  hold("reply");
  clock.AdvanceMs(25);
  NotifyLLmonitor(arg);
  EXPECT_EQ(TakeNotices(window), "0 request 0/9 3  0/30 0 reply 40/25 ");
  port.pActiveElement = nullptr;
  fncDestroyQueueElement(active);
  // Without a monitor message nothing goes; to a window that has gone the post fails and the
  // array is deleted (LeakSanitizer checks).
  port.nMonitorMsg = 0;
  hold("123");
  NotifyLLmonitorTimeOut(arg, 1);
  EXPECT_EQ(TakeNotices(window), "");
  port.nMonitorMsg = 0x321;
  DestroyNoticeWindow(window);
  NotifyLLmonitor(arg);
  EXPECT_EQ(rx.nMonitorLen, 0u);
  port.hMonitorWnd = nullptr;
}

}  // namespace
}  // namespace velmora
