// Request frames as built for the wire, and reply data taken apart.
#include <gtest/gtest.h>

#include <vector>

#include "core/tables.h"
#include "link/frame_builder.h"
#include "tests/support/link_fixture.h"

namespace velmora {
namespace {

using Bytes = std::vector<unsigned char>;

struct BuildCase {
  const char *name;
  unsigned int preambles;
  unsigned int long_fix;
  unsigned int primary;
  unsigned char format;
  unsigned char polling;
  Bytes long_address;
  unsigned char command;
  Bytes data;
  Bytes expect;
};

Bytes Pre(unsigned int n, Bytes rest) {
  Bytes out(n, 0xFF);
  out.insert(out.end(), rest.begin(), rest.end());
  return out;
}

class FrameBuilderTest : public ::testing::TestWithParam<BuildCase> {
 protected:
  void SetUp() override { test::ResetDriverTables(); }
  void TearDown() override { test::ResetDriverTables(); }
};

TEST_P(FrameBuilderTest, BuildsTheWholeFrame) {
  const BuildCase c = GetParam();
  tagCOMPORTINFO &port = ComPortTable[0];
  port.nPreambles = c.preambles;
  port.bLongPreambleFix = c.long_fix;
  port.bPrimaryMaster = c.primary;
  tagHARTREQUEST request{};
  request.nAddressFormat = c.format;
  request.nPollingAddress = c.polling;
  for (size_t i = 0; i < c.long_address.size(); ++i) request.abLongAddress[i] = c.long_address[i];
  request.nCommand = 0x100 | c.command;  // only the low byte counts
  Bytes data = c.data;
  request.pData = data.empty() ? nullptr : data.data();
  request.nDataCount = static_cast<unsigned int>(data.size()) | 0x1200;
  unsigned char out[256];
  unsigned int length = 0;
  EXPECT_EQ(BuildHartFrame(&port, &request, &length, out), 1u);
  EXPECT_EQ(Bytes(out, out + length), c.expect) << c.name;
  EXPECT_EQ(BuiltFrameLength(port, request), length);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, FrameBuilderTest,
    ::testing::Values(
        BuildCase{"command 0", 5, 0, 1, 0, 0, {}, 0, {}, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 2, 128, 0, 0, 130}},
        BuildCase{"25 preambles give 20", 25, 0, 1, 0, 0, {}, 0, {}, Pre(20, {2, 128, 0, 0, 130})},
        BuildCase{"long preamble fix", 20, 1, 1, 0, 0, {}, 0, {}, Pre(7, {2, 128, 0, 0, 130})},
        BuildCase{"fix with 5", 5, 1, 1, 0, 0, {}, 0, {}, Pre(7, {2, 128, 0, 0, 130})},
        BuildCase{"format 1 is short", 5, 0, 0, 1, 17, {}, 3, {}, Pre(5, {2, 1, 3, 0, 2 ^ 1 ^ 3})},
        BuildCase{"format 3 is short", 5, 0, 1, 3, 2, {}, 3, {0xAA}, Pre(5, {2, 0x82, 3, 1, 0xAA, 2 ^ 0x82 ^ 3 ^ 1 ^ 0xAA})},
        BuildCase{"long, primary", 5, 0, 1, 2, 0, {0xFF, 0x01, 0x02, 0x03, 0x04}, 39, {},
                  Pre(5, {0x82, 0xBF, 1, 2, 3, 4, 39, 0, 0x82 ^ 0xBF ^ 1 ^ 2 ^ 3 ^ 4 ^ 39})},
        BuildCase{"long, secondary", 5, 0, 0, 2, 0, {0xFF, 0x01, 0x02, 0x03, 0x04}, 1, {9},
                  Pre(5, {0x82, 0x3F, 1, 2, 3, 4, 1, 1, 9, 0x82 ^ 0x3F ^ 1 ^ 2 ^ 3 ^ 4 ^ 1 ^ 1 ^ 9})}));

TEST(FrameCheckTest, OnlyFramesThatFitAreBuilt) {
  test::ResetDriverTables();
  tagCOMPORTINFO &port = ComPortTable[0];
  port.nPreambles = 20;
  Bytes data(255, 0x11);
  tagHARTREQUEST request{};
  request.pData = data.data();
  request.nDataCount = 231;
  unsigned char out[256];
  unsigned int length = 0;
  EXPECT_TRUE(BuildFrameChecked(port, request, out, sizeof out, &length));
  EXPECT_EQ(length, 256u);
  request.nDataCount = 232;
  length = 0;
  EXPECT_FALSE(BuildFrameChecked(port, request, out, sizeof out, &length));
  EXPECT_EQ(length, 0u);
  request.nAddressFormat = 2;
  request.nDataCount = 227;
  EXPECT_TRUE(BuildFrameChecked(port, request, out, sizeof out, &length));
  request.nDataCount = 228;
  EXPECT_FALSE(BuildFrameChecked(port, request, out, sizeof out, &length));
  test::ResetDriverTables();
}

struct ExtractCase {
  Bytes frame;
  unsigned int command;
  Bytes data;
};

class ExtractTest : public ::testing::TestWithParam<ExtractCase> {};

TEST_P(ExtractTest, CommandAndDataFromTheFramesLength) {
  const ExtractCase c = GetParam();
  unsigned char out[256];
  unsigned int length = 99, command = 99;
  EXPECT_EQ(ExtractReplyData(static_cast<unsigned int>(c.frame.size()), c.frame.data(), &length, out, &command), 1u);
  EXPECT_EQ(command, c.command);
  EXPECT_EQ(Bytes(out, out + length), c.data);
}

INSTANTIATE_TEST_SUITE_P(Replies, ExtractTest,
                         ::testing::Values(ExtractCase{{0x06, 0x80, 0x03, 0x02, 0x00, 0x40, 0xC5}, 3, {0x00, 0x40}},
                                           ExtractCase{{0x06, 0x80, 0x03, 0x00, 0x85}, 3, {}},
                                           ExtractCase{{0x86, 1, 2, 3, 4, 5, 0x21, 0x00, 0x00}, 0x21, {}},
                                           ExtractCase{{0x86, 1, 2, 3, 4, 5, 0x21, 0x01, 0x07, 0x00}, 0x21, {0x07}}));

}  // namespace
}  // namespace velmora
