// The data syntax language: one line of comma-separated items ("3,DEC16,300,HEX8,0xFF") becomes
// the bytes of a request, optionally behind an address head, handed back as "0x.." text.
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "velmora.h"

namespace {

constexpr unsigned int kLimit = 256;      // the most bytes a line may produce, head included
constexpr unsigned int kFieldScratch = 264;  // a text field longer than what fits is cut here

// atol and atoi without their undefined behaviour on overflow: strtol saturates.
long ReadLong(const CString &text) { return std::strtol(text.GetString(), nullptr, 10); }
int ReadInt(const CString &text) {
  const long value = ReadLong(text);
  return value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : static_cast<int>(value);
}
double ReadDouble(const CString &text) { return std::strtod(text.GetString(), nullptr); }

unsigned int ByteWidth(int bits) { return bits <= 8 ? 1 : bits <= 16 ? 2 : bits <= 24 ? 3 : 4; }

bool StartsWith(const CString &text, const char *prefix) {
  return std::strncmp(text.GetString(), prefix, std::strlen(prefix)) == 0;
}

// The working buffer; what would pass the limit is cut.
struct Output {
  unsigned char bytes[kLimit] = {};
  unsigned int count = 0;

  void Put(unsigned char value) {
    if (count < kLimit) bytes[count++] = value;
  }
  void PutInteger(uint32_t value, unsigned int width) {
    for (unsigned int i = width; i-- > 0;) Put(static_cast<unsigned char>(value >> (8 * i)));
  }
  void PutField(const unsigned char *field, unsigned int size) {
    for (unsigned int i = 0; i < size; ++i) Put(field[i]);
  }
};

// The first byte becomes the command behind a head: short form for command 0, long form else;
// command 11 goes to the all-zero address.
void ApplyAddressHead(Output &out, const CByteArray &long_address, unsigned char poll_address) {
  const unsigned char command = out.bytes[0];
  out.count = 0;
  if (command == 0) {
    out.Put(0);
    out.Put(poll_address);
    out.Put(0);
    return;
  }
  out.Put(1);
  for (int i = 0; i < 5; ++i)
    out.Put(command == 11 || i >= long_address.GetSize() ? 0 : long_address[i]);
  out.Put(command);
}

void Compile(const CString &syntax, const CByteArray *long_address, unsigned char poll_address, Output &out) {
  CString work = syntax;
  CString piece, value;
  while (!work.IsEmpty()) {
    if (long_address && out.count == 1) ApplyAddressHead(out, *long_address, poll_address);
    CutPieceTrim(work, piece);
    long repeat = 1;
    const int star = piece.Find('*');
    if (star >= 0) {
      repeat = star > 0 ? ReadLong(piece.Left(star)) : 0;
      piece = piece.Mid(star + 1);
      if (repeat == 0) repeat = 1;
    }
    // Writing stops at the limit anyway; this bounds the loop.
    if (repeat > static_cast<long>(kLimit)) repeat = kLimit;
    const int length = piece.GetLength();
    if (length > 3 && (StartsWith(piece, "DEC") || StartsWith(piece, "INT") || StartsWith(piece, "HEX") ||
                       StartsWith(piece, "BIN"))) {
      CutPieceTrim(work, value);
      uint32_t number;
      if (StartsWith(piece, "HEX")) number = GetHexVal(value);
      else if (StartsWith(piece, "BIN")) number = GetBinVal(value);
      else number = static_cast<uint32_t>(ReadLong(value));
      const unsigned int width = ByteWidth(ReadInt(piece.Mid(3)));
      for (long i = 0; i < repeat; ++i) out.PutInteger(number, width);
    } else if (length > 0 && std::isdigit(static_cast<unsigned char>(piece.GetAt(0)))) {
      const uint32_t number =
          length > 1 && piece.GetAt(1) == 'X' ? GetHexVal(piece) : static_cast<uint32_t>(ReadLong(piece));
      for (long i = 0; i < repeat; ++i) out.Put(static_cast<unsigned char>(number));
    } else if (length >= 5 && StartsWith(piece, "FLOAT")) {
      CutPieceTrim(work, value);
      unsigned char field[4];
      PutFloat(ReadDouble(value), field, 0);
      out.PutField(field, 4);
    } else if (length >= 4 && (StartsWith(piece, "PCA") || StartsWith(piece, "STR"))) {
      CutPiece(work, value);
      const int size = ReadInt(piece.Mid(3));
      if (size <= 0) continue;
      unsigned char field[kFieldScratch];
      const int built = size > static_cast<int>(kFieldScratch) ? static_cast<int>(kFieldScratch) : size;
      if (StartsWith(piece, "PCA")) PutPackedASCII(value, field, 0, built);
      else PutString(value, field, 0, built);
      out.PutField(field, static_cast<unsigned int>(built));
    }
  }
}

}  // namespace

extern "C" {

void DataSyntaxToBuffer(CString &sSyntax, CByteArray *pLongAddress, unsigned char nPollAddress,
                        CString &sResult) noexcept {
  try {
    if (sSyntax.IsEmpty()) {
      sResult.Empty();
      return;
    }
    Output out;
    Compile(sSyntax, pLongAddress, nPollAddress, out);
    BufferToHex(out.bytes, static_cast<int>(out.count), sResult);
  } catch (...) {
    sResult.Empty();
  }
}

void NumStrToBuffer(CString &sNumbers, unsigned char *pBuffer, unsigned int *pnLength) noexcept {
  if (!pnLength) return;
  *pnLength = 0;
  if (!pBuffer) return;
  try {
    CString work = sNumbers;
    CString piece;
    while (!work.IsEmpty()) {
      CutPieceTrim(work, piece);
      const uint32_t value = StartsWith(piece, "0X") ? GetHexVal(piece) : static_cast<uint32_t>(ReadInt(piece));
      pBuffer[(*pnLength)++] = static_cast<unsigned char>(value);
    }
  } catch (...) {
  }
}

}  // extern "C"
