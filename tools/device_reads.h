// The universal commands' replies as values: identity (command 0 and 11), tag, descriptor and
// date (13), dynamic variables (3), primary variable (1), loop current and percent of range (2).
// Each decoder takes the reply's data without the status bytes and refuses data too short.
#ifndef VELMORA_TOOLS_DEVICE_READS_H
#define VELMORA_TOOLS_DEVICE_READS_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora::tool {

struct Identity {
  unsigned int manufacturer = 0;
  std::string manufacturer_name;
  uint16_t device_type = 0;  // both type bytes: the expanded device type of newer devices
  uint32_t device_id = 0;
  unsigned int universal_revision = 0, device_revision = 0, software_revision = 0, hardware_revision = 0;
  unsigned int request_preambles = 0;
  std::array<uint8_t, 5> long_address{};
};

struct TagInfo {
  std::string tag, descriptor;
  unsigned int day = 0, month = 0, year = 0;
};

struct Variable {
  std::string name;  // PV, SV, TV, QV
  uint8_t unit = 0;
  std::string unit_name;  // UTF-8
  float value = 0;
};

struct DynamicVariables {
  float loop_current_ma = 0;
  std::vector<Variable> variables;
};

std::optional<Identity> DecodeIdentity(const std::vector<uint8_t> &data);
std::optional<TagInfo> DecodeTag(const std::vector<uint8_t> &data);
std::optional<DynamicVariables> DecodeDynamicVariables(const std::vector<uint8_t> &data);
std::optional<Variable> DecodePrimaryVariable(const std::vector<uint8_t> &data);
// Loop current (mA) and percent of range.
std::optional<std::pair<float, float>> DecodeCurrentAndPercent(const std::vector<uint8_t> &data);

// A tag as the 6 bytes of packed ASCII that command 11 asks with.
std::vector<uint8_t> PackedTag(const std::string &tag);
// "2A 5A 00 00 01" or "2A5A000001" as five bytes; false if it is not that.
bool ParseLongAddress(const std::string &text, std::array<uint8_t, 5> &address);
std::string LongAddressText(const std::array<uint8_t, 5> &address);

}  // namespace velmora::tool

#endif
