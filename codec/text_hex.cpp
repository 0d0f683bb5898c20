// Text utilities: cutting comma-separated text, hexadecimal and binary numbers as text and
// back, and the two dumps of a byte buffer, one of which reads back into bytes.
#include <cstring>

#include "velmora.h"

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

bool IsHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); }
unsigned int HexDigitValue(char c) { return c <= '9' ? static_cast<unsigned int>(c - '0') : static_cast<unsigned int>(c - 'A' + 10); }

void AppendHex(CString &out, unsigned char value) {
  out += kDigits[value >> 4];
  out += kDigits[value & 0x0F];
}

template <typename Fn>
auto Guarded(Fn &&fn, decltype(fn()) fallback) noexcept -> decltype(fn()) {
  try {
    return fn();
  } catch (...) {
    return fallback;
  }
}

}  // namespace

extern "C" {

unsigned int CutPiece(CString &sText, CString &sPiece) noexcept {
  return Guarded(
      [&]() -> unsigned int {
        sPiece.Empty();
        if (sText.IsEmpty()) return 0;
        const int comma = sText.Find(',');
        if (comma > 0) {
          sPiece = sText.Left(comma);
          sText = sText.Mid(comma + 1);
        } else if (comma == 0) {
          sText = sText.Mid(1);
        } else {
          sPiece = sText;
          sText.Empty();
        }
        return 1;
      },
      0u);
}

unsigned int CutPieceTrim(CString &sText, CString &sPiece) noexcept {
  const unsigned int result = CutPiece(sText, sPiece);
  sPiece.MakeUpper();
  sPiece.TrimLeft();
  sPiece.TrimRight();
  return result;
}

CString GetHexCharacter(unsigned char nValue) noexcept {
  return Guarded([&] { return nValue < 16 ? CString(kDigits[nValue]) : CString(); }, CString());
}

CString HexToText(unsigned char nValue) noexcept {
  return Guarded(
      [&] {
        CString out;
        AppendHex(out, nValue);
        return out;
      },
      CString());
}

void BufferToHex(unsigned char *pBuffer, int nLength, CString &sResult) noexcept {
  Guarded(
      [&] {
        if (nLength <= 0 || !pBuffer) {
          sResult = "not valid !";
          return 0;
        }
        CString out;
        for (int i = 0; i < nLength; ++i) {
          out += i == 0 ? "0x" : ",0x";
          AppendHex(out, pBuffer[i]);
        }
        sResult = out;
        return 0;
      },
      0);
}

unsigned int GetHexVal(CString &sText) noexcept {
  return Guarded(
      [&]() -> unsigned int {
        if (sText.IsEmpty()) return 0;
        CString copy = sText;
        copy.MakeUpper();
        copy.TrimLeft();
        copy.TrimRight();
        if (copy.GetLength() > 1) {
          const int x = copy.Find('X');
          if (x >= 0) {
            copy = copy.Mid(x + 1);
            if (copy.IsEmpty()) return 0;
          }
        }
        // 32 bits: digits shifted out at the top are lost.
        unsigned int value = 0;
        for (int i = 0; i < copy.GetLength(); ++i) {
          const char c = copy.GetAt(i);
          if (IsHexDigit(c)) value = (value << 4) | HexDigitValue(c);
        }
        return value;
      },
      0u);
}

unsigned int GetBinVal(CString &sText) noexcept {
  unsigned int value = 0;
  for (int i = 0; i < sText.GetLength(); ++i) {
    const char c = sText.GetAt(i);
    if (c == '0') value <<= 1;
    else if (c == '1') value = (value << 1) | 1u;
  }
  return value;
}

CString HexDump(unsigned char *pBuffer, unsigned int nLength) noexcept {
  return Guarded(
      [&] {
        CString out;
        out.Format("Length: %u\r\n", nLength);
        out += "____00,01,02,03,04,05,06,07,08,09,0A,0B,0C,0D,0E,0F\r\n";
        for (unsigned int row = 0; pBuffer && row < nLength; row += 16) {
          // Only the offset's low 8 bits show, so marks repeat after "F0_>".
          AppendHex(out, static_cast<unsigned char>(row & 0xFF));
          out += "_>";
          for (unsigned int i = row; i < nLength && i < row + 16; ++i) {
            if (i != row) out += ',';
            AppendHex(out, pBuffer[i]);
          }
          out += "\r\n";
        }
        return out;
      },
      CString());
}

void GetSelectedBuffer(CString sText, CByteArray *pBytes) noexcept {
  if (!pBytes) return;
  try {
    pBytes->SetSize(0, -1);
    if (sText.IsEmpty()) return;
    std::string text = sText.str();
    for (size_t at = text.find("\r\n"); at != std::string::npos; at = text.find("\r\n", at)) {
      text[at] = ' ';
      text[at + 1] = ' ';
    }
    // A row mark "NN_>" becomes three blanks and a comma: the comma then stands between the
    // last byte of the row before and the first byte of this one.
    for (size_t at = text.find("_>"); at != std::string::npos; at = text.find("_>", at + 2)) {
      for (size_t back = 1; back <= 2 && back <= at; ++back) text[at - back] = ' ';
      text[at] = ' ';
      text[at + 1] = ',';
    }
    CString work(text);
    work.TrimLeft();
    work.TrimRight();
    if (!work.IsEmpty() && work.GetAt(0) == ',') work.SetAt(0, ' ');
    if (!work.IsEmpty() && work.GetAt(work.GetLength() - 1) == ',') work.Delete(work.GetLength() - 1);
    if (work.IsEmpty()) return;
    CString piece;
    while (CutPieceTrim(work, piece) && !piece.IsEmpty()) {
      const unsigned int value = GetHexVal(piece);
      pBytes->Add(value >= 1 && value <= 255 ? static_cast<unsigned char>(value) : 0);
    }
  } catch (...) {
  }
}

CString IntToBin(unsigned int nValue) noexcept {
  return Guarded(
      [&] {
        CString out;
        for (int bit = 7; bit >= 0; --bit) out += ((nValue >> bit) & 1u) ? '1' : '0';
        return out;
      },
      CString());
}

CString SimpleHexDump(unsigned char *pBuffer, unsigned int nLength) noexcept {
  return Guarded(
      [&] {
        CString out;
        for (unsigned int i = 0; pBuffer && i < nLength; ++i) {
          if (i) out += ' ';
          AppendHex(out, pBuffer[i]);
        }
        return out;
      },
      CString());
}

}  // extern "C"
