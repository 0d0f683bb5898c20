// Frame fields, response codes and device status bits, and the universal commands' syntax.
#include "frame_view.h"

#include <array>
#include <cstdio>

namespace velmora::tool {
namespace {

struct Delimiter {
  uint8_t value;
  FrameKind kind;
};
constexpr Delimiter kDelimiters[] = {{0x02, FrameKind::kRequest},  {0x82, FrameKind::kRequest},
                                     {0x06, FrameKind::kResponse}, {0x86, FrameKind::kResponse},
                                     {0x01, FrameKind::kBurst},    {0x81, FrameKind::kBurst}};

const Delimiter *FindDelimiter(uint8_t value) {
  for (const Delimiter &d : kDelimiters)
    if (d.value == value) return &d;
  return nullptr;
}

// The universal commands: request and response data by the frame dump's field names.
struct CommandSyntax {
  uint8_t command;
  const char *request;
  const char *response;
};
#define IDENTITY "DEC8,HEX16,DEC8,DEC8,DEC8,DEC8,HEX8,HEX8,HEX24,DEC8,DEC8,DEC16,HEX8,HEX16,HEX16,DEC8"
constexpr CommandSyntax kSyntax[] = {
    {0, "Read Unique Identifier", "Read Unique Identifier," IDENTITY},
    {1, "Read Primary Variable", "Read Primary Variable,UNIT,FLOAT"},
    {2, "Read Loop Current And Percent Of Range", "Read Loop Current And Percent Of Range,FLOAT,FLOAT"},
    {3, "Read Dynamic Variables", "Read Dynamic Variables,FLOAT,UNIT,FLOAT,UNIT,FLOAT,UNIT,FLOAT,UNIT,FLOAT"},
    {6, "Write Polling Address,DEC8,DEC8", "Write Polling Address,DEC8,DEC8"},
    {7, "Read Loop Configuration", "Read Loop Configuration,DEC8,DEC8"},
    {8, "Read Dynamic Variable Classifications", "Read Dynamic Variable Classifications,DEC8,DEC8,DEC8,DEC8"},
    {9, "Read Device Variables With Status,DEC8,DEC8,DEC8,DEC8,DEC8,DEC8,DEC8,DEC8",
     "Read Device Variables With Status,HEX8"},
    {11, "Read Unique Identifier With Tag,PCA6", "Read Unique Identifier With Tag," IDENTITY},
    {12, "Read Message", "Read Message,PCA24"},
    {13, "Read Tag Descriptor Date", "Read Tag Descriptor Date,PCA6,PCA12,DATE"},
    {14, "Read Transducer Information", "Read Transducer Information,DEC24,UNIT,FLOAT,FLOAT,FLOAT"},
    {15, "Read Device Information", "Read Device Information,DEC8,DEC8,UNIT,FLOAT,FLOAT,FLOAT,DEC8,DEC8,DEC8,DEC8"},
    {16, "Read Final Assembly Number", "Read Final Assembly Number,DEC24"},
    {17, "Write Message,PCA24", "Write Message,PCA24"},
    {18, "Write Tag Descriptor Date,PCA6,PCA12,DATE", "Write Tag Descriptor Date,PCA6,PCA12,DATE"},
    {19, "Write Final Assembly Number,DEC24", "Write Final Assembly Number,DEC24"},
    {20, "Read Long Tag", "Read Long Tag,STR32"},
    {22, "Write Long Tag,STR32", "Write Long Tag,STR32"},
    {38, "Reset Configuration Changed Flag,DEC16", "Reset Configuration Changed Flag,DEC16"},
    {48, "Read Additional Device Status", "Read Additional Device Status"},
};
#undef IDENTITY

struct SyntaxTables {
  std::array<CString, 256> requests, responses;
  SyntaxTables() {
    for (const CommandSyntax &s : kSyntax) {
      requests[s.command] = s.request;
      responses[s.command] = s.response;
    }
  }
};

SyntaxTables &Tables() {
  static SyntaxTables tables;
  return tables;
}

}  // namespace

std::vector<uint8_t> HartFrame::Pdu(const uint8_t *bytes, size_t count) const {
  const size_t end = start + 1 + address.size() + 2 + body.size() + (complete ? 1 : 0);
  return std::vector<uint8_t>(bytes + start, bytes + (end < count ? end : count));
}

std::vector<uint8_t> HartFrame::Data() const {
  const size_t skip = kind == FrameKind::kRequest ? 0 : 2;
  if (body.size() <= skip) return {};
  return std::vector<uint8_t>(body.begin() + static_cast<std::ptrdiff_t>(skip), body.end());
}

std::optional<HartFrame> ParseFrame(const uint8_t *bytes, size_t count) {
  HartFrame frame;
  size_t at = 0;
  while (at < count && bytes[at] != 0xFF) ++at;  // noise before the preambles
  const size_t first_preamble = at;
  while (at < count && bytes[at] == 0xFF) ++at;
  if (at == first_preamble || at >= count) return std::nullopt;
  const Delimiter *delimiter = FindDelimiter(bytes[at]);
  if (!delimiter) return std::nullopt;
  frame.preambles = at - first_preamble;
  frame.start = at;
  frame.delimiter = bytes[at];
  frame.kind = delimiter->kind;
  uint8_t checksum = bytes[at++];
  const size_t address_size = (frame.delimiter & 0x80) ? 5 : 1;
  for (size_t i = 0; i < address_size && at < count; ++i) frame.address.push_back(bytes[at++]);
  if (frame.address.size() < address_size) return frame;
  frame.from_primary = (frame.address[0] & 0x80) != 0;
  for (uint8_t b : frame.address) checksum ^= b;
  if (at >= count) return frame;
  frame.command = bytes[at++];
  if (at >= count) return frame;
  frame.byte_count = bytes[at++];
  checksum ^= frame.command ^ frame.byte_count;
  for (size_t i = 0; i < frame.byte_count && at < count; ++i) {
    frame.body.push_back(bytes[at]);
    checksum ^= bytes[at++];
  }
  if (frame.body.size() < frame.byte_count || at >= count) return frame;
  frame.complete = true;
  frame.checksum_ok = checksum == bytes[at];
  return frame;
}

bool IsWarning(uint8_t code) {
  return code == 8 || code == 14 || (code >= 24 && code <= 27) || code == 30 || code == 31;
}

std::string ResponseCodeText(uint8_t code) {
  if (code & 0x80) {
    static constexpr std::pair<uint8_t, const char *> kCommErrors[] = {
        {0x40, "parity error"}, {0x20, "overrun"}, {0x10, "framing error"}, {0x08, "checksum error"},
        {0x02, "receive buffer overflow"}};
    std::string text = "the device heard a damaged request:";
    const size_t bare = text.size();
    for (const auto &[bit, name] : kCommErrors)
      if (code & bit) text += std::string(text.size() == bare ? " " : ", ") + name;
    return text.size() == bare ? text + " communication error" : text;
  }
  switch (code) {
    case 0: return "success";
    case 1: return "undefined";
    case 2: return "invalid selection";
    case 3: return "passed parameter too large";
    case 4: return "passed parameter too small";
    case 5: return "too few data bytes received";
    case 6: return "device-specific command error";
    case 7: return "in write protect mode";
    case 16: return "access restricted";
    case 32: return "device busy";
    case 33: return "delayed response initiated";
    case 34: return "delayed response running";
    case 35: return "delayed response dead";
    case 36: return "delayed response conflict";
    case 64: return "command not implemented";
    default: break;
  }
  char text[64];
  std::snprintf(text, sizeof text, "%s %u (its meaning depends on the command)", IsWarning(code) ? "warning" : "error",
                code);
  return text;
}

std::vector<std::string> DeviceStatusBits(uint8_t status) {
  static constexpr std::pair<uint8_t, const char *> kBits[] = {
      {0x80, "device malfunction"},          {0x40, "configuration changed"},
      {0x20, "cold start"},                  {0x10, "more status available"},
      {0x08, "loop current fixed"},          {0x04, "loop current saturated"},
      {0x02, "non-primary variable out of limits"}, {0x01, "primary variable out of limits"}};
  std::vector<std::string> names;
  for (const auto &[bit, name] : kBits)
    if (status & bit) names.emplace_back(name);
  return names;
}

CString *RequestSyntax() { return Tables().requests.data(); }
CString *ResponseSyntax() { return Tables().responses.data(); }

std::string Hex(const std::vector<uint8_t> &bytes) {
  std::string text;
  char two[4];
  for (uint8_t b : bytes) {
    std::snprintf(two, sizeof two, text.empty() ? "%02X" : " %02X", b);
    text += two;
  }
  return text;
}

}  // namespace velmora::tool
