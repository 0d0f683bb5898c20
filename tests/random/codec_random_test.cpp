// Arbitrary bytes and texts into the toolbox that reads what users and the wire give it: no
// read or write out of bounds (ASan watches), no undefined behaviour (UBSan), sizes in bounds.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "velmora.h"

namespace {

constexpr unsigned int kSeed = 0x5EED2026;

std::string RandomText(std::mt19937 &random, size_t max) {
  static const char kAlphabet[] = "0123456789ABCDEFXabcdefx,*-. \r\n_>DECINTHEXBINFLOATPCASTR";
  std::string text(random() % max, ' ');
  for (char &c : text)
    c = random() % 8 == 0 ? static_cast<char>(random() % 255 + 1) : kAlphabet[random() % (sizeof kAlphabet - 1)];
  return text;
}

TEST(CodecRandomTest, ArbitraryInputStaysInBounds) {
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  std::mt19937 random(kSeed);
  CString requests[256], responses[256];
  for (int i = 0; i < 256; ++i) responses[i] = RandomText(random, 40).c_str();
  for (int round = 0; round < 20000; ++round) {
    std::vector<unsigned char> bytes(random() % 700);
    for (auto &b : bytes) b = random() % 3 == 0 ? 0xFF : static_cast<unsigned char>(random());
    typFrameDumpStruct dump{};
    dump.bUseSyntax = random() % 2;
    dump.bShowCommandName = random() % 2;
    dump.nLinkEvent = random() % 4;
    FrameDump(bytes.data(), static_cast<unsigned int>(bytes.size()), &dump, requests, responses);
    ASSERT_LE(dump.nError, 12u);

    const std::string text = RandomText(random, 120);
    CByteArray selected;
    GetSelectedBuffer(CString(text.c_str()), &selected);
    ASSERT_LE(selected.GetSize(), static_cast<int>(text.size()) + 1);

    CString syntax(text.c_str()), result;
    CByteArray address;
    for (unsigned int i = random() % 7; i > 0; --i) address.Add(static_cast<unsigned char>(random()));
    DataSyntaxToBuffer(syntax, random() % 2 ? &address : nullptr, static_cast<unsigned char>(random()), result);
    ASSERT_LE(result.GetLength(), 256 * 5);

    std::vector<unsigned char> buffer(text.size() + 1, 0xEE);
    unsigned int length = 0;
    CString numbers(text.c_str());
    NumStrToBuffer(numbers, buffer.data(), &length);
    ASSERT_LE(length, text.size() + 1);

    CString hex(text.c_str());
    (void)GetHexVal(hex);
    if (!bytes.empty()) {
      const unsigned int n = static_cast<unsigned int>(random() % (bytes.size() + 1));
      ASSERT_EQ(PickPackedASCII(bytes.data(), n, 0).GetLength(), static_cast<int>(n / 3 * 4));
    }
    const double value = std::ldexp(static_cast<double>(static_cast<int>(random())), static_cast<int>(random() % 600) - 300);
    (void)DoubleToIEEE754(value);
  }
}

}  // namespace
