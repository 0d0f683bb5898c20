// The byte parser: what any byte stream off the wire leaves in the receive record.
#include <random>

#include "core/tables.h"
#include "diag/history_store.h"
#include "link/frame_parser.h"
#include "link/mac.h"
#include "port/port_runtime.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

constexpr unsigned int kInertState = 9;  // no transition: the state machine leaves the record alone

class FrameParserTest : public LinkFixture {
 protected:
  void SetUp() override {
    LinkFixture::SetUp();
    Port().nMacState = kInertState;
  }
  void Feed(const std::vector<unsigned char> &bytes) {
    ProcessReceivedBytes(&Port(), bytes.data(), static_cast<unsigned int>(bytes.size()));
  }
};

struct ParseCase {
  const char *name;
  std::vector<unsigned char> bytes;
  unsigned int msg_type;
  unsigned int frame_valid;
  unsigned int rx_state;
  unsigned int preambles;
};

class ParseTableTest : public FrameParserTest, public ::testing::WithParamInterface<ParseCase> {};

TEST_P(ParseTableTest, StreamLeavesTheRecordAsExpected) {
  const ParseCase c = GetParam();
  Feed(c.bytes);
  EXPECT_EQ(Rx().nMsgType, c.msg_type) << c.name;
  EXPECT_EQ(Rx().bFrameValid, c.frame_valid) << c.name;
  EXPECT_EQ(Rx().nRxState, c.rx_state) << c.name;
  EXPECT_EQ(Rx().nPreambleCount, c.preambles) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Streams, ParseTableTest,
    ::testing::Values(
        ParseCase{"single preamble request", {0xFF, 0x02, 0x80, 0x00, 0x00, 0x82}, 2, 1, 0, 1},
        ParseCase{"secondary request", Frame(3, {0x02, 0x05, 0x00, 0x00}), 3, 1, 0, 3},
        ParseCase{"response to own role", Frame(5, {0x06, 0x80, 0x00, 0x02, 0x00, 0x00}), 4, 1, 0, 5},
        ParseCase{"response to other master", Frame(5, {0x06, 0x00, 0x00, 0x02, 0x00, 0x00}), 6, 1, 0, 5},
        ParseCase{"burst to own role", Frame(5, {0x01, 0xC0, 0x03, 0x02, 0x00, 0x00}), 5, 1, 0, 5},
        ParseCase{"burst to other master", Frame(5, {0x01, 0x40, 0x03, 0x02, 0x00, 0x00}), 7, 1, 0, 5},
        ParseCase{"long request", Frame(5, {0x82, 0xA6, 0x06, 0xBC, 0x61, 0x4E, 0x00, 0x00}), 2, 1, 0, 5},
        ParseCase{"long response", Frame(5, {0x86, 0xA6, 0x06, 0xBC, 0x61, 0x4E, 0x01, 0x02, 0x00, 0x00}), 4, 1, 0, 5},
        ParseCase{"four noise bytes then a frame",
                  {0x11, 0x22, 0x33, 0x44, 0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82}, 2, 1, 0, 2},
        ParseCase{"five noise bytes end the hunt",
                  {0x11, 0x22, 0x33, 0x44, 0x55, 0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82}, 8, 0, 4, 0},
        ParseCase{"delimiter 3", {0xFF, 0xFF, 0x03, 0x80, 0x00, 0x00}, 8, 0, 4, 2},
        ParseCase{"delimiter 133", {0xFF, 0x85, 0x80}, 8, 0, 4, 1},
        ParseCase{"bad checksum", {0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x83}, 8, 0, 0, 2},
        ParseCase{"0xFF inside a frame is data", Frame(2, {0x06, 0x80, 0xFF, 0x02, 0xFF, 0xFF}), 4, 1, 0, 2},
        ParseCase{"byte count 251 cannot fit", {0xFF, 0x06, 0x80, 0x00, 0xFB, 0x00, 0x00}, 8, 0, 4, 1},
        ParseCase{"long byte count 247 cannot fit",
                  {0xFF, 0x86, 0x80, 0x01, 0x02, 0x03, 0x04, 0x00, 0xF7, 0x00}, 8, 0, 4, 1},
        ParseCase{"frame cut short", {0xFF, 0xFF, 0x06, 0x80, 0x00, 0x05, 0x00}, 4, 0, 3, 2}));

TEST_F(FrameParserTest, ByteCountZeroMakesTheNextByteTheChecksum) {
  Feed({0xFF, 0x02, 0x80, 0x00, 0x00});
  EXPECT_EQ(Rx().nExpectedLen, 5u);
  EXPECT_EQ(Rx().nRxState, 3u);
  Feed({0x82});
  EXPECT_EQ(Rx().bFrameValid, 1u);
  EXPECT_EQ(Rx().nFrameLen, 4u);
  EXPECT_EQ(Port().nRxFrameLen, 5u);
}

TEST_F(FrameParserTest, ChunksSplitAnywhereGiveTheSameFrame) {
  const std::vector<unsigned char> frame =
      Frame(7, {0x86, 0xA6, 0x06, 0xBC, 0x61, 0x4E, 0x01, 0x07, 0x00, 0x00, 0x27, 0x3F, 0x80, 0x00, 0x00});
  std::mt19937 random(1234);
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE(round);
    Rx().nRxState = 0;
    Rx().nBytesThisCycle = 0;
    size_t at = 0;
    while (at < frame.size()) {
      const size_t take = std::min<size_t>(frame.size() - at, 1 + random() % 5);
      ProcessReceivedBytes(&Port(), frame.data() + at, static_cast<unsigned int>(take));
      at += take;
    }
    ASSERT_EQ(Rx().bFrameValid, 1u);
    ASSERT_EQ(Rx().nMsgType, 4u);
    ASSERT_EQ(Rx().nPreambleCount, 7u);
    ASSERT_EQ(Rx().abFrame[14], 0x00);
  }
}

TEST_F(FrameParserTest, NoiseCountIsComparedForEquality) {
  Feed({1, 2, 3, 4, 5});
  ASSERT_EQ(Rx().nRxState, 4u);
  // A reset puts the parser back to hunting with the count still at 5: more noise goes on.
  Rx().nRxState = 1;
  Feed({6, 7, 8, 9, 10, 11});
  EXPECT_EQ(Rx().nRxState, 1u);
  EXPECT_EQ(Port().nNonPreambleBytes, 11u);
}

TEST_F(FrameParserTest, RandomBytesNeverLeaveTheArrays) {
  std::mt19937 random(20261122);
  SCOPED_TRACE("seed 20261122");
  unsigned char chunk[256];
  for (int round = 0; round < 20000; ++round) {
    const unsigned int length = 1 + random() % 256;
    for (unsigned int i = 0; i < length; ++i) {
      // Mostly preambles and delimiters, so that the parser gets deep into frames.
      const unsigned int pick = random() % 8;
      chunk[i] = pick == 0 ? 0xFF : pick == 1 ? 0x06 : pick == 2 ? 0x82 : static_cast<unsigned char>(random());
    }
    ProcessReceivedBytes(&Port(), chunk, length);
    ASSERT_LE(Rx().nRxState, 4u);
    ASSERT_LE(Rx().nMonitorLen, 512u);
    if (random() % 16 == 0) Rx().nRxState = 0;  // the gap rule
  }
}

TEST_F(FrameParserTest, MonitorCaptureStopsAt512Bytes) {
  HWND monitor = CreateNoticeWindow();
  Port().nMonitorMsg = kMonitorMsg;
  Port().hMonitorWnd = monitor;
  std::vector<unsigned char> noise(600, 0x12);
  Feed(noise);
  EXPECT_EQ(Rx().nMonitorLen, 512u);
  Port().nMonitorMsg = 0;
  Port().hMonitorWnd = nullptr;
  Feed({0x12});
  EXPECT_EQ(Rx().nMonitorLen, 0u);
  DestroyNoticeWindow(monitor);
}

TEST_F(FrameParserTest, TwoFramesInOneChunkGiveTwoFrameEvents) {
  HWND monitor = CreateNoticeWindow();
  Port().nMonitorMsg = kMonitorMsg;
  Port().hMonitorWnd = monitor;
  Port().nMacState = macLineFree;
  std::vector<unsigned char> chunk = Frame(5, {0x06, 0x80, 0x00, 0x02, 0x00, 0x00});
  const std::vector<unsigned char> second = Frame(5, {0x06, 0x80, 0x01, 0x02, 0x00, 0x00});
  chunk.insert(chunk.end(), second.begin(), second.end());
  Feed(chunk);
  std::vector<int> sizes;
  for (const MSG &msg : Drain(monitor)) {
    auto *bytes = reinterpret_cast<CByteArray *>(msg.lParam);
    sizes.push_back(bytes->GetSize());
    delete bytes;
  }
  EXPECT_EQ(sizes, (std::vector<int>{12 + 8, 12 + 8}));
  Port().nMonitorMsg = 0;
  Port().hMonitorWnd = nullptr;
  DestroyNoticeWindow(monitor);
}

TEST_F(FrameParserTest, RequestWithOtherMastersBitOpensHistoryRecord) {
  // The port is primary (role 1): a request with bit 7 clear is the other master's.
  platform::VirtualClock &clock = *clock_;
  clock.AdvanceMs(50);
  Feed(Frame(5, {0x02, 0x00, 0x00, 0x00}));
  const uint32_t started = [] {
    uint32_t start = 0;
    WithHistory([&](typHistoryRecord *records, unsigned int open) { start = records[open].tRecordStart; });
    return start;
  }();
  EXPECT_EQ(started, platform::NowMs());
}

}  // namespace
}  // namespace velmora::test
