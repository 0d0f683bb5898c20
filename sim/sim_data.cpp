// Byte-level encodings of HART data for the simulated device.
#include "sim/sim_data.h"

#include <algorithm>
#include <bit>

namespace velmora::sim {

void PutU8(std::vector<uint8_t> &out, uint8_t value) { out.push_back(value); }

void PutU16(std::vector<uint8_t> &out, uint16_t value) {
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

void PutU24(std::vector<uint8_t> &out, uint32_t value) {
  out.push_back(static_cast<uint8_t>(value >> 16));
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

void PutU32(std::vector<uint8_t> &out, uint32_t value) {
  out.push_back(static_cast<uint8_t>(value >> 24));
  PutU24(out, value & 0xFFFFFFu);
}

void PutFloat(std::vector<uint8_t> &out, float value) { PutU32(out, std::bit_cast<uint32_t>(value)); }

void PutBytes(std::vector<uint8_t> &out, const std::vector<uint8_t> &bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}

uint16_t GetU16(const uint8_t *bytes) { return static_cast<uint16_t>((bytes[0] << 8) | bytes[1]); }

uint32_t GetU24(const uint8_t *bytes) {
  return (static_cast<uint32_t>(bytes[0]) << 16) | (static_cast<uint32_t>(bytes[1]) << 8) | bytes[2];
}

uint32_t GetU32(const uint8_t *bytes) { return (static_cast<uint32_t>(bytes[0]) << 24) | GetU24(bytes + 1); }

float GetFloat(const uint8_t *bytes) { return std::bit_cast<float>(GetU32(bytes)); }

namespace {

// The 6-bit code of one character: packed ASCII holds 0x20..0x5F.
uint8_t SixBitCode(char c) {
  auto byte = static_cast<unsigned char>(c);
  if (byte >= 'a' && byte <= 'z') byte = static_cast<unsigned char>(byte - 'a' + 'A');
  if (byte < 0x20 || byte > 0x5F) byte = '?';
  return static_cast<uint8_t>(byte & 0x3F);
}

char FromSixBitCode(uint8_t code) {
  code &= 0x3F;
  return static_cast<char>(code < 0x20 ? code + 0x40 : code);
}

}  // namespace

std::vector<uint8_t> PackAscii(std::string_view text, size_t chars) {
  chars = chars / 4 * 4;
  std::vector<uint8_t> out;
  out.reserve(chars / 4 * 3);
  for (size_t group = 0; group < chars; group += 4) {
    uint32_t bits = 0;
    for (size_t i = 0; i < 4; ++i) {
      size_t at = group + i;
      bits = (bits << 6) | SixBitCode(at < text.size() ? text[at] : ' ');
    }
    PutU24(out, bits);
  }
  return out;
}

std::string UnpackAscii(const uint8_t *bytes, size_t count) {
  std::string text;
  for (size_t at = 0; at + 3 <= count; at += 3) {
    uint32_t bits = GetU24(bytes + at);
    for (int shift = 18; shift >= 0; shift -= 6) text.push_back(FromSixBitCode(static_cast<uint8_t>(bits >> shift)));
  }
  return text;
}

std::string PackedForm(std::string_view text, size_t chars) {
  std::vector<uint8_t> packed = PackAscii(text, chars);
  return UnpackAscii(packed.data(), packed.size());
}

std::vector<uint8_t> FixedText(std::string_view text, size_t width) {
  std::vector<uint8_t> out(width, ' ');
  std::copy_n(text.begin(), std::min(text.size(), width), out.begin());
  return out;
}

std::string TrimRight(std::string_view text) {
  size_t end = text.size();
  while (end > 0 && (text[end - 1] == ' ' || text[end - 1] == '\0')) --end;
  return std::string(text.substr(0, end));
}

}  // namespace velmora::sim
