// HART frames as a person at the line reads them: the fields of a frame off the monitor, the
// response code and the device status spelled out, and the data syntax of the universal commands
// for the frame dump.
#ifndef VELMORA_TOOLS_FRAME_VIEW_H
#define VELMORA_TOOLS_FRAME_VIEW_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "velmora.h"

namespace velmora::tool {

enum class FrameKind { kRequest, kResponse, kBurst };

// One frame split into its fields. Bytes the frame promises but does not bring leave it
// incomplete; what follows its checksum is ignored.
struct HartFrame {
  size_t preambles = 0;
  size_t start = 0;  // index of the delimiter
  uint8_t delimiter = 0;
  FrameKind kind = FrameKind::kRequest;
  std::vector<uint8_t> address;  // 1 byte (short frame) or 5 (long frame)
  bool from_primary = false;     // the master bit of the address
  uint8_t command = 0;
  uint8_t byte_count = 0;
  std::vector<uint8_t> body;     // byte_count bytes: status bytes first in a response or burst
  bool complete = false;         // all fields and the checksum are there
  bool checksum_ok = false;

  // The frame from its delimiter on: the part a HART-IP token-passing PDU carries.
  std::vector<uint8_t> Pdu(const uint8_t *bytes, size_t count) const;
  // The data without the two status bytes of a response or burst frame.
  std::vector<uint8_t> Data() const;
};

// The frame in bytes: preambles (at least one 0xFF), then a delimiter this master knows.
std::optional<HartFrame> ParseFrame(const uint8_t *bytes, size_t count);

// "success", "device busy", "in write protect mode", ... A first status byte with its top bit
// set reports the device's communication errors instead.
std::string ResponseCodeText(uint8_t code);
// Codes that report a warning: the command was carried out.
bool IsWarning(uint8_t code);
// The set bits of the device status byte, by name; empty for 0.
std::vector<std::string> DeviceStatusBits(uint8_t status);

// Syntax strings ("label,FIELD,...") of the universal commands for FrameDump, by command.
CString *RequestSyntax();
CString *ResponseSyntax();

// "A1 B2 C3".
std::string Hex(const std::vector<uint8_t> &bytes);

}  // namespace velmora::tool

#endif
