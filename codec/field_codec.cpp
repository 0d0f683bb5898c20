// Single HART data fields to their bytes on the wire and back: unsigned integers of 8 to 32
// bits (most significant byte first), the 32-bit float, packed ASCII and plain strings.
//
// A float has three forms: the wire form (four bytes, sign and exponent first), the bit
// pattern (a host integer with the sign in bit 31, what DoubleToIEEE754 returns), and the
// memory word (the wire bytes read as a little-endian word, what IEEE754ToFlp takes).
#include <cmath>
#include <cstdint>

#include "velmora.h"

namespace {

constexpr unsigned char kPackedFill[3] = {0x7D, 0xF7, 0xDF};  // four codes 0x1F

uint32_t Group(const unsigned char *bytes) {
  return (static_cast<uint32_t>(bytes[0]) << 16) | (static_cast<uint32_t>(bytes[1]) << 8) | bytes[2];
}

}  // namespace

extern "C" {

unsigned int Swapl(unsigned int nValue) noexcept {
  return (nValue >> 24) | ((nValue >> 8) & 0xFF00u) | ((nValue << 8) & 0xFF0000u) | (nValue << 24);
}

unsigned int DoubleToIEEE754(double dValue) noexcept {
  if (dValue == 0.0 || std::isnan(dValue)) return 0;
  const uint32_t sign = std::signbit(dValue) ? 0x80000000u : 0;
  // Magnitudes a float can't hold, infinity among them: exponent field 127, all fraction bits.
  constexpr uint32_t kTooLarge = (127u << 23) | 0x7FFFFFu;
  if (std::isinf(dValue)) return sign | kTooLarge;
  int exponent = 0;
  const double mantissa = std::fabs(std::frexp(dValue, &exponent));  // 0.5 <= mantissa < 1
  uint32_t fraction;
  if (sign) {
    // Negative values are truncated.
    fraction = static_cast<uint32_t>(mantissa * 16777216.0) & 0x7FFFFFu;
  } else {
    // Positive values are rounded half up; a carry into the 25th bit raises the exponent.
    const uint64_t twice = static_cast<uint64_t>(mantissa * 33554432.0);
    const uint64_t rounded = (twice + 1) >> 1;
    if (rounded >= (1u << 24)) {
      fraction = 0;
      ++exponent;
    } else {
      fraction = static_cast<uint32_t>(rounded) & 0x7FFFFFu;
    }
  }
  const int biased = exponent + 126;
  if (biased < 0) return 0;
  if (biased > 255) return sign | kTooLarge;
  return sign | (static_cast<uint32_t>(biased & 0xFF) << 23) | fraction;
}

double IEEE754ToFlp(unsigned int nRaw) noexcept {
  const uint32_t v = Swapl(nRaw);
  if (v == 0x7FA00000u) return 1e30;
  if (v == 0) return 0.0;
  // The hidden bit is always set, whatever the exponent field holds.
  const double value = static_cast<double>((v & 0x7FFFFFu) | 0x800000u) / 8388608.0;
  const double scaled = std::ldexp(value, static_cast<int>((v >> 23) & 0xFFu) - 127);
  return (v & 0x80000000u) ? -scaled : scaled;
}

unsigned char PickInt8(unsigned char *pBuffer, unsigned int nIndex) noexcept { return pBuffer[nIndex]; }

void PutInt8(unsigned int nValue, unsigned char *pBuffer, unsigned int nIndex) noexcept {
  pBuffer[nIndex] = static_cast<unsigned char>(nValue);
}

unsigned int PickInt16(unsigned char *pBuffer, unsigned int nIndex, unsigned int bLowFirst) noexcept {
  const unsigned char *b = pBuffer + nIndex;
  return bLowFirst ? (b[0] | (static_cast<unsigned int>(b[1]) << 8)) : ((static_cast<unsigned int>(b[0]) << 8) | b[1]);
}

void PutInt16(unsigned int nValue, unsigned char *pBuffer, unsigned int nIndex) noexcept {
  pBuffer[nIndex] = static_cast<unsigned char>(nValue >> 8);
  pBuffer[nIndex + 1] = static_cast<unsigned char>(nValue);
}

unsigned int PickInt24(unsigned char *pBuffer, unsigned int nIndex, unsigned int bLowFirst) noexcept {
  const unsigned char *b = pBuffer + nIndex;
  if (bLowFirst) return b[0] | (static_cast<unsigned int>(b[1]) << 8) | (static_cast<unsigned int>(b[2]) << 16);
  return (static_cast<unsigned int>(b[0]) << 16) | (static_cast<unsigned int>(b[1]) << 8) | b[2];
}

void PutInt24(unsigned int nValue, unsigned char *pBuffer, unsigned int nIndex) noexcept {
  pBuffer[nIndex] = static_cast<unsigned char>(nValue >> 16);
  pBuffer[nIndex + 1] = static_cast<unsigned char>(nValue >> 8);
  pBuffer[nIndex + 2] = static_cast<unsigned char>(nValue);
}

unsigned int PickInt32(unsigned char *pBuffer, unsigned int nIndex, unsigned int bLowFirst) noexcept {
  const unsigned char *b = pBuffer + nIndex;
  const unsigned int high_first = (static_cast<unsigned int>(b[0]) << 24) | (static_cast<unsigned int>(b[1]) << 16) |
                                  (static_cast<unsigned int>(b[2]) << 8) | b[3];
  return bLowFirst ? Swapl(high_first) : high_first;
}

void PutInt32(unsigned int nValue, unsigned char *pBuffer, unsigned int nIndex) noexcept {
  for (int i = 0; i < 4; ++i) pBuffer[nIndex + i] = static_cast<unsigned char>(nValue >> (24 - 8 * i));
}

double PickFloat(unsigned char *pBuffer, unsigned int nIndex) noexcept {
  const unsigned char *b = pBuffer + nIndex;
  // Exponent field 255 (infinity and NaN patterns, and 1e30's marker) reads as 0.
  if ((b[0] & 0x7F) == 0x7F && (b[1] & 0x80)) return 0.0;
  const unsigned int memory_word = b[0] | (static_cast<unsigned int>(b[1]) << 8) |
                                   (static_cast<unsigned int>(b[2]) << 16) | (static_cast<unsigned int>(b[3]) << 24);
  return IEEE754ToFlp(memory_word);
}

void PutFloat(double dValue, unsigned char *pBuffer, unsigned int nIndex) noexcept {
  PutInt32(DoubleToIEEE754(dValue), pBuffer, nIndex);
}

void PutPackedASCII(CString &sText, unsigned char *pBuffer, unsigned int nIndex, int nCount) noexcept {
  sText.MakeUpper();
  if (nCount <= 0 || !pBuffer) return;
  unsigned char *field = pBuffer + nIndex;
  const unsigned int count = static_cast<unsigned int>(nCount);
  for (unsigned int i = 0; i < count; ++i) field[i] = kPackedFill[i % 3];
  // Four 6-bit codes to each group of three bytes, from the top bit down; characters that
  // don't fit the field are dropped, codes the text doesn't reach keep the fill.
  const unsigned int capacity = 4 * count / 3;
  const unsigned int length = static_cast<unsigned int>(sText.GetLength());
  for (unsigned int k = 0; k < length && k < capacity; ++k) {
    const unsigned int group_at = (k / 4) * 3;
    unsigned char bytes[3];
    for (unsigned int i = 0; i < 3; ++i)
      bytes[i] = group_at + i < count ? field[group_at + i] : kPackedFill[i];
    const unsigned int shift = 18 - 6 * (k % 4);
    const uint32_t code = static_cast<unsigned char>(sText.GetAt(static_cast<int>(k))) & 0x3Fu;
    const uint32_t group = (Group(bytes) & ~(0x3Fu << shift)) | (code << shift);
    for (unsigned int i = 0; i < 3 && group_at + i < count; ++i)
      field[group_at + i] = static_cast<unsigned char>(group >> (16 - 8 * i));
  }
}

CString PickPackedASCII(unsigned char *pBuffer, unsigned int nLength, int nIndex) noexcept {
  try {
    CString out;
    const unsigned int whole = (nLength / 3) * 3;
    const unsigned char *field = pBuffer + nIndex;
    for (unsigned int at = 0; pBuffer && at < whole; at += 3) {
      const uint32_t group = Group(field + at);
      for (int shift = 18; shift >= 0; shift -= 6) {
        const unsigned int code = (group >> shift) & 0x3Fu;
        out += static_cast<char>(code < 0x20 ? code + 0x40 : code);
      }
    }
    return out;
  } catch (...) {
    return CString();
  }
}

void PutString(CString &sText, unsigned char *pBuffer, unsigned int nIndex, int nCount) noexcept {
  if (nCount <= 0 || !pBuffer) return;
  unsigned char *field = pBuffer + nIndex;
  for (int i = 0; i < nCount; ++i) field[i] = '_';
  for (int i = 0; i < nCount && i < sText.GetLength(); ++i) field[i] = static_cast<unsigned char>(sText.GetAt(i));
}

CString PickString(unsigned char *pBuffer, unsigned int nLength, int nIndex) noexcept {
  try {
    CString out;
    for (unsigned int i = 0; pBuffer && i < nLength; ++i) {
      const char c = static_cast<char>(pBuffer[nIndex + static_cast<int>(i)]);
      out += c == 0 ? ' ' : c;
    }
    return out;
  } catch (...) {
    return CString();
  }
}

}  // extern "C"
