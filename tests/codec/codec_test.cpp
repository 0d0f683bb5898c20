// The codec toolbox: single fields to bytes and back, text and hex, the data syntax language that turns a
// line into request bytes, the names of unit and manufacturer codes, and the frame dump that shows a
// monitored frame as display columns.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "velmora.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The field at index 1 of a buffer of 0xAA bytes, so that a write past the field shows.
Bytes Framed(const Bytes &field, size_t size) {
  Bytes out(size, 0xAA);
  std::copy(field.begin(), field.end(), out.begin() + 1);
  return out;
}

TEST(FieldCodecTest, Integers) {
  struct Row { unsigned int bits, low_first; Bytes bytes; unsigned int value; };
  const Row rows[] = {{8, 0, {0x34}, 0x34}, {16, 0, {0x12, 0x34}, 0x1234}, {16, 1, {0x12, 0x34}, 0x3412},
                      {16, 0, {0xFF, 0xFF}, 0xFFFF}, {24, 0, {0x12, 0x34, 0x56}, 0x123456},
                      {24, 1, {0x12, 0x34, 0x56}, 0x563412}, {32, 0, {0x12, 0x34, 0x56, 0x78}, 0x12345678},
                      {32, 1, {0x12, 0x34, 0x56, 0x78}, 0x78563412}, {32, 0, {0xFF, 0xFF, 0xFF, 0xFF}, ~0u}};
  void (*const puts[])(unsigned int, unsigned char *, unsigned int) = {PutInt8, PutInt16, PutInt24, PutInt32};
  for (const Row &row : rows) {
    SCOPED_TRACE(testing::Message() << row.bits << " bits, 0x" << std::hex << row.value);
    Bytes wire = Framed(row.bytes, 6), put(6, 0xAA);
    unsigned char *b = wire.data();
    EXPECT_EQ(row.bits == 8 ? PickInt8(b, 1) : row.bits == 16 ? PickInt16(b, 1, row.low_first)
              : row.bits == 24 ? PickInt24(b, 1, row.low_first) : PickInt32(b, 1, row.low_first), row.value);
    if (row.low_first) continue;
    // Bits above the field's width are dropped.
    puts[row.bits / 8 - 1](row.value | (row.bits < 32 ? ~0u << row.bits : 0u), put.data(), 1);
    EXPECT_EQ(put, wire);
  }
}

TEST(FieldCodecTest, Floats) {
  // pick: PickFloat of the wire bytes; flp: IEEE754ToFlp of the memory word.
  struct Row { std::optional<double> value; unsigned int pattern; double pick, flp; };
  const double tiny = std::ldexp(1.0, -127), huge = std::ldexp(1.0, 128), max = 3.4028234663852886e38;
  // Positive values are rounded (with a carry into the exponent), negative ones truncated. Patterns only
  // read ({}): the hidden bit is always set; PickFloat reads exponent 255 as 0.
  const Row rows[] = {
      {1.0, 0x3F800000, 1, 1}, {-1.5, 0xBFC00000, -1.5, -1.5}, {100.0, 0x42C80000, 100, 100},
      {-2.75, 0xC0300000, -2.75, -2.75}, {1e-38, 0x0059C7DD, 1e-38, 1e-38}, {0.0, 0, 0, 0}, {-0.0, 0, 0, 0},
      {0.1, 0x3DCCCCCD, 0.1, 0.1}, {-0.1, 0xBDCCCCCC, -0.1, -0.1}, {0.99999999, 0x3F800000, 1, 1},
      {-0.99999999, 0xBF7FFFFF, -1, -1}, {1e-45, 0, 0, 0}, {NAN, 0, 0, 0}, {1e39, 0x3FFFFFFF, 2, 2},
      {INFINITY, 0x3FFFFFFF, 2, 2}, {-INFINITY, 0xBFFFFFFF, -2, -2}, {{}, 0x00000001, tiny, tiny},
      {{}, 0x80000000, -tiny, -tiny}, {{}, 0x7F7FFFFF, max, max}, {{}, 0x7FA00000, 0, 1e30},
      {{}, 0x7F800000, 0, huge}, {{}, 0xFF800000, 0, -huge}};
  for (const Row &row : rows) {
    SCOPED_TRACE(testing::Message() << "pattern 0x" << std::hex << row.pattern);
    Bytes wire(6, 0xAA), put(6, 0xAA);
    PutInt32(row.pattern, wire.data(), 1);
    if (row.value) {
      EXPECT_EQ(DoubleToIEEE754(*row.value), row.pattern);
      PutFloat(*row.value, put.data(), 1);
      EXPECT_EQ(put, wire);
    }
    EXPECT_NEAR(PickFloat(wire.data(), 1), row.pick, std::fabs(row.pick) * 1e-6);
    EXPECT_NEAR(IEEE754ToFlp(Swapl(row.pattern)), row.flp, std::fabs(row.flp) * 1e-6);
  }
}

TEST(FieldCodecTest, TextFields) {
  // text null: the bytes are given and only read back. A count below 1 writes nothing.
  struct Row { bool packed; const char *text; int count; Bytes bytes; const char *read; };
  const Row rows[] = {
      {true, "TAG", 6, {0x50, 0x11, 0xDF, 0x7D, 0xF7, 0xDF}, "TAG_____"}, {true, "AB", -1, {}, ""},
      {true, "pt-101", 6, {0x41, 0x4B, 0x71, 0xC3, 0x17, 0xDF}, "PT-101__"}, {false, "ab", 1, {'a'}, "a"},
      {true, "ABCDEFGHIJ", 6, {0x04, 0x20, 0xC4, 0x14, 0x61, 0xC8}, "ABCDEFGH"},
      {true, "", 3, {0x7D, 0xF7, 0xDF}, "____"}, {true, "ab", 4, {0x04, 0x27, 0xDF, 0x7D}, "AB__"},
      {true, "ABCDE", 5, {0x04, 0x20, 0xC4, 0x15, 0xF7}, "ABCD"}, {true, nullptr, 3, {0, 0, 0}, "@@@@"},
      {true, nullptr, 3, {0x82, 0x08, 0x20}, "    "}, {false, "AB", 4, {0x41, 0x42, 0x5F, 0x5F}, "AB__"},
      {false, nullptr, 4, {'A', 0, 'B', ' '}, "A B "}};
  for (const Row &row : rows) {
    SCOPED_TRACE(testing::Message() << (row.text ? row.text : "(read)") << " in " << row.count);
    Bytes field = Framed(row.text ? Bytes{} : row.bytes, 10);
    CString text(row.text ? row.text : "");
    if (row.text) (row.packed ? PutPackedASCII : PutString)(text, field.data(), 1, row.count);
    EXPECT_EQ(field, Framed(row.bytes, 10));
    const auto read = (row.packed ? PickPackedASCII : PickString)(field.data(), std::max(row.count, 0), 1);
    EXPECT_STREQ(read.GetString(), row.read);
  }
}

struct Row { std::string got, want; };

void ExpectRows(const std::vector<Row> &rows) {
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE("row " + std::to_string(i));
    EXPECT_EQ(rows[i].got, rows[i].want);
  }
}

// Every piece in brackets; the piece starts as "x" so that a piece left uncleared shows.
std::string Cut(const char *text, bool trim = false) {
  CString rest(text), piece("x");
  std::string out;
  while ((trim ? CutPieceTrim : CutPiece)(rest, piece)) out += "[" + piece.str() + "]";
  return out;
}

// The value in hex; the text must come back unchanged.
std::string Hex(const char *text, unsigned int (*read)(CString &) noexcept = GetHexVal) {
  CString copy(text);
  char out[16];
  std::snprintf(out, sizeof out, "%X", read(copy));
  return copy == text ? out : "text changed";
}

// The bytes read back from (part of) a dump.
std::string Read(const std::string &text) {
  CByteArray bytes;
  GetSelectedBuffer(CString(text.c_str()), &bytes);
  return SimpleHexDump(bytes.GetData(), static_cast<unsigned int>(bytes.GetSize())).str();
}

std::string ToHex(unsigned char *bytes, int length) {
  CString out("unchanged");
  BufferToHex(bytes, length, out);
  return out.str();
}

TEST(CodecTextTest, InputGivesText) {
  unsigned char seq[272];
  for (int i = 0; i < 272; ++i) seq[i] = static_cast<unsigned char>(i);
  const std::string big = HexDump(seq, 272).str(), three = HexDump(seq + 1, 3).str();
  // GetHexVal keeps 32 bits: the top digit of 123456789 is lost.
  // Row marks show the offset's low 8 bits only.
  ExpectRows({
      {Cut("A,,B"), "[A][][B]"}, {Cut(","), "[]"}, {Cut(""), ""}, {Cut("AB"), "[AB]"},
      {Cut(" ab ,cd", true), "[AB][CD]"}, {GetHexCharacter(16).str(), ""}, {HexToText(0x0A).str(), "0A"},
      {HexToText(0xF1).str(), "F1"}, {ToHex(seq + 0x12, 2), "0x12,0x13"}, {ToHex(seq + 0xAB, 1), "0xAB"},
      {ToHex(seq, 0), "not valid !"}, {ToHex(seq, -1), "not valid !"}, {ToHex(nullptr, 2), "not valid !"},
      {SimpleHexDump(seq + 0xAB, 2).str(), "AB AC"}, {SimpleHexDump(seq, 0).str(), ""},
      {IntToBin(5).str(), "00000101"}, {IntToBin(0x1FF).str(), "11111111"}, {Hex("1010b", GetBinVal), "A"},
      {Hex("", GetBinVal), "0"}, {Hex("0x1F"), "1F"}, {Hex("0X1F"), "1F"}, {Hex("X1F"), "1F"},
      {Hex("X"), "0"}, {Hex("0X"), "0"}, {Hex("1 2"), "12"}, {Hex("G5"), "5"}, {Hex(""), "0"},
      {Hex("  ff  "), "FF"}, {Hex("123456789"), "23456789"},
      {HexDump(seq, 18).str(), "Length: 18\r\n____00,01,02,03,04,05,06,07,08,09,0A,0B,0C,0D,0E,0F\r\n"
                               "00_>00,01,02,03,04,05,06,07,08,09,0A,0B,0C,0D,0E,0F\r\n10_>10,11\r\n"},
      {big.substr(big.size() - 106), "F0_>F0,F1,F2,F3,F4,F5,F6,F7,F8,F9,FA,FB,FC,FD,FE,FF\r\n"
                                     "00_>00,01,02,03,04,05,06,07,08,09,0A,0B,0C,0D,0E,0F\r\n"},
      {Read(three.substr(three.find("00_>"))), "01 02 03"}, {Read("AA,BB\r\n10_>CC,DD"), "AA BB CC DD"},
      {Read("00,FF,100"), "00 FF 00"}, {Read("AA,,BB"), "AA"}, {Read(""), ""}, {Read("_>05,06"), "05 06"},
      {Read(",AA,"), "AA"}, {Read("  "), ""}, {Read("AA,"), "AA"}});
}

// A line compiled without an address head, behind the long address 11..55 (poll address 3), or
// behind a long address of two bytes only.
enum Head { kNone, kLong, kShort };

std::string Line(const char *text, Head head = kNone) {
  CByteArray address;
  for (unsigned char b : {0x11, 0x22, 0x33, 0x44, 0x55})
    if (head == kLong || address.GetSize() < 2) address.Add(b);
  CString syntax(text), result("unchanged");
  DataSyntaxToBuffer(syntax, head == kNone ? nullptr : &address, 3, result);
  // "0x01,0x02" as "01 02", the form of the rows.
  std::string out = syntax == text ? result.str() : "syntax changed";
  for (size_t at; (at = out.find("0x")) != std::string::npos;) out.erase(at, 2);
  std::replace(out.begin(), out.end(), ',', ' ');
  return out;
}

std::string Numbers(const char *text) {
  CString numbers(text);
  Bytes buffer(numbers.GetLength() + 2, 0xEE);
  unsigned int length = 99;
  NumStrToBuffer(numbers, buffer.data(), &length);
  return buffer[length] == 0xEE ? SimpleHexDump(buffer.data(), length).str() : "written past the end";
}

// n values joined by blanks, for lines cut at the 256-byte limit.
std::string Repeat(const char *value, int n) { return n == 1 ? value : value + (" " + Repeat(value, n - 1)); }

TEST(CodecTextTest, DataSyntaxGivesBytes) {
  // A line is cut at 256 bytes: in a repeat, in a field, in a field longer than the line.
  ExpectRows({
      {Line("0,5", kLong), "00 03 00 05"}, {Line("0", kLong), "00"}, {Line("DEC16,1", kLong), "00 01"},
      {Line("1,DEC8,5", kLong), "01 11 22 33 44 55 01 05"}, {Line("DEC8,0,1", kLong), "00 03 00 01"},
      {Line("3,DEC16,300,HEX8,0xFF", kLong), "01 11 22 33 44 55 03 01 2C FF"}, {Line("dec8,1"), "01"},
      {Line("11,PCA6,tag", kLong), "01 00 00 00 00 00 0B 50 11 DF 7D F7 DF"}, {Line("DEC9,1"), "00 01"},
      {Line("1,5", kShort), "01 11 22 00 00 00 01 05"}, {Line("DEC17,1"), "00 00 01"}, {Line(""), ""},
      {Line("HEX16,ABCD,2*BIN8,101,3*DEC8,255,FLOAT,1.5,STR3,ab"),
       "AB CD 05 05 FF FF FF 3F C0 00 00 61 62 5F"},
      {Line("DEC25,1"), "00 00 00 01"}, {Line("DEC8,-1"), "FF"}, {Line("INT32,-2"), "FF FF FF FE"},
      {Line("BIN12,1010"), "00 0A"}, {Line("0x1FF"), "FF"}, {Line("12AB"), "0C"}, {Line("0*DEC8,1"), "01"},
      {Line("-5"), "not valid !"}, {Line("3*7"), "07 07 07"}, {Line("*DEC8,1"), "01"},
      {Line("-1*DEC8,1"), "not valid !"}, {Line("2*FLOAT,1"), "3F 80 00 00"}, {Line("DEC,1"), "01"},
      {Line("2*PCA3,A"), "05 F7 DF"}, {Line("PCA,1"), "01"}, {Line("1,,2"), "01 02"}, {Line("DEC8"), "00"},
      {Line("STR3, a"), "20 61 5F"}, {Line("PCA3,a b"), "06 00 9F"}, {Line("FOO"), "not valid !"},
      {Line("DECIMAL,7"), "07"}, {Line("FLOAT"), "00 00 00 00"}, {Line("STR2"), "5F 5F"}, {Line("STR0,a,1"), "01"},
      {Line("PCA0,a,1"), "01"}, {Line("FOOD,1"), "01"},
      {Line("300*255"), Repeat("FF", 256)}, {Line("STR999,a"), "61 " + Repeat("5F", 255)},
      {Line("STR250,a,PCA9,b,1000*DEC32,7"), "61 " + Repeat("5F", 249) + " 09 F7 DF 7D F7 DF"},
      {Numbers("0x01,0xAB"), "01 AB"}, {Numbers("10,0x10"), "0A 10"}, {Numbers("1,,2"), "01 00 02"},
      {Numbers("1,2,"), "01 02"}, {Numbers(""), ""}, {Numbers("300"), "2C"}});
}

std::string Names(unsigned int code) { return GetHartUnit(code).str() + "/" + GetHartVendor(code).str(); }

TEST(CodecTextTest, CodesGiveNames) {
  // Unit, then manufacturer, as code page 1252 bytes: one byte a sign.
  ExpectRows({
      {Names(0), "unknown/unknown"}, {Names(1), "InH2O/Acromag"}, {Names(32), "\xB0" "C/Moore Industries"},
      {Names(65), "LTon/Applied System Technologies"}, {Names(66), "unknown/Samson"},
      {Names(240), "\xB0/unknown"}, {Names(252), "unknown/unknown"}, {Names(253), "-/-/-/-"},
      {Names(0x100 + 38), "unknown/unknown"}});
}

// Dump settings; the link event is in bits 4 and 5.
enum Flag : unsigned int { kSyntax = 1, kName = 2, kDecimal = 4, kBinary = 8, kCommError = 32, kFinal = 48 };

// A long frame: a primary master's response to command 1, unit mA and the float 1.0.
const char *const kCommand1 = "FF FF FF FF FF 86 A6 06 BC 61 4E 01 07 00 00 27 3F 80 00 00 2B";

// The dump of a frame (hex text) followed by its gap and frame time (gap < 0: no times) as one text: the
// columns preamble|delimiter|address|command|count|status|data|checksum|type|rest|error|gap|time|remark|
// link event|, then error number, frame kind, master, command, secondary master flag and raw data flag.
std::string Dump(const char *hex, unsigned int flags = 0, const char *syntax = "", int gap = 1, int ms = 2) {
  Bytes frame;
  for (char *at = const_cast<char *>(hex); *at;)
    frame.push_back(static_cast<unsigned char>(std::strtoul(at, &at, 16)));
  for (int value : {gap, ms})
    for (int i = 0; i < 4 && gap >= 0; ++i) frame.push_back(static_cast<unsigned char>(value >> (8 * i)));
  typFrameDumpStruct d{};
  unsigned int *settings[] = {&d.bUseSyntax, &d.bShowCommandName, &d.bDecimal, &d.bStatusBinary};
  for (int i = 0; i < 4; ++i) *settings[i] = flags >> i & 1;
  d.nLinkEvent = flags >> 4;
  // No syntaxes for requests: a request must not be decoded by the response ones.
  CString responses[256];
  for (CString &s : responses) s = syntax;
  FrameDump(frame.data(), static_cast<unsigned int>(frame.size()), &d, nullptr, responses);
  const std::string columns[] = {
      d.sPreamble.str(), d.sDelimiter.str(), d.sAddress.str(), d.sCommand.str(), d.sByteCount.str(),
      d.sStatus.str(), d.sData.str(), d.sChecksum.str(), d.sFrameType.str(), d.sRest.str(), d.sError.str(),
      d.sGapTime.str(), d.sFrameTime.str(), d.sRemark.str(), d.sLinkEvent.str(), std::to_string(d.nError),
      std::to_string(d.nFrameKind), std::to_string(d.nMaster), std::to_string(d.nCommand),
      std::to_string(d.bSecondaryMaster), std::to_string(d.bRawData)};
  std::string out;
  for (const std::string &column : columns) out += column + "|";
  return out;
}

// The data column of kCommand1 (data 27 3F 80 00 00) decoded by a syntax.
std::string Data(const char *syntax) {
  const std::string dump = Dump(kCommand1, kSyntax, syntax);
  const size_t from = dump.find("|00 00|") + 7;
  return dump.substr(from, dump.find("|2B|") - from);
}

TEST(FrameDumpTest, FrameGivesColumns) {
  ExpectRows({
      {Dump(kCommand1, kSyntax | kName, "Read PV,UNIT,FLOAT", 1234, 56),
       "FF FF FF FF FF|86|A6 06 BC 61 4E|Read PV|07|00 00|mA/1|2B|LACKP|||01234|00056|||0|2|0|1|0|0|"},
      {Dump(kCommand1, kDecimal | kBinary, "", 1234, 56),
       "FF FF FF FF FF|86|A6 06 BC 61 4E|001|007|000 00000000b|27 3F 80 00 00|2B|LACKP|||01234|00056|||"
       "0|2|0|1|0|1|"},
      // A gap over 99999 ms shows as 0; preambles start at the first 0xFF; no label: the number, padded.
      {Dump("00 FF FF 02 80 00 00 82", kName | kDecimal, "", 200000, 12),
       "00 FF FF|02|80            |000_________|000|      ||82|SSTXP|||00000|00012|||0|0|0|0|0|0|"},
      {Dump("FF 06 02 00 01 20 AA BB"),
       "FF|06|02            |00|01|20 ??||AA|SACKS|BB||00001|00002|-> Busy!||0|2|1|0|1|1|"},
      {Dump("FF 06 80 00 02 40 10 00", kCommError | kDecimal | kBinary),
       "FF|06|80            |000|002|064 00010000b||00|SACKP|||00001|00002|-> Command not implemented!|"
       "Received Comm Error!|0|2|0|0|0|1|"},
      // A request is not decoded by the response syntaxes.
      {Dump("FF 82 A6 06 BC 61 4E 12 03 41 42 43 7E", kName | kSyntax, "R,STR3"),
       "FF|82|A6 06 BC 61 4E|12__________|03|     |41 42 43|7E|LSTXP|||00001|00002|||0|0|0|18|0|1|"},
      {Dump("FF 06 80 00 00 86"), "FF|06|80            |00|00|     ||86|SACKP|||00001|00002|||0|2|0|0|0|0|"},
      {Dump("FF 06 80 00 03 00 00 05 81", kSyntax, "label"),
       "FF|06|80            |00|03|00 00|05|81|SACKP|||00001|00002|||0|2|0|0|0|1|"},
      {Dump("FF 06 80 0D 0A 00 00 11 0B 66 FA FF FF FF FF 00", kSyntax, "x,DATE,UNIT,DEC32"),
       "FF|06|80            |0D|0A|00 00|17-11-2002/not used/-1|00|SACKP|||00001|00002|||0|2|0|13|0|0|"},
      // Too short to hold the times; no frame before the times.
      {Dump("01 02 03 04 05", 0, "", -1, 0), "|||||     |||||||?????||Time Out!!!|0|0|-1|-1|0|0|"},
      {Dump("", kFinal, "", 7, 9), "|||||     |||||||00009||Final Time Out!!!|12|0|-1|-1|0|0|"},
      // Damaged frames stop at their first fault.
      {Dump("01 02 03"), "|||||     ||||01 02 03|No preamble detected!|00001|00002|||1|0|-1|-1|0|0|"},
      {Dump("FF FF"), "FF FF|||||     |||||No delimiter!|00001|00002|||2|0|-1|-1|0|0|"},
      {Dump("FF FF 04 01 02"),
       "FF FF|04||||     |||?????|04 01 02|Wrong delimiter!|00001|00002|||3|0|-1|-1|0|0|"},
      {Dump("FF 02"), "FF|02||||     |||SSTX||No address!|00001|00002|||4|0|-1|-1|0|0|"},
      {Dump("FF 82 80 01 02"),
       "FF|82||||     |||LSTXP|80 01 02|Address length error!|00001|00002|||5|0|0|-1|0|0|"},
      {Dump("FF 02 80"), "FF|02|80            |||     |||SSTXP||No command!|00001|00002|||6|0|0|-1|0|0|"},
      {Dump("FF 02 80 00"),
       "FF|02|80            |00||     |||SSTXP||No data length!|00001|00002|||7|0|0|0|0|0|"},
      {Dump("FF 06 02 00 09 01 02"),
       "FF|06|02            |00|09|     |||SACKS|01 02|Data length error!|00001|00002|||8|2|1|0|1|0|"},
      {Dump("FF 06 02 00 02"),
       "FF|06|02            |00|02|     |||SACKS||Missing data!|00001|00002|||9|2|1|0|1|0|"},
      {Dump("FF 06 82 00 02 00 00"),
       "FF|06|82            |00|02|00 00|||SACKP||Missing checksum!|00001|00002|||10|2|0|0|0|1|"},
      // Decoded by a syntax: a field that fails shows ??? and the walk goes on; the rest shows behind //.
      {Data("Read PV,UNIT,HEX8,FOO,DEC16"), "mA/0x3F/???" "/32768//0x00"},
      {Data("Read PV,UNIT"), "mA//0x3F 0x80 0x00 0x00"}, {Data("x,DEC32,DEC8"), "658472960/0"},
      {Data("x,LHEX16,LDEC24"), "0x3F27/128"}, {Data("x,,DEC8"), "???" "/39//0x3F 0x80 0x00 0x00"},
      {Data("x,DEC8X"), "???" "//0x27 0x3F 0x80 0x00 0x00"},
      {Data("x,PCA0,STR-1"), "???" "/???" "//0x27 0x3F 0x80 0x00 0x00"},
      {Data("x,STR2,BIN8,HEX16"), "'?/10000000b/0x0000"},
      {Data("x,FLOAT,FLOAT"), "2.6576e-15/???" "//0x00"},
      {Data("x,DEC32,DEC16"), "658472960/???" "//0x00"}, {Data("x,DEC32,DATE"), "658472960/???" "//0x00"},
      {Data("x,STR9"), "???" "//0x27 0x3F 0x80 0x00 0x00"}, {Data("x,PCA3"), "I3>@//0x00 0x00"},
      {Data("x,DATE,DEC8"), "39-63-2028/0//0x00"}, {Data("x,DEC32,DEC8,DEC8"), "658472960/0"}});
}

}  // namespace
