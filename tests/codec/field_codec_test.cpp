// The field codec: integers, floats in their three forms, packed ASCII and strings.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "velmora.h"

namespace {

using Bytes = std::vector<unsigned char>;

TEST(IntegerTest, PickByteOrders) {
  unsigned char b[] = {0x12, 0x34, 0x56, 0x78};
  EXPECT_EQ(PickInt8(b, 1), 0x34);
  EXPECT_EQ(PickInt16(b, 0, 0), 0x1234u);
  EXPECT_EQ(PickInt16(b, 0, 1), 0x3412u);
  EXPECT_EQ(PickInt24(b, 0, 0), 0x123456u);
  EXPECT_EQ(PickInt24(b, 0, 1), 0x563412u);
  EXPECT_EQ(PickInt32(b, 0, 0), 0x12345678u);
  EXPECT_EQ(PickInt32(b, 0, 1), 0x78563412u);
  unsigned char top[] = {0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(PickInt32(top, 0, 0), 0xFFFFFFFFu);  // never negative
  EXPECT_EQ(PickInt16(top, 0, 0), 0xFFFFu);
}

TEST(IntegerTest, PutWritesMostSignificantFirstAndDropsHighBits) {
  unsigned char b[6] = {};
  PutInt24(0x123456, b, 1);
  EXPECT_EQ(Bytes(b, b + 6), (Bytes{0, 0x12, 0x34, 0x56, 0, 0}));
  PutInt16(0xABCDEF, b, 0);
  EXPECT_EQ(b[0], 0xCD);
  EXPECT_EQ(b[1], 0xEF);
  PutInt8(0x1FF, b, 5);
  EXPECT_EQ(b[5], 0xFF);
  PutInt32(0xDEADBEEF, b, 2);
  EXPECT_EQ(Bytes(b + 2, b + 6), (Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
  EXPECT_EQ(Swapl(0x11223344), 0x44332211u);
}

struct FloatCase {
  double value;
  unsigned int pattern;
};

class FloatEncodeTest : public ::testing::TestWithParam<FloatCase> {};

TEST_P(FloatEncodeTest, PatternIsExact) { EXPECT_EQ(DoubleToIEEE754(GetParam().value), GetParam().pattern); }

INSTANTIATE_TEST_SUITE_P(
    Values, FloatEncodeTest,
    ::testing::Values(FloatCase{1.0, 0x3F800000}, FloatCase{-1.5, 0xBFC00000}, FloatCase{100.0, 0x42C80000},
                      FloatCase{0.1, 0x3DCCCCCD}, FloatCase{-0.1, 0xBDCCCCCC}, FloatCase{0.99999999, 0x3F800000},
                      FloatCase{-0.99999999, 0xBF7FFFFF}, FloatCase{-0.0, 0}, FloatCase{0.0, 0},
                      FloatCase{1e-38, 0x0059C7DD}, FloatCase{1e-45, 0}, FloatCase{1e39, 0x3FFFFFFF},
                      FloatCase{std::nan(""), 0}));

TEST(FloatTest, PutFloatWorkedExamples) {
  unsigned char b[4];
  PutFloat(1.0, b, 0);
  EXPECT_EQ(Bytes(b, b + 4), (Bytes{0x3F, 0x80, 0x00, 0x00}));
  PutFloat(-1.5, b, 0);
  EXPECT_EQ(Bytes(b, b + 4), (Bytes{0xBF, 0xC0, 0x00, 0x00}));
  PutFloat(100.0, b, 0);
  EXPECT_EQ(Bytes(b, b + 4), (Bytes{0x42, 0xC8, 0x00, 0x00}));
}

TEST(FloatTest, MemoryWordIsTheByteReversedPattern) {
  for (double value : {1.0, -2.75, 3.14159, 1e-38, 123456.0}) {
    const double back = IEEE754ToFlp(Swapl(DoubleToIEEE754(value)));
    EXPECT_NEAR(back, value, std::fabs(value) * 1e-6) << value;
  }
  EXPECT_EQ(IEEE754ToFlp(Swapl(0x7FA00000)), 1e30);
  EXPECT_EQ(IEEE754ToFlp(0), 0.0);
  // The hidden bit is always there: exponent 0 is 2^-127, exponent 255 a finite value.
  EXPECT_NEAR(IEEE754ToFlp(Swapl(0x00000001)), 5.877e-39, 1e-42);
  EXPECT_EQ(IEEE754ToFlp(Swapl(0x80000000)), -std::ldexp(1.0, -127));
  EXPECT_NEAR(IEEE754ToFlp(Swapl(0x7F800000)), 3.4028e38, 1e34);
}

TEST(FloatTest, PickFloatReadsExponent255AsZero) {
  unsigned char marker[] = {0x7F, 0xA0, 0x00, 0x00};
  EXPECT_EQ(PickFloat(marker, 0), 0.0);
  unsigned char infinity[] = {0xFF, 0x80, 0x00, 0x00};
  EXPECT_EQ(PickFloat(infinity, 0), 0.0);
  unsigned char negative_tiny[] = {0x80, 0x00, 0x00, 0x00};
  EXPECT_NEAR(PickFloat(negative_tiny, 0), -5.877e-39, 1e-42);
  unsigned char one[] = {0x00, 0x3F, 0x80, 0x00, 0x00};
  EXPECT_EQ(PickFloat(one, 1), 1.0);
}

struct PackedCase {
  const char *text;
  int count;
  Bytes bytes;
  const char *read_back;
};

class PackedAsciiTest : public ::testing::TestWithParam<PackedCase> {};

TEST_P(PackedAsciiTest, PackAndUnpack) {
  const PackedCase c = GetParam();
  CString text(c.text);
  unsigned char field[16];
  std::fill(std::begin(field), std::end(field), 0xAA);
  PutPackedASCII(text, field, 1, c.count);
  EXPECT_EQ(field[0], 0xAA);
  EXPECT_EQ(field[1 + c.count], 0xAA);  // nothing past the field
  EXPECT_EQ(Bytes(field + 1, field + 1 + c.count), c.bytes);
  if (c.read_back) {
    EXPECT_STREQ(PickPackedASCII(field, static_cast<unsigned int>(c.count), 1).GetString(), c.read_back);
  }
}

INSTANTIATE_TEST_SUITE_P(Fields, PackedAsciiTest,
                         ::testing::Values(PackedCase{"TAG", 6, {0x50, 0x11, 0xDF, 0x7D, 0xF7, 0xDF}, "TAG_____"},
                                           PackedCase{"pt-101", 6, {0x41, 0x4B, 0x71, 0xC3, 0x17, 0xDF}, "PT-101__"},
                                           PackedCase{"ab", 4, {0x04, 0x27, 0xDF, 0x7D}, nullptr},
                                           PackedCase{"", 3, {0x7D, 0xF7, 0xDF}, "____"},
                                           PackedCase{"ABCDEFGHIJ", 6, {0x04, 0x20, 0xC4, 0x14, 0x61, 0xC8}, "ABCDEFGH"}));

TEST(PackedAsciiTest, TextIsLeftInUpperCaseAndNegativeCountWritesNothing) {
  CString text("low");
  unsigned char field[3] = {1, 2, 3};
  PutPackedASCII(text, field, 0, -1);
  EXPECT_EQ(Bytes(field, field + 3), (Bytes{1, 2, 3}));
  EXPECT_STREQ(text.GetString(), "LOW");
}

TEST(PackedAsciiTest, UnpackLengthsAndCodes) {
  unsigned char zeros[] = {0, 0, 0, 0, 0};
  EXPECT_STREQ(PickPackedASCII(zeros, 3, 0).GetString(), "@@@@");
  EXPECT_STREQ(PickPackedASCII(zeros, 2, 0).GetString(), "");
  EXPECT_STREQ(PickPackedASCII(zeros, 5, 0).GetString(), "@@@@");
  unsigned char blanks[] = {0x82, 0x08, 0x20};
  EXPECT_STREQ(PickPackedASCII(blanks, 3, 0).GetString(), "    ");
  unsigned char ones[] = {0xFF, 0xFF, 0xFF};
  EXPECT_STREQ(PickPackedASCII(ones, 3, 0).GetString(), "????");
}

TEST(StringFieldTest, PutPadsAndPickMapsZeroToBlank) {
  CString text("AB");
  unsigned char field[4];
  PutString(text, field, 0, 4);
  EXPECT_EQ(Bytes(field, field + 4), (Bytes{0x41, 0x42, 0x5F, 0x5F}));
  CString lower("ab");
  PutString(lower, field, 0, 1);
  EXPECT_EQ(field[0], 'a');
  EXPECT_STREQ(lower.GetString(), "ab");
  unsigned char raw[] = {'A', 0, 'B', ' '};
  EXPECT_STREQ(PickString(raw, 4, 0).GetString(), "A B ");
}

}  // namespace
