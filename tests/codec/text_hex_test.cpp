// Text and hex: cutting, numbers as text and back, and the dumps.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "velmora.h"

namespace {

std::vector<unsigned char> Selected(const char *text) {
  CByteArray bytes;
  GetSelectedBuffer(CString(text), &bytes);
  return std::vector<unsigned char>(bytes.GetData(), bytes.GetData() + bytes.GetSize());
}

TEST(CutPieceTest, PiecesOfAText) {
  CString text("A,,B"), piece;
  std::vector<std::string> pieces;
  while (CutPiece(text, piece)) pieces.push_back(piece.str());
  EXPECT_EQ(pieces, (std::vector<std::string>{"A", "", "B"}));
  CString comma(","), out("x");
  EXPECT_EQ(CutPiece(comma, out), 1u);
  EXPECT_TRUE(out.IsEmpty());
  EXPECT_TRUE(comma.IsEmpty());
  EXPECT_EQ(CutPiece(comma, out), 0u);
  CString whole("AB");
  EXPECT_EQ(CutPiece(whole, out), 1u);
  EXPECT_STREQ(out.GetString(), "AB");
  EXPECT_TRUE(whole.IsEmpty());
  CString trimmed(" ab ,cd");
  EXPECT_EQ(CutPieceTrim(trimmed, out), 1u);
  EXPECT_STREQ(out.GetString(), "AB");
  EXPECT_STREQ(trimmed.GetString(), "cd");
}

TEST(HexTextTest, DigitsAndPrefixedLists) {
  EXPECT_STREQ(GetHexCharacter(10).GetString(), "A");
  EXPECT_STREQ(GetHexCharacter(16).GetString(), "");
  EXPECT_STREQ(HexToText(0x0A).GetString(), "0A");
  unsigned char bytes[] = {0x12, 0xAB};
  CString out;
  BufferToHex(bytes, 2, out);
  EXPECT_STREQ(out.GetString(), "0x12,0xAB");
  BufferToHex(bytes, 1, out);
  EXPECT_STREQ(out.GetString(), "0x12");
  BufferToHex(bytes, -1, out);
  EXPECT_STREQ(out.GetString(), "not valid !");
  EXPECT_STREQ(SimpleHexDump(bytes, 2).GetString(), "12 AB");
  EXPECT_STREQ(SimpleHexDump(bytes, 0).GetString(), "");
  EXPECT_STREQ(IntToBin(5).GetString(), "00000101");
  EXPECT_STREQ(IntToBin(0x1FF).GetString(), "11111111");
}

struct ValueCase {
  const char *text;
  unsigned int hex;
};

class HexValueTest : public ::testing::TestWithParam<ValueCase> {};

TEST_P(HexValueTest, ReadsAsFarAsItHoldsDigits) {
  CString text(GetParam().text);
  EXPECT_EQ(GetHexVal(text), GetParam().hex) << GetParam().text;
  EXPECT_STREQ(text.GetString(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Texts, HexValueTest,
                         ::testing::Values(ValueCase{"0x1F", 0x1F}, ValueCase{"0X1F", 0x1F}, ValueCase{"X1F", 0x1F},
                                           ValueCase{"X", 0}, ValueCase{"0X", 0}, ValueCase{"1 2", 0x12},
                                           ValueCase{"G5", 5}, ValueCase{"123456789", 0x23456789},
                                           ValueCase{"", 0}, ValueCase{"  ff  ", 0xFF}));

TEST(BinValueTest, SkipsWhatIsNoBinaryDigit) {
  CString text("1010b");
  EXPECT_EQ(GetBinVal(text), 10u);
  CString empty;
  EXPECT_EQ(GetBinVal(empty), 0u);
}

TEST(HexDumpTest, TableOfEighteenBytes) {
  unsigned char bytes[18];
  for (int i = 0; i < 18; ++i) bytes[i] = static_cast<unsigned char>(i);
  EXPECT_STREQ(HexDump(bytes, 18).GetString(),
               "Length: 18\r\n____00,01,02,03,04,05,06,07,08,09,0A,0B,0C,0D,0E,0F\r\n"
               "00_>00,01,02,03,04,05,06,07,08,09,0A,0B,0C,0D,0E,0F\r\n10_>10,11\r\n");
  const std::string sixteen = HexDump(bytes, 16).str();
  EXPECT_EQ(std::count(sixteen.begin(), sixteen.end(), '\n'), 3);
  EXPECT_STREQ(HexDump(bytes, 0).GetString(), "Length: 0\r\n____00,01,02,03,04,05,06,07,08,09,0A,0B,0C,0D,0E,0F\r\n");
  unsigned char big[272] = {};
  const std::string long_dump = HexDump(big, 272).str();
  EXPECT_NE(long_dump.find("F0_>"), std::string::npos);
  EXPECT_EQ(long_dump.find("00_>", long_dump.find("F0_>")) != std::string::npos, true);
}

TEST(SelectedBufferTest, ReadsBytesBackFromADump) {
  EXPECT_EQ(Selected("AA,BB\r\n10_>CC,DD"), (std::vector<unsigned char>{0xAA, 0xBB, 0xCC, 0xDD}));
  EXPECT_EQ(Selected("00,FF,100"), (std::vector<unsigned char>{0x00, 0xFF, 0x00}));
  EXPECT_EQ(Selected("AA,,BB"), (std::vector<unsigned char>{0xAA}));
  EXPECT_TRUE(Selected(" , ").empty());
  EXPECT_TRUE(Selected("").empty());
  // A whole dump, its header lines selected too, gives zeros for them.
  unsigned char bytes[] = {1, 2, 3};
  const std::string dump = HexDump(bytes, 3).str();
  const auto read = Selected(dump.substr(dump.find("00_>")).c_str());
  EXPECT_EQ(read, (std::vector<unsigned char>{1, 2, 3}));
  EXPECT_EQ(Selected("_>05,06"), (std::vector<unsigned char>{5, 6}));
}

}  // namespace
