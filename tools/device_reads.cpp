// Decoders of the universal commands' replies, on the library's field codec.
#include "device_reads.h"

#include <cctype>
#include <cstdio>

#include "terminal.h"
#include "velmora.h"

namespace velmora::tool {
namespace {

// The codec reads through a writable pointer by its signature; it does not write.
unsigned char *At(const std::vector<uint8_t> &data, size_t index) {
  return const_cast<unsigned char *>(data.data()) + index;
}

Variable ReadVariable(const std::vector<uint8_t> &data, size_t at, const char *name) {
  Variable v;
  v.name = name;
  v.unit = data[at];
  v.unit_name = Utf8FromCp1252(GetHartUnit(data[at]).str());
  v.value = static_cast<float>(PickFloat(At(data, at + 1), 0));
  return v;
}

std::string Trimmed(const CString &text) {
  CString copy = text;
  copy.TrimRight();
  return copy.str();
}

}  // namespace

std::optional<Identity> DecodeIdentity(const std::vector<uint8_t> &data) {
  if (data.size() < 12) return std::nullopt;
  Identity id;
  // Older devices carry the manufacturer in byte 1; newer ones repeat it in bytes 17-18.
  id.manufacturer = data.size() >= 19 ? PickInt16(At(data, 17), 0, 0) : data[1];
  id.manufacturer_name = Utf8FromCp1252(GetHartVendor(id.manufacturer).str());
  id.device_type = static_cast<uint16_t>(data[1] << 8 | data[2]);
  id.request_preambles = data[3];
  id.universal_revision = data[4];
  id.device_revision = data[5];
  id.software_revision = data[6];
  id.hardware_revision = data[7] >> 3;
  id.device_id = PickInt24(At(data, 9), 0, 0);
  id.long_address = {static_cast<uint8_t>(data[1] & 0x3F), data[2], data[9], data[10], data[11]};
  return id;
}

std::optional<TagInfo> DecodeTag(const std::vector<uint8_t> &data) {
  if (data.size() < 21) return std::nullopt;
  TagInfo info;
  info.tag = Trimmed(PickPackedASCII(At(data, 0), 6, 0));
  info.descriptor = Trimmed(PickPackedASCII(At(data, 6), 12, 0));
  info.day = data[18];
  info.month = data[19];
  info.year = 1900u + data[20];
  return info;
}

std::optional<DynamicVariables> DecodeDynamicVariables(const std::vector<uint8_t> &data) {
  if (data.size() < 9) return std::nullopt;
  static const char *const kNames[] = {"PV", "SV", "TV", "QV"};
  DynamicVariables vars;
  vars.loop_current_ma = static_cast<float>(PickFloat(At(data, 0), 0));
  for (size_t i = 0; i < 4 && 4 + i * 5 + 5 <= data.size(); ++i)
    vars.variables.push_back(ReadVariable(data, 4 + i * 5, kNames[i]));
  return vars;
}

std::optional<Variable> DecodePrimaryVariable(const std::vector<uint8_t> &data) {
  if (data.size() < 5) return std::nullopt;
  return ReadVariable(data, 0, "PV");
}

std::optional<std::pair<float, float>> DecodeCurrentAndPercent(const std::vector<uint8_t> &data) {
  if (data.size() < 8) return std::nullopt;
  return std::pair<float, float>{static_cast<float>(PickFloat(At(data, 0), 0)),
                                 static_cast<float>(PickFloat(At(data, 4), 0))};
}

std::vector<uint8_t> PackedTag(const std::string &tag) {
  // Tags are padded with blanks to their 8 characters.
  std::string padded = tag.substr(0, 8);
  padded.resize(8, ' ');
  CString text(padded.c_str());
  std::vector<uint8_t> bytes(6);
  PutPackedASCII(text, bytes.data(), 0, 6);
  return bytes;
}

bool ParseLongAddress(const std::string &text, std::array<uint8_t, 5> &address) {
  std::string digits;
  for (char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
    else if (c != ' ' && c != ':' && c != '-') return false;
  }
  if (digits.size() != 10) return false;
  for (size_t i = 0; i < 5; ++i) address[i] = static_cast<uint8_t>(std::stoul(digits.substr(i * 2, 2), nullptr, 16));
  return true;
}

std::string LongAddressText(const std::array<uint8_t, 5> &address) {
  char text[16];
  std::snprintf(text, sizeof text, "%02X%02X%02X%02X%02X", address[0], address[1], address[2], address[3], address[4]);
  return text;
}

}  // namespace velmora::tool
