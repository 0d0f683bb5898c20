// The frame dump of monitored frames: columns, faults and syntax decoding.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "velmora.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes WithTimes(Bytes frame, int gap, int frame_ms) {
  for (int value : {gap, frame_ms})
    for (int i = 0; i < 4; ++i) frame.push_back(static_cast<unsigned char>(static_cast<unsigned int>(value) >> (8 * i)));
  return frame;
}

const Bytes kCommand1Response = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x86, 0xA6, 0x06, 0xBC, 0x61, 0x4E, 0x01, 0x07,
                                 0x00, 0x00, 0x27, 0x3F, 0x80, 0x00, 0x00, 0x2B, 0xD2, 0x04, 0x00, 0x00, 0x38,
                                 0x00, 0x00, 0x00};

class FrameDumpTest : public ::testing::Test {
 protected:
  void Dump(Bytes bytes) { FrameDump(bytes.data(), static_cast<unsigned int>(bytes.size()), &dump_, requests_, responses_); }
  typFrameDumpStruct dump_{};
  CString requests_[256];
  CString responses_[256];
};

TEST_F(FrameDumpTest, WorkedExampleWithSyntax) {
  dump_.bUseSyntax = dump_.bShowCommandName = 1;
  responses_[1] = "Read PV,UNIT,FLOAT";
  Dump(kCommand1Response);
  EXPECT_STREQ(dump_.sGapTime.GetString(), "01234");
  EXPECT_STREQ(dump_.sFrameTime.GetString(), "00056");
  EXPECT_STREQ(dump_.sPreamble.GetString(), "FF FF FF FF FF");
  EXPECT_STREQ(dump_.sDelimiter.GetString(), "86");
  EXPECT_STREQ(dump_.sFrameType.GetString(), "LACKP");
  EXPECT_EQ(dump_.nFrameKind, 2u);
  EXPECT_EQ(dump_.nMaster, 0);
  EXPECT_EQ(dump_.nCommand, 1);
  EXPECT_STREQ(dump_.sAddress.GetString(), "A6 06 BC 61 4E");
  EXPECT_STREQ(dump_.sCommand.GetString(), "Read PV");
  EXPECT_STREQ(dump_.sByteCount.GetString(), "07");
  EXPECT_STREQ(dump_.sStatus.GetString(), "00 00");
  EXPECT_STREQ(dump_.sData.GetString(), "mA/1");
  EXPECT_STREQ(dump_.sChecksum.GetString(), "2B");
  EXPECT_TRUE(dump_.sRest.IsEmpty());
  EXPECT_TRUE(dump_.sError.IsEmpty());
  EXPECT_TRUE(dump_.sLinkEvent.IsEmpty());
  EXPECT_TRUE(dump_.sRemark.IsEmpty());
  EXPECT_EQ(dump_.nError, 0u);
}

TEST_F(FrameDumpTest, WorkedExampleRawDecimalBinary) {
  dump_.bDecimal = dump_.bStatusBinary = 1;
  Dump(kCommand1Response);
  EXPECT_STREQ(dump_.sCommand.GetString(), "001");
  EXPECT_STREQ(dump_.sByteCount.GetString(), "007");
  EXPECT_STREQ(dump_.sStatus.GetString(), "000 00000000b");
  EXPECT_STREQ(dump_.sData.GetString(), "27 3F 80 00 00");
  EXPECT_EQ(dump_.bRawData, 1u);
}

struct SyntaxCase {
  const char *syntax;
  const char *data;
};

class FrameDumpSyntaxTest : public FrameDumpTest, public ::testing::WithParamInterface<SyntaxCase> {};

TEST_P(FrameDumpSyntaxTest, DataDecodedBySyntax) {
  dump_.bUseSyntax = 1;
  responses_[1] = GetParam().syntax;
  Dump(kCommand1Response);
  EXPECT_STREQ(dump_.sData.GetString(), GetParam().data);
}

INSTANTIATE_TEST_SUITE_P(Syntaxes, FrameDumpSyntaxTest,
                         ::testing::Values(SyntaxCase{"Read PV,UNIT,HEX8,FOO,DEC16", "mA/0x3F/???" "/32768//0x00"},
                                           SyntaxCase{"Read PV,UNIT", "mA//0x3F 0x80 0x00 0x00"},
                                           SyntaxCase{"x,DEC32,DEC8", "658472960/0"},
                                           SyntaxCase{"x,LHEX16,LDEC24", "0x3F27/128"},
                                           SyntaxCase{"x,,DEC8", "???" "/39//0x3F 0x80 0x00 0x00"},
                                           SyntaxCase{"x,DEC8X", "???" "//0x27 0x3F 0x80 0x00 0x00"},
                                           SyntaxCase{"x,PCA0,STR-1", "???" "/???" "//0x27 0x3F 0x80 0x00 0x00"},
                                           SyntaxCase{"x,STR2,BIN8,HEX16", "'?/10000000b/0x0000"},
                                           SyntaxCase{"x,FLOAT,FLOAT", "2.6576e-15/???" "//0x00"}));

TEST_F(FrameDumpTest, RequestWithGapOverTheLimit) {
  Dump(WithTimes({0xFF, 0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82}, 200000, 12));
  EXPECT_STREQ(dump_.sFrameType.GetString(), "SSTXP");
  EXPECT_STREQ(dump_.sAddress.GetString(), "80            ");
  EXPECT_STREQ(dump_.sCommand.GetString(), "00");
  EXPECT_STREQ(dump_.sByteCount.GetString(), "00");
  EXPECT_STREQ(dump_.sChecksum.GetString(), "82");
  EXPECT_STREQ(dump_.sStatus.GetString(), "     ");
  EXPECT_TRUE(dump_.sData.IsEmpty());
  EXPECT_STREQ(dump_.sGapTime.GetString(), "00000");
  EXPECT_STREQ(dump_.sFrameTime.GetString(), "00012");
  EXPECT_EQ(dump_.bRawData, 0u);
}

struct FaultCase {
  Bytes frame;
  unsigned int error;
  const char *text;
  const char *rest;
  const char *frame_type;
};

class FrameDumpFaultTest : public FrameDumpTest, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(FrameDumpFaultTest, DamagedFrameStopsAtItsFault) {
  const FaultCase c = GetParam();
  Dump(WithTimes(c.frame, 1, 2));
  EXPECT_EQ(dump_.nError, c.error);
  EXPECT_STREQ(dump_.sError.GetString(), c.text);
  EXPECT_STREQ(dump_.sRest.GetString(), c.rest);
  EXPECT_STREQ(dump_.sFrameType.GetString(), c.frame_type);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, FrameDumpFaultTest,
    ::testing::Values(FaultCase{{0x01, 0x02, 0x03}, 1, "No preamble detected!", "01 02 03", ""},
                      FaultCase{{0xFF, 0xFF}, 2, "No delimiter!", "", ""},
                      FaultCase{{0xFF, 0xFF, 0x04, 0x01, 0x02}, 3, "Wrong delimiter!", "04 01 02", "?????"},
                      FaultCase{{0xFF, 0x02}, 4, "No address!", "", "SSTX"},
                      FaultCase{{0xFF, 0x82, 0x80, 0x01, 0x02}, 5, "Address length error!", "80 01 02", "LSTXP"},
                      FaultCase{{0xFF, 0x02, 0x80}, 6, "No command!", "", "SSTXP"},
                      FaultCase{{0xFF, 0x02, 0x80, 0x00}, 7, "No data length!", "", "SSTXP"},
                      FaultCase{{0xFF, 0x06, 0x02, 0x00, 0x09, 0x01, 0x02}, 8, "Data length error!", "01 02", "SACKS"},
                      FaultCase{{0xFF, 0x06, 0x02, 0x00, 0x02}, 9, "Missing data!", "", "SACKS"},
                      FaultCase{{0xFF, 0x06, 0x82, 0x00, 0x02, 0x00, 0x00}, 10, "Missing checksum!", "", "SACKP"}));

TEST_F(FrameDumpTest, OddFramesAndTimeOuts) {
  Bytes five = {1, 2, 3, 4, 5};
  Dump(five);
  EXPECT_TRUE(dump_.sFrameType.IsEmpty());
  EXPECT_STREQ(dump_.sFrameTime.GetString(), "?????");
  EXPECT_STREQ(dump_.sLinkEvent.GetString(), "Time Out!!!");
  EXPECT_EQ(dump_.nError, 0u);

  dump_.nLinkEvent = 3;
  Dump(WithTimes({}, 7, 9));
  EXPECT_STREQ(dump_.sLinkEvent.GetString(), "Final Time Out!!!");
  EXPECT_EQ(dump_.nError, 12u);
  EXPECT_TRUE(dump_.sError.IsEmpty());
  EXPECT_TRUE(dump_.sGapTime.IsEmpty());
  EXPECT_STREQ(dump_.sFrameTime.GetString(), "00009");

  dump_.nLinkEvent = 0;
  Dump(WithTimes({0x00, 0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82}, 0, 0));
  EXPECT_STREQ(dump_.sPreamble.GetString(), "00 FF FF");

  Dump(WithTimes({0xFF, 0x06, 0x02, 0x00, 0x01, 0x20, 0xAA, 0xBB}, 0, 0));
  EXPECT_STREQ(dump_.sStatus.GetString(), "20 ??");
  EXPECT_STREQ(dump_.sRemark.GetString(), "-> Busy!");
  EXPECT_STREQ(dump_.sChecksum.GetString(), "AA");
  EXPECT_STREQ(dump_.sRest.GetString(), "BB");
  EXPECT_EQ(dump_.bSecondaryMaster, 1u);

  dump_.nLinkEvent = 2;
  dump_.bDecimal = dump_.bStatusBinary = 1;
  Dump(WithTimes({0xFF, 0x06, 0x80, 0x00, 0x02, 0x40, 0x10, 0x00}, 0, 0));
  EXPECT_STREQ(dump_.sStatus.GetString(), "064 00010000b");
  EXPECT_STREQ(dump_.sRemark.GetString(), "-> Command not implemented!");
  EXPECT_STREQ(dump_.sLinkEvent.GetString(), "Received Comm Error!");
}

TEST_F(FrameDumpTest, CommandColumnWithoutLabel) {
  dump_.bShowCommandName = 1;
  Dump(WithTimes({0xFF, 0x02, 0x80, 0x0D, 0x00, 0x8F}, 0, 0));
  EXPECT_STREQ(dump_.sCommand.GetString(), "0D__________");
  dump_.bDecimal = 1;
  Dump(WithTimes({0xFF, 0x02, 0x80, 0x0D, 0x00, 0x8F}, 0, 0));
  EXPECT_STREQ(dump_.sCommand.GetString(), "013_________");
}

TEST_F(FrameDumpTest, ByteCountZeroLeavesStatusBlankAndRawFlagAlone) {
  dump_.bRawData = 0;
  Dump(WithTimes({0xFF, 0x06, 0x80, 0x00, 0x00, 0x86}, 0, 0));
  EXPECT_STREQ(dump_.sStatus.GetString(), "     ");
  EXPECT_EQ(dump_.bRawData, 0u);
  dump_.bUseSyntax = 1;
  responses_[0] = "label,DEC8";
  Dump(WithTimes({0xFF, 0x06, 0x80, 0x00, 0x02, 0x00, 0x00, 0x84}, 0, 0));
  EXPECT_TRUE(dump_.sData.IsEmpty());
  responses_[0] = "label";
  Dump(WithTimes({0xFF, 0x06, 0x80, 0x00, 0x03, 0x00, 0x00, 0x05, 0x81}, 0, 0));
  EXPECT_EQ(dump_.bRawData, 1u);
  EXPECT_STREQ(dump_.sData.GetString(), "05");
}

TEST_F(FrameDumpTest, DateAndUnitFields) {
  dump_.bUseSyntax = 1;
  responses_[13] = "x,DATE,UNIT,DEC32";
  Dump(WithTimes({0xFF, 0x06, 0x80, 0x0D, 0x0A, 0, 0, 0x11, 0x0B, 0x66, 0xFA, 0xFF, 0xFF, 0xFF, 0xFF, 0x00}, 0, 0));
  EXPECT_STREQ(dump_.sData.GetString(), "17-11-2002/not used/-1");
}

TEST_F(FrameDumpTest, ArbitraryInputNeverFails) {
  std::mt19937 random(77);
  dump_.bUseSyntax = dump_.bShowCommandName = 1;
  for (int i = 0; i < 256; ++i) responses_[i] = i % 2 ? "l,PCA3,STR2,FLOAT,DEC32,LHEX24,DATE" : "";
  for (int round = 0; round < 5000; ++round) {
    Bytes bytes(random() % 600);
    for (auto &b : bytes) b = random() % 4 == 0 ? 0xFF : static_cast<unsigned char>(random());
    Dump(bytes);
    ASSERT_LE(dump_.nError, 12u);
  }
}

}  // namespace
