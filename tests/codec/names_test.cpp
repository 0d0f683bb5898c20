// Unit and manufacturer names.
#include <gtest/gtest.h>

#include "velmora.h"

namespace {

struct NameCase {
  unsigned int code;
  const char *unit;
  const char *vendor;
};

class NamesTest : public ::testing::TestWithParam<NameCase> {};

TEST_P(NamesTest, CodeGivesItsName) {
  const NameCase c = GetParam();
  if (c.unit) {
    EXPECT_STREQ(GetHartUnit(c.code).GetString(), c.unit) << c.code;
  }
  if (c.vendor) {
    EXPECT_STREQ(GetHartVendor(c.code).GetString(), c.vendor) << c.code;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Codes, NamesTest,
    ::testing::Values(NameCase{0, "unknown", "unknown"}, NameCase{1, "InH2O", "Acromag"}, NameCase{65, "LTon", nullptr},
                      NameCase{66, "unknown", "Samson"}, NameCase{70, "g/s", nullptr}, NameCase{74, "kg/m", "EMCO"},
                      NameCase{75, nullptr, "unknown"}, NameCase{100, "degTwad", "OVAL"},
                      NameCase{130, "Ft\xB3/h", nullptr}, NameCase{26, "ft\xB3/s", nullptr},
                      NameCase{240, "\xB0", nullptr}, NameCase{250, "not used", "not used"},
                      NameCase{251, "none", "none"}, NameCase{252, "unknown", "unknown"}, NameCase{253, "-/-", "-/-"},
                      NameCase{254, "unknown", "unknown"}, NameCase{255, "unknown", "unknown"},
                      NameCase{257, "unknown", "unknown"}, NameCase{0x100 + 38, "unknown", "unknown"}));

TEST(NamesTest, CodePage1252BytesStaySingle) {
  const CString celsius = GetHartUnit(32);
  ASSERT_EQ(celsius.GetLength(), 2);
  EXPECT_EQ(static_cast<unsigned char>(celsius.GetAt(0)), 0xB0);
  EXPECT_EQ(celsius.GetAt(1), 'C');
  EXPECT_EQ(GetHartUnit(240).GetLength(), 1);
}

TEST(NamesTest, TablesHaveTheirRowCounts) {
  int units = 0, vendors = 0;
  for (unsigned int code = 0; code < 300; ++code) {
    units += GetHartUnit(code) != "unknown";
    vendors += GetHartVendor(code) != "unknown";
  }
  EXPECT_EQ(units, 132);
  EXPECT_EQ(vendors, 78);
}

}  // namespace
