// Arbitrary bytes and texts into the toolbox that reads what users and the wire give it: no
// read or write out of bounds (ASan watches), no undefined behaviour (UBSan), sizes in bounds.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "velmora.h"

namespace {

TEST(CodecRandomTest, ArbitraryInputStaysInBounds) {
  SCOPED_TRACE("seed 0x5EED2026");
  std::mt19937 random(0x5EED2026);
  // Texts mostly of the characters the parsers look for; frames mostly of preambles.
  static const char kAlphabet[] = "0123456789ABCDEFXabcdefx,*-. \r\n_>DECINTHEXBINFLOATPCASTR";
  // Odd commands get syntaxes of real fields, so that decoding runs into the end of the data; even
  // ones get arbitrary texts.
  CString requests[256], responses[256];
  for (int i = 1; i < 256; i += 2) responses[i] = "l,PCA3,STR2,FLOAT,DEC32,LHEX24,DATE,UNIT";
  for (int round = 0; round < 20000; ++round) {
    std::string text(random() % 120, ' ');
    for (char &c : text)
      c = random() % 8 ? kAlphabet[random() % (sizeof kAlphabet - 1)] : static_cast<char>(random() % 255 + 1);
    responses[round % 128 * 2] = text.substr(0, 40).c_str();
    std::vector<unsigned char> bytes(random() % 700);
    for (auto &b : bytes) b = random() % 3 == 0 ? 0xFF : static_cast<unsigned char>(random());
    typFrameDumpStruct dump{};
    dump.bUseSyntax = random() % 2;
    dump.bShowCommandName = random() % 2;
    dump.nLinkEvent = random() % 4;
    FrameDump(bytes.data(), static_cast<unsigned int>(bytes.size()), &dump, requests, responses);
    ASSERT_LE(dump.nError, 12u);

    CString syntax(text.c_str()), result;
    CByteArray selected, address;
    GetSelectedBuffer(syntax, &selected);
    for (unsigned int i = random() % 7; i > 0; --i) address.Add(static_cast<unsigned char>(random()));
    DataSyntaxToBuffer(syntax, round % 2 ? &address : nullptr, static_cast<unsigned char>(round / 2), result);
    ASSERT_LE(result.GetLength(), 256 * 5);
  }
}

}  // namespace
