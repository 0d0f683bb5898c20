// The simulator's own frame code and data encodings: checksums, the frame layout, the
// byte-at-a-time receiver with its preamble and gap rules, packed ASCII and floats.
#include "sim/sim_frame.h"

#include <gtest/gtest.h>

#include "sim/sim_data.h"

namespace velmora::sim {
namespace {

using Bytes = std::vector<uint8_t>;
using Outcome = FrameReceiver::Outcome;

TEST(SimFrame, ShortRequestLayoutAndChecksum) {
  Frame frame;
  frame.delimiter = kShortRequest;
  frame.address[0] = 0x80;
  frame.command = 0;
  EXPECT_EQ(EncodeTransmission(frame, 5), (Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82}));
}

TEST(SimFrame, LongResponseCoversAllAddressBytes) {
  Frame frame;
  frame.delimiter = kLongResponse;
  frame.address = {0xA0, 0x1A, 0x5A, 0x00, 0x01};
  frame.command = 1;
  frame.data = {0x00, 0x20, 0x0C};
  Bytes proper = EncodeFrame(frame);
  ASSERT_EQ(proper.size(), 1u + 5 + 1 + 1 + 3 + 1);
  EXPECT_EQ(proper[7], 3);
  EXPECT_EQ(proper.back(), Checksum(proper.data(), proper.size() - 1));
  EXPECT_EQ(Checksum(proper.data(), proper.size()), 0) << "a frame with its checksum XORs to zero";
}

TEST(SimFrame, DataBeyond255BytesIsNotSent) {
  Frame frame;
  frame.data.assign(300, 0x11);
  Bytes proper = EncodeFrame(frame);
  EXPECT_EQ(proper.size(), 1u + 1 + 1 + 1 + 255 + 1);
  EXPECT_EQ(proper[3], 255);
}

TEST(SimFrame, DelimitersAreKnownExactly) {
  int known = 0;
  for (int d = 0; d < 256; ++d) known += IsKnownDelimiter(static_cast<uint8_t>(d));
  EXPECT_EQ(known, 6);
  EXPECT_TRUE(IsRequestDelimiter(kShortRequest));
  EXPECT_TRUE(IsRequestDelimiter(kLongRequest));
  EXPECT_FALSE(IsRequestDelimiter(kLongResponse));
}

class Receiver : public ::testing::Test {
 protected:
  Outcome Feed(const Bytes &bytes, uint64_t spacing_us = 1000) {
    Outcome last = Outcome::kNone;
    for (uint8_t b : bytes) {
      Outcome o = receiver.Push(b, now_us);
      now_us += spacing_us;
      if (o != Outcome::kNone) last = o;
    }
    return last;
  }
  FrameReceiver receiver{2, 40000};
  uint64_t now_us = 1000000;
};

TEST_F(Receiver, TakesAFrameApart) {
  Frame frame;
  frame.delimiter = kLongRequest;
  frame.address = {0x80 | 0x20, 0x1A, 1, 2, 3};
  frame.command = 18;
  frame.data = {1, 2, 3, 4};
  ASSERT_EQ(Feed(EncodeTransmission(frame, 3)), Outcome::kFrame);
  EXPECT_EQ(receiver.LastFrame().address, frame.address);
  EXPECT_EQ(receiver.LastFrame().command, 18);
  EXPECT_EQ(receiver.LastFrame().data, frame.data);
  EXPECT_EQ(receiver.LastRaw(), EncodeFrame(frame));
  EXPECT_FALSE(receiver.Busy());
}

TEST_F(Receiver, ReportsABadChecksum) {
  Bytes bytes = EncodeTransmission(Frame{}, 5);
  bytes.back() ^= 0x55;
  EXPECT_EQ(Feed(bytes), Outcome::kBadChecksum);
}

TEST_F(Receiver, NeedsTheMinimumOfPreambles) {
  EXPECT_EQ(Feed(EncodeTransmission(Frame{}, 1)), Outcome::kNone);
  EXPECT_EQ(Feed(EncodeTransmission(Frame{}, 2)), Outcome::kFrame);
}

TEST_F(Receiver, AbandonsAFrameAfterAGapAndCatchesTheNextOne) {
  Bytes bytes = EncodeTransmission(Frame{}, 5);
  Feed(Bytes(bytes.begin(), bytes.begin() + 7));
  now_us += 50000;
  EXPECT_EQ(receiver.Push(bytes[7], now_us), Outcome::kAbandoned);
  EXPECT_EQ(Feed(bytes), Outcome::kFrame);
}

TEST_F(Receiver, CheckGapGivesUpAFrameThatStopped) {
  Bytes bytes = EncodeTransmission(Frame{}, 5);
  Feed(Bytes(bytes.begin(), bytes.begin() + 7));
  EXPECT_TRUE(receiver.Busy());
  EXPECT_EQ(receiver.CheckGap(now_us + 10000), Outcome::kNone);
  EXPECT_EQ(receiver.CheckGap(now_us + 60000), Outcome::kAbandoned);
  EXPECT_FALSE(receiver.Busy());
}

TEST_F(Receiver, LongestFrameFitsAndTheByteAfterItStartsOver) {
  Frame frame;
  frame.delimiter = kLongRequest;
  frame.data.assign(255, 0xA5);
  Bytes bytes = EncodeTransmission(frame, 5);
  bytes.insert(bytes.end(), 100, 0x33);  // more bytes than any count can announce
  for (size_t i = 0; i < bytes.size(); ++i) {
    Outcome o = receiver.Push(bytes[i], now_us);
    if (i == 5 + 8 + 255)
      EXPECT_EQ(o, Outcome::kFrame);
    else
      EXPECT_NE(o, Outcome::kFrame) << i;
  }
  EXPECT_EQ(receiver.LastFrame().data.size(), 255u);
}

TEST_F(Receiver, NoiseBetweenPreamblesAndDelimiterStartsOver) {
  Bytes bytes{0xFF, 0xFF, 0x55, 0x02, 0x80, 0x00, 0x00, 0x82};
  EXPECT_EQ(Feed(bytes), Outcome::kNone);
  EXPECT_GT(receiver.DiscardedBytes(), 0u);
}

TEST(SimData, IntegersAndFloatsAreBigEndian) {
  Bytes out;
  PutU16(out, 0x1234);
  PutU24(out, 0xABCDEF);
  PutU32(out, 0x01020304);
  PutFloat(out, 1.0f);
  EXPECT_EQ(out, (Bytes{0x12, 0x34, 0xAB, 0xCD, 0xEF, 1, 2, 3, 4, 0x3F, 0x80, 0x00, 0x00}));
  EXPECT_EQ(GetU16(out.data()), 0x1234);
  EXPECT_EQ(GetU24(out.data() + 2), 0xABCDEFu);
  EXPECT_EQ(GetU32(out.data() + 5), 0x01020304u);
  EXPECT_EQ(GetFloat(out.data() + 9), 1.0f);
}

TEST(SimData, PackedAsciiKnownValue) {
  // "ABCD": codes 1, 2, 3, 4 in six bits each.
  EXPECT_EQ(PackAscii("ABCD", 4), (Bytes{0x04, 0x20, 0xC4}));
  uint8_t packed[] = {0x04, 0x20, 0xC4};
  EXPECT_EQ(UnpackAscii(packed, 3), "ABCD");
}

TEST(SimData, PackedAsciiPadsFoldsAndReplaces) {
  EXPECT_EQ(PackAscii("", 8).size(), 6u);
  EXPECT_EQ(PackedForm("pt-1", 8), "PT-1    ");
  EXPECT_EQ(PackedForm("a~b", 4), "A?B ");
  EXPECT_EQ(PackedForm("TOO LONG FOR IT", 8), "TOO LONG");
  std::string all;
  for (char c = 0x20; c < 0x60; ++c) all.push_back(c);
  EXPECT_EQ(PackedForm(all, all.size()), all);
}

TEST(SimData, FixedTextAndTrim) {
  EXPECT_EQ(FixedText("ab", 4), (Bytes{'a', 'b', ' ', ' '}));
  EXPECT_EQ(FixedText("abcdef", 3), (Bytes{'a', 'b', 'c'}));
  EXPECT_EQ(TrimRight(std::string("ab  \0\0", 6)), "ab");
}

}  // namespace
}  // namespace velmora::sim
