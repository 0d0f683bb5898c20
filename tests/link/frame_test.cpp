// Frames both ways: request frames as built for the wire, and what any byte stream off the wire
// leaves in the receive record. (Reply data taken apart is checked whole by the exchange stories;
// the frame-size limit by the request checks of the core tests.)
#include <random>
#include <tuple>

#include "diag/history_store.h"
#include "link/frame_builder.h"
#include "link/frame_parser.h"
#include "link/mac.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

class FrameTest : public LinkFixture {
 protected:
  void SetUp() override {
    LinkFixture::SetUp();
    Port().nMacState = 9;  // no transition: the state machine leaves the record alone
  }
  void Feed(const Bytes &b) { ProcessReceivedBytes(&Port(), b.data(), static_cast<unsigned int>(b.size())); }
};

TEST_F(FrameTest, BuildsTheWholeFrame) {
  const Bytes addr = {0xFF, 0x01, 0x02, 0x03, 0x04};  // bits 6-7 of the first byte are the frame's own
  // preambles, long-preamble fix, primary, address format, polling address, long address,
  // command, data, frame
  const std::tuple<unsigned, unsigned, unsigned, uint8_t, uint8_t, Bytes, uint8_t, Bytes, Bytes>
      rows[] = {
          {5, 0, 1, 0, 0, {}, 0, {}, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 2, 0x80, 0, 0, 0x82}},
          {25, 0, 1, 0, 0, {}, 0, {}, Frame(20, {2, 0x80, 0, 0})},  // at most 20 preambles
          {20, 1, 1, 0, 0, {}, 0, {}, Frame(7, {2, 0x80, 0, 0})},   // the long-preamble fix sends 7
          {5, 1, 1, 0, 0, {}, 0, {}, Frame(7, {2, 0x80, 0, 0})},
          {5, 0, 0, 1, 17, {}, 3, {}, Frame(5, {2, 1, 3, 0})},  // any format but 2 is short; 4-bit address
          {5, 0, 1, 3, 2, {}, 3, {0xAA}, Frame(5, {2, 0x82, 3, 1, 0xAA})},
          {5, 0, 1, 2, 0, addr, 39, {}, Frame(5, {0x82, 0xBF, 1, 2, 3, 4, 39, 0})},
          {5, 0, 0, 2, 0, addr, 1, {9}, Frame(5, {0x82, 0x3F, 1, 2, 3, 4, 1, 1, 9})},
      };
  for (auto [preambles, fix, primary, format, polling, long_address, command, data, expect] : rows) {
    SCOPED_TRACE(::testing::PrintToString(expect));
    Port().nPreambles = preambles;
    Port().bLongPreambleFix = fix;
    Port().bPrimaryMaster = primary;
    tagHARTREQUEST request{};
    request.nCommand = 0x100u | command;  // only the low bytes of command and count count
    request.nAddressFormat = format;
    request.nPollingAddress = polling;
    std::copy(long_address.begin(), long_address.end(), request.abLongAddress);
    request.pData = data.empty() ? nullptr : data.data();
    request.nDataCount = static_cast<unsigned int>(data.size()) | 0x1200;
    unsigned char out[256];
    unsigned int length = 0;
    EXPECT_EQ(BuildHartFrame(&Port(), &request, &length, out), 1u);
    EXPECT_EQ(Bytes(out, out + length), expect);
    EXPECT_EQ(BuiltFrameLength(Port(), request), length);
  }
}

// Each stream is fed whole, then split into random chunks, with the same outcome.
TEST_F(FrameTest, StreamLeavesTheRecordAsExpected) {
  // bytes; then message type, valid, receive state, preambles, frame length (delimiter to checksum)
  const std::tuple<Bytes, unsigned int, unsigned int, unsigned int, unsigned int, unsigned int> rows[] = {
      {{0xFF, 0x02, 0x80, 0x00, 0x00, 0x82}, kMsgPrimaryRequest, 1, 0, 1, 5},
      {Frame(3, {0x02, 0x05, 0x00, 0x00}), kMsgSecondaryRequest, 1, 0, 3, 5},
      {Frame(5, {0x06, 0x80, 0x00, 0x02, 0x00, 0x00}), kMsgResponseOwn, 1, 0, 5, 7},
      {Frame(5, {0x06, 0x00, 0x00, 0x02, 0x00, 0x00}), kMsgResponseOther, 1, 0, 5, 7},
      {Frame(5, {0x01, 0xC0, 0x03, 0x02, 0x00, 0x00}), kMsgBurstOwn, 1, 0, 5, 7},
      {Frame(5, {0x01, 0x40, 0x03, 0x02, 0x00, 0x00}), kMsgBurstOther, 1, 0, 5, 7},
      {Frame(7, {0x86, 0xA6, 0x06, 0xBC, 0x61, 0x4E, 0x01, 0x07, 0x00, 0x00, 0x27, 0x3F, 0x80, 0x00, 0x00}),
       kMsgResponseOwn, 1, 0, 7, 16},
      {{0x11, 0x22, 0x33, 0x44, 0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82}, kMsgPrimaryRequest, 1, 0, 2, 5},
      // Five noise bytes end the hunt; delimiters 3 and 133; a bad checksum; 0xFF in a frame is data.
      {{0x11, 0x22, 0x33, 0x44, 0x55, 0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82}, kMsgBad, 0, 4, 0, 0},
      {{0xFF, 0xFF, 0x03, 0x80, 0x00, 0x00}, kMsgBad, 0, 4, 2, 0}, {{0xFF, 0x85, 0x80}, kMsgBad, 0, 4, 1, 0},
      {{0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x83}, kMsgBad, 0, 0, 2, 5},
      {Frame(2, {0x06, 0x80, 0xFF, 0x02, 0xFF, 0xFF}), kMsgResponseOwn, 1, 0, 2, 7},
      {{0xFF, 0x06, 0x80, 0x00, 0xFB, 0x00, 0x00}, kMsgBad, 0, 4, 1, 4},  // byte count 251 can't fit
      {{0xFF, 0x86, 0x80, 0x01, 0x02, 0x03, 0x04, 0x00, 0xF7, 0x00}, kMsgBad, 0, 4, 1, 8},
      {{0xFF, 0xFF, 0x06, 0x80, 0x00, 0x05, 0x00}, kMsgResponseOwn, 0, 3, 2, 5},  // cut short
      // Two frames in one chunk: the second is parsed too.
      {{0xFF, 0x02, 0x80, 0, 0, 0x82, 0xFF, 0xFF, 0x06, 0, 1, 0, 0x07}, kMsgResponseOther, 1, 0, 2, 5},
  };
  std::mt19937 random(1234);
  for (const auto &[bytes, msg_type, valid, rx_state, preambles, frame_len] : rows) {
    SCOPED_TRACE(::testing::PrintToString(bytes));
    for (int round = 0; round < 20; ++round) {
      Rx().nRxState = kRxBetweenFrames;
      Rx().nBytesThisCycle = Port().nRxFrameLen = 0;
      for (size_t at = 0, take; at < bytes.size(); at += take) {
        take = round == 0 ? bytes.size() : std::min<size_t>(bytes.size() - at, 1 + random() % 5);
        ProcessReceivedBytes(&Port(), bytes.data() + at, static_cast<unsigned int>(take));
      }
      ASSERT_EQ(std::make_tuple(Rx().nMsgType, Rx().bFrameValid, static_cast<unsigned int>(Rx().nRxState),
                                Rx().nPreambleCount, Port().nRxFrameLen),
                std::make_tuple(msg_type, valid, rx_state, preambles, frame_len))
          << "round " << round;
      // A good frame is in the record whole, delimiter to checksum.
      ASSERT_TRUE(!valid || std::equal(bytes.end() - frame_len, bytes.end(), Rx().abFrame));
    }
  }
  // After a reset to hunting the noise count goes on from 5: only the fifth noise byte discards.
  Rx().nRxState = kRxBetweenFrames;
  Feed({1, 2, 3, 4, 5});
  ASSERT_EQ(Rx().nRxState, kRxDiscarding);
  Rx().nRxState = kRxHunting;
  Feed({6, 7, 8, 9, 10, 11});
  EXPECT_EQ(std::pair(Rx().nRxState + 0u, Port().nNonPreambleBytes), std::pair(1u, 11u));
}

// The monitor's capture stops at 512 bytes, and is off without a monitor window. (Random streams
// against the arrays' bounds: tests/fuzz/receiver_fuzz.cpp.)
TEST_F(FrameTest, MonitorCaptureIsBounded) {
  Port().nMonitorMsg = kMonitorMsg;
  Port().hMonitorWnd = app_window_;
  Feed(Bytes(600, 0x11));
  EXPECT_EQ(Rx().nMonitorLen, 512u);
  Port().hMonitorWnd = nullptr;
  Feed({0x12});
  EXPECT_EQ(Rx().nMonitorLen, 0u);
}

TEST_F(FrameTest, RequestWithOtherMastersBitOpensHistoryRecord) {
  clock_->AdvanceMs(50);
  Feed(Frame(5, {0x02, 0x00, 0x00, 0x00}));  // the port is primary: bit 7 clear is the other master
  uint32_t started = 0;
  WithHistory([&](typHistoryRecord *records, unsigned int open) { started = records[open].tRecordStart; });
  EXPECT_EQ(started, platform::NowMs());
}

}  // namespace
}  // namespace velmora::test
