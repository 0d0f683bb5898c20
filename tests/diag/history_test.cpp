// The history store and its text: limits, stamps, put rules, the state trace, and the text of
// records in plain and decoded form, byte for byte.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "core/tables.h"
#include "diag/history_store.h"
#include "platform/clock.h"

namespace velmora {
namespace {

class HistoryTest : public ::testing::Test {
 protected:
  void SetUp() override { FlushHistory(); }
  void TearDown() override { FlushHistory(); }
  void Put(std::vector<unsigned char> bytes, bool request) {
    if (request) putHistRequest(bytes.data(), static_cast<unsigned int>(bytes.size()));
    else putHistResponse(bytes.data(), static_cast<unsigned int>(bytes.size()));
  }
  typHistoryRecord Record(unsigned int index) {
    typHistoryRecord copy{};
    WithHistory([&](typHistoryRecord *records, unsigned int) { copy = records[index]; });
    return copy;
  }
  platform::VirtualClock clock_{500000};
};

TEST_F(HistoryTest, StoreHoldsOneHundredRecords) {
  EXPECT_EQ(GetHistorySize(), 0u);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(IncrementHistory(), 1u);
  EXPECT_EQ(GetHistorySize(), 100u);
  EXPECT_EQ(IncrementHistory(), 0u);
  EXPECT_EQ(GetHistorySize(), 100u);
  SetRspPAs(9);
  EXPECT_EQ(GetRspPAs(), 0u);
  addHistStates(const_cast<char *>("dropped"));
  FlushHistory();
  EXPECT_EQ(GetHistorySize(), 0u);
  addHistStates(const_cast<char *>("kept"));
  ASSERT_NE(Record(0).psStates, nullptr);
}

TEST_F(HistoryTest, StampsCountFromTheRecordStart) {
  StartHistory();
  clock_.AdvanceMs(10);
  addHistServiceDetails(const_cast<char *>("a"));
  clock_.AdvanceMs(2);
  addHistServiceDetails(const_cast<char *>("b"));
  EXPECT_EQ(Record(0).psServiceDetails->str(), "000010: a\r\n000012: b");
}

TEST_F(HistoryTest, PutRulesKeepBothArrays) {
  StartHistory();
  Put({1, 2}, false);
  typHistoryRecord record = Record(0);
  ASSERT_NE(record.pRequestBytes, nullptr);
  EXPECT_EQ(record.pRequestBytes->GetSize(), 0);
  EXPECT_EQ(record.psRequestTime, nullptr);
  Put({3, 4, 5}, true);
  record = Record(0);
  EXPECT_EQ(record.pResponseBytes->GetSize(), 0);  // a request clears the response
  EXPECT_EQ(record.pRequestBytes->GetSize(), 3);
  EXPECT_EQ(*record.psResponseTime, *record.psRequestTime);
  Put({}, true);
  EXPECT_EQ(Record(0).pRequestBytes->GetSize(), 0);
}

TEST_F(HistoryTest, StateTraceLineFormat) {
  tagCOMPORTINFO &port = ComPortTable[5];
  ClearStateTrace(&port);
  port.tTraceBase = platform::NowMs();
  clock_.AdvanceMs(4);
  TraceState(&port, "->K");
  clock_.AdvanceMs(2);
  TraceState(&port, "Tstr");
  clock_.AdvanceMs(51);
  TraceState(&port, "Tend");
  TraceState(&port, "->D");
  EXPECT_STREQ(StateTraceOf(&port), "4:->K / 2:Tstr / 51:Tend / ->D");
  FlushStateTrace(&port);
  EXPECT_STREQ(StateTraceOf(&port), "");
  FlushStateTrace(&port);  // an empty line gives a line of only a stamp
  const std::string states = Record(0).psStates->str();
  EXPECT_NE(states.find("4:->K / 2:Tstr / 51:Tend / ->D"), std::string::npos);
  // The second flush added a line of only a stamp: no record start, so the plain clock.
  EXPECT_EQ(states.substr(states.size() - 10), "\r\n500057: ");
}

TEST_F(HistoryTest, StateTraceIsBounded) {
  tagCOMPORTINFO &port = ComPortTable[6];
  ClearStateTrace(&port);
  for (int i = 0; i < 2000; ++i) {
    clock_.AdvanceMs(1);
    TraceState(&port, "->AJO");
    ASSERT_LT(std::string(StateTraceOf(&port)).size(), kStateTraceSize);
  }
  EXPECT_NE(Record(0).psStates, nullptr);  // flushed into the record at the limit
}

// The request: command 6 with one data byte to polling address 0, primary, 5 preambles; the
// reply 183 ms later after 7 preambles, status bytes 0 and 64 and one data byte.
class HistoryTextTest : public HistoryTest {
 protected:
  void Exchange(std::vector<unsigned char> response) {
    StartHistory();
    Put({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0x80, 0x06, 0x01, 0x05, 0x80}, true);
    clock_.AdvanceMs(183);
    SetRspPAs(7);
    if (!response.empty()) Put(response, false);
    IncrementHistory();
  }
};

const char kHead[] = "____00,01,02,03,04,05,06,07,08,09,0A,0B,0C,0D,0E,0F\r\n";

TEST_F(HistoryTextTest, WorkedExamplePlain) {
  Exchange({0x06, 0x80, 0x06, 0x03, 0x00, 0x40, 0x05, 0xC6});
  EXPECT_EQ(GetHistory(0).str(), std::string("000000: Request, Preambles 5, STX, CMD 6, Length: 6\r\n") + kHead +
                                      "00_>02,80,06,01,05,80\r\n" +
                                      "000183: Response, Preambles 7, ACK, Length: 8\r\n" + kHead +
                                      "00_>06,80,06,03,00,40,05,C6\r\n");
  EXPECT_EQ(GetHistory(1).str(), GetHistory(0).str());
}

TEST_F(HistoryTextTest, WorkedExampleDecoded) {
  Exchange({0x06, 0x80, 0x06, 0x03, 0x00, 0x40, 0x05, 0xC6});
  EXPECT_EQ(GetHistory(16).str(), std::string("000000: Request, Preambles 5, STX, CMD 6, Data Length: 1\r\n") + kHead +
                                       "00_>05\r\n" + "000183: Rsp Code 1: 00, Rsp Code 2: 01000000, Data Length: 1\r\n" +
                                       kHead + "00_>05\r\n");
}

TEST_F(HistoryTextTest, NoAnswerAndShortAnswers) {
  Exchange({});
  const std::string text = GetHistory(16).str();
  EXPECT_NE(text.find("000000: No Response or Error!\r\n"), std::string::npos);
  FlushHistory();
  Exchange({0x06, 0x80, 0x06, 0x02, 0x84, 0x00, 0x80});
  const std::string error = GetHistory(16).str();
  EXPECT_EQ(error.substr(error.find("000183")), "000183: Rsp Code 1: 0x84, Rsp Code 2: 00000000, No Response Data");
  FlushHistory();
  Exchange({0x06, 0x80, 0x06, 0x01, 0x7F});
  const std::string five = GetHistory(16).str();
  EXPECT_EQ(five.substr(five.find("000183")), "000183: Rsp Code 1: 127, No Rsp Code 2 !, No Response Data");
  FlushHistory();
  Exchange({0x06, 0x80, 0x06, 0x01});
  const std::string four = GetHistory(16).str();
  EXPECT_EQ(four.substr(four.find("000183")), "000183: No Response Codes !, No Response Data");
}

TEST_F(HistoryTextTest, OddRequestsAndJoining) {
  StartHistory();
  Put({0xFF, 0xFF}, true);
  IncrementHistory();
  EXPECT_EQ(GetHistory(0).str(), "Preambles 2, No Request Frame ?\r\n000000: No Response or Error!\r\n");
  FlushHistory();
  Put({0x06, 0x80}, false);
  IncrementHistory();
  EXPECT_EQ(GetHistory(0).str().substr(0, 20), "No Request Frame ?\r\n");
  FlushHistory();
  StartHistory();
  Put({0x82, 0x80, 0x01, 0x02, 0x03, 0x04, 0x0D, 0x00, 0x0C}, true);
  Put({0x03, 0x01}, false);
  IncrementHistory();
  const std::string text = GetHistory(0).str();
  EXPECT_NE(text.find("Preambles 0, EXT_STX, CMD 13, "), std::string::npos);
  EXPECT_NE(text.find("INVALID, Length: 2"), std::string::npos);
  FlushHistory();
  Put({0xFF, 0x02, 0x80}, true);
  IncrementHistory();
  EXPECT_NE(GetHistory(16).str().find("CMD ?, Data Length: 0"), std::string::npos);
}

TEST_F(HistoryTextTest, ListsInOrderAndRecordsSeparatedByAnEmptyLine) {
  addHistServiceDetails(const_cast<char *>("svc"));
  addHistStates(const_cast<char *>("st"));
  addHistReceiveDetails(const_cast<char *>("rx"));
  addHistQueueDetails(const_cast<char *>("queue"));
  Exchange({0x06, 0x80, 0x06, 0x02, 0x00, 0x00, 0x82});
  Exchange({0x06, 0x80, 0x06, 0x02, 0x00, 0x00, 0x82});
  const std::string all = GetHistory(30).str();
  const size_t svc = all.find("svc"), request = all.find("Request"), st = all.find("st\r\n"), rx = all.find("rx"),
               response = all.find("Rsp Code 1");
  EXPECT_LT(svc, request);
  EXPECT_LT(request, st);
  EXPECT_LT(st, rx);
  EXPECT_LT(rx, response);
  EXPECT_EQ(all.find("queue"), std::string::npos);
  const std::string plain = GetHistory(0).str();
  EXPECT_NE(plain.find("\r\n\r\n000000: Request"), std::string::npos);
}

TEST_F(HistoryTest, WritersOnSeveralThreadsAndAReaderThatFlushes) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int w = 0; w < 4; ++w)
    writers.emplace_back([&, w] {
      unsigned char frame[] = {0xFF, 0x02, 0x80, 0x00, 0x00, 0x82};
      while (!stop) {
        putHistRequest(frame, sizeof frame);
        addHistServiceDetails(const_cast<char *>(w % 2 ? "odd" : "even"));
        putHistResponse(frame + 1, 5);
        IncrementHistory();
      }
    });
  for (int i = 0; i < 200; ++i) {
    const std::string text = GetHistory(30).str();
    if (i % 10 == 0) FlushHistory();
    ASSERT_LE(GetHistorySize(), 100u);
  }
  stop = true;
  for (std::thread &writer : writers) writer.join();
}

}  // namespace
}  // namespace velmora
