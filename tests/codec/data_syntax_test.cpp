// The data syntax language and number lists.
#include <gtest/gtest.h>

#include <vector>

#include "velmora.h"

namespace {

struct SyntaxCase {
  const char *syntax;
  bool addressed;
  const char *result;
};

class DataSyntaxTest : public ::testing::TestWithParam<SyntaxCase> {};

TEST_P(DataSyntaxTest, LineCompilesToBytes) {
  const SyntaxCase c = GetParam();
  CByteArray address;
  for (unsigned char b : {0x11, 0x22, 0x33, 0x44, 0x55}) address.Add(b);
  CString syntax(c.syntax), result("unchanged?");
  DataSyntaxToBuffer(syntax, c.addressed ? &address : nullptr, 3, result);
  EXPECT_STREQ(result.GetString(), c.result) << c.syntax;
  EXPECT_STREQ(syntax.GetString(), c.syntax);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, DataSyntaxTest,
    ::testing::Values(
        SyntaxCase{"0,5", true, "0x00,0x03,0x00,0x05"}, SyntaxCase{"0", true, "0x00"},
        SyntaxCase{"1,DEC8,5", true, "0x01,0x11,0x22,0x33,0x44,0x55,0x01,0x05"},
        SyntaxCase{"3,DEC16,300,HEX8,0xFF", true, "0x01,0x11,0x22,0x33,0x44,0x55,0x03,0x01,0x2C,0xFF"},
        SyntaxCase{"11,PCA6,tag", true, "0x01,0x00,0x00,0x00,0x00,0x00,0x0B,0x50,0x11,0xDF,0x7D,0xF7,0xDF"},
        SyntaxCase{"DEC16,1", true, "0x00,0x01"},
        SyntaxCase{"HEX16,ABCD,2*BIN8,101,3*DEC8,255,FLOAT,1.5,STR3,ab", false,
                   "0xAB,0xCD,0x05,0x05,0xFF,0xFF,0xFF,0x3F,0xC0,0x00,0x00,0x61,0x62,0x5F"},
        SyntaxCase{"dec8,1", false, "0x01"}, SyntaxCase{"DEC9,1", false, "0x00,0x01"},
        SyntaxCase{"DEC17,1", false, "0x00,0x00,0x01"}, SyntaxCase{"DEC25,1", false, "0x00,0x00,0x00,0x01"},
        SyntaxCase{"DEC64,1", false, "0x00,0x00,0x00,0x01"}, SyntaxCase{"DEC8,-1", false, "0xFF"},
        SyntaxCase{"INT32,-2", false, "0xFF,0xFF,0xFF,0xFE"}, SyntaxCase{"BIN12,1010", false, "0x00,0x0A"},
        SyntaxCase{"0x1FF", false, "0xFF"}, SyntaxCase{"12AB", false, "0x0C"}, SyntaxCase{"-5", false, "not valid !"},
        SyntaxCase{"3*7", false, "0x07,0x07,0x07"}, SyntaxCase{"0*DEC8,1", false, "0x01"},
        SyntaxCase{"*DEC8,1", false, "0x01"}, SyntaxCase{"-1*DEC8,1", false, "not valid !"},
        SyntaxCase{"2*FLOAT,1", false, "0x3F,0x80,0x00,0x00"}, SyntaxCase{"2*PCA3,A", false, "0x05,0xF7,0xDF"},
        SyntaxCase{"DEC,1", false, "0x01"}, SyntaxCase{"PCA,1", false, "0x01"},
        SyntaxCase{"STR3, a", false, "0x20,0x61,0x5F"}, SyntaxCase{"PCA3,a b", false, "0x06,0x00,0x9F"},
        SyntaxCase{"1,,2", false, "0x01,0x02"}, SyntaxCase{"FOO", false, "not valid !"}, SyntaxCase{"", false, ""},
        SyntaxCase{"DEC8,0,1", true, "0x00,0x03,0x00,0x01"}, SyntaxCase{"DECIMAL,7", false, "0x07"},
        SyntaxCase{"DEC8", false, "0x00"}, SyntaxCase{"FLOAT", false, "0x00,0x00,0x00,0x00"},
        SyntaxCase{"STR2", false, "0x5F,0x5F"}));

TEST(DataSyntaxLimitTest, LineIsCutAt256Bytes) {
  CString syntax("300*255"), result;
  DataSyntaxToBuffer(syntax, nullptr, 0, result);
  EXPECT_EQ(result.GetLength(), 256 * 5 - 1);
  CString fields("STR200,a,PCA200,b,1000*DEC32,7"), cut;
  DataSyntaxToBuffer(fields, nullptr, 0, cut);
  EXPECT_EQ(cut.GetLength(), 256 * 5 - 1);
}

TEST(DataSyntaxLimitTest, ShortLongAddressReadsZerosPastItsEnd) {
  CByteArray address;
  address.Add(0x11);
  address.Add(0x22);
  CString syntax("1,5"), result;
  DataSyntaxToBuffer(syntax, &address, 0, result);
  EXPECT_STREQ(result.GetString(), "0x01,0x11,0x22,0x00,0x00,0x00,0x01,0x05");
}

struct NumberCase {
  const char *text;
  std::vector<unsigned char> bytes;
};

class NumStrTest : public ::testing::TestWithParam<NumberCase> {};

TEST_P(NumStrTest, OneBytePerPiece) {
  const NumberCase c = GetParam();
  CString text(c.text);
  std::vector<unsigned char> buffer(text.GetLength() + 2, 0xEE);
  unsigned int length = 99;
  NumStrToBuffer(text, buffer.data(), &length);
  ASSERT_EQ(length, c.bytes.size());
  EXPECT_EQ(std::vector<unsigned char>(buffer.begin(), buffer.begin() + length), c.bytes);
  EXPECT_EQ(buffer[length], 0xEE);
}

INSTANTIATE_TEST_SUITE_P(Lists, NumStrTest,
                         ::testing::Values(NumberCase{"0x01,0xAB", {0x01, 0xAB}}, NumberCase{"10,0x10", {0x0A, 0x10}},
                                           NumberCase{"1,,2", {1, 0, 2}}, NumberCase{"1,2,", {1, 2}},
                                           NumberCase{"", {}}, NumberCase{"300", {0x2C}}));

}  // namespace
