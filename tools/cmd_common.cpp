// What the subcommands share: the line, the device lookup, data syntax and frame lines.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "commands.h"
#include "frame_view.h"
#include "terminal.h"

namespace velmora::tool {
namespace {

std::string Upper(std::string text) {
  for (char &c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

bool StartsWith(const std::string &text, const char *prefix) { return text.rfind(prefix, 0) == 0; }

bool IsNumber(const std::string &text) {
  if (text.empty()) return false;
  if (StartsWith(text, "0X")) return text.size() > 2 && std::all_of(text.begin() + 2, text.end(), [](char c) {
                                        return std::isxdigit(static_cast<unsigned char>(c));
                                      });
  size_t at = text[0] == '-' ? 1 : 0;
  return at < text.size() && std::all_of(text.begin() + static_cast<std::ptrdiff_t>(at), text.end(),
                                         [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
}

std::vector<std::string> SplitCommas(const std::string &text) {
  std::vector<std::string> pieces;
  size_t from = 0;
  for (size_t comma; (comma = text.find(',', from)) != std::string::npos; from = comma + 1)
    pieces.push_back(text.substr(from, comma - from));
  pieces.push_back(text.substr(from));
  for (std::string &piece : pieces) {
    while (!piece.empty() && piece.front() == ' ') piece.erase(piece.begin());
    while (!piece.empty() && piece.back() == ' ') piece.pop_back();
  }
  return pieces;
}

std::string ClockText(std::chrono::system_clock::time_point when) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
  const time_t seconds = static_cast<time_t>(ms / 1000);
  tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(ms % 1000));
  return text;
}

std::string IsoTime(std::chrono::system_clock::time_point when) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count();
  const time_t seconds = static_cast<time_t>(ms / 1000);
  tm utc{};
  gmtime_r(&seconds, &utc);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(ms % 1000));
  return text;
}

// The data by the command's syntax, as the frame dump shows it; empty without a syntax.
std::string Decoded(const MonitorFrame &frame) {
  std::vector<unsigned char> bytes = frame.bytes;
  bytes.resize(bytes.size() + 8, 0);  // the dump wants the two times behind the frame
  typFrameDumpStruct dump{};
  dump.bUseSyntax = 1;
  FrameDump(bytes.data(), static_cast<unsigned int>(bytes.size()), &dump, RequestSyntax(), ResponseSyntax());
  if (dump.bRawData || dump.nError) return {};
  return Utf8FromCp1252(dump.sData.str());
}

const char *Who(const HartFrame &frame) {
  if (frame.kind == FrameKind::kResponse) return "device";
  if (frame.kind == FrameKind::kBurst) return "burst";
  return frame.from_primary ? "primary" : "secondary";
}

const char *TypeName(const HartFrame &frame) {
  const bool is_long = frame.delimiter & 0x80;
  switch (frame.kind) {
    case FrameKind::kRequest: return is_long ? "LSTX" : "SSTX";
    case FrameKind::kResponse: return is_long ? "LACK" : "SACK";
    case FrameKind::kBurst: return is_long ? "LBTX" : "SBTX";
  }
  return "";
}

}  // namespace

void PrintError(const std::string &message) { std::fprintf(stderr, "velmora: %s\n", message.c_str()); }

std::string HexByte(unsigned int value) {
  char text[8];
  std::snprintf(text, sizeof text, "%02X", value & 0xFF);
  return text;
}

bool Line::Open(const CommonOptions &common, LineSession::FrameSink also) {
  std::string error;
  std::string port = common.port;
  if (common.sim) {
    std::vector<std::string> args = common.sim_args;
    args.insert(args.begin(), {"--baud", std::to_string(common.link.baud)});
    if (!sim_.Start(args, error)) {
      PrintError(error);
      return false;
    }
    port = sim_.Path();
  }
  if (!session_.Open(port, common.link, error)) {
    PrintError(error);
    return false;
  }
  if (!common.pcap.empty() && !capture_.Open(common.pcap, error)) {
    PrintError(error);
    return false;
  }
  if (common.pcap.empty() && !also) return true;
  const bool capturing = !common.pcap.empty();
  const bool watching = session_.WatchLine([this, capturing, also](const MonitorFrame &frame) {
    if (capturing && frame.code == 0) capture_.Write(frame.bytes.data(), frame.bytes.size(), frame.start);
    if (also) also(frame);
  });
  if (!watching) PrintError("the line monitor is taken by another program: no frames will be shown or captured");
  return true;
}

std::optional<FoundDevice> FindDevice(LineSession &session, const AddressOptions &address, std::string &error) {
  FoundDevice found;
  Reply reply;
  if (!address.long_address.empty()) {
    found.target.long_frame = true;
    if (!ParseLongAddress(address.long_address, found.target.long_address)) {
      error = "--long " + address.long_address + ": a long address is 5 bytes in hex, such as 2A5A000001";
      return std::nullopt;
    }
    reply = session.Transact(found.target, 0, {}, error);
  } else if (!address.tag.empty()) {
    found.target.long_frame = true;  // the broadcast address: every device looks at its tag
    reply = session.Transact(found.target, 11, PackedTag(address.tag), error);
    if (!reply.answered && error.find("no answer") == 0) error = "no device has the tag " + address.tag;
  } else {
    found.polling_address = address.polling_address.value_or(0);
    found.target.polling_address = static_cast<uint8_t>(*found.polling_address);
    reply = session.Transact(found.target, 0, {}, error);
  }
  if (!reply.answered) return std::nullopt;
  std::optional<Identity> identity = DecodeIdentity(reply.data);
  if (!identity) {
    error = "the device's identity reply is too short (" + std::to_string(reply.data.size()) + " bytes, response code " +
            std::to_string(reply.response_code) + ": " + ResponseCodeText(reply.response_code) + ")";
    return std::nullopt;
  }
  found.identity = *identity;
  if (identity->universal_revision >= 5) {
    found.target.long_frame = true;
    found.target.long_address = identity->long_address;
  }
  return found;
}

std::vector<uint8_t> DataFromSyntax(const std::string &text, std::string &error) {
  if (text.empty()) return {};
  // Keywords and hex numbers in capitals, as the language reads them; text fields as typed.
  std::vector<std::string> pieces = SplitCommas(text);
  std::string syntax;
  for (size_t i = 0; i < pieces.size(); ++i) {
    std::string item = Upper(pieces[i]);
    const size_t star = item.find('*');
    const std::string kind = star == std::string::npos ? item : item.substr(star + 1);
    const bool takes_value = StartsWith(kind, "DEC") || StartsWith(kind, "INT") || StartsWith(kind, "HEX") ||
                             StartsWith(kind, "BIN") || kind == "FLOAT" || StartsWith(kind, "PCA") ||
                             StartsWith(kind, "STR");
    if (!takes_value && !IsNumber(kind)) {
      error = "--data: '" + pieces[i] + "' is not an item of the data syntax (numbers such as 3 or 0x1F, " +
              "DEC8..DEC32, HEX8..HEX32, BIN8, FLOAT, PCAn, STRn, each typed one followed by its value)";
      return {};
    }
    syntax += (i ? "," : "") + item;
    if (takes_value) {
      if (++i >= pieces.size()) {
        error = "--data: " + pieces[i - 1] + " needs a value after it";
        return {};
      }
      std::string value = StartsWith(kind, "STR") ? pieces[i] : Upper(pieces[i]);
      // Text fields are padded with blanks, as HART texts are; the library would fill them with
      // its own filler otherwise.
      if (StartsWith(kind, "PCA") || StartsWith(kind, "STR")) {
        const size_t bytes = std::strtoul(kind.c_str() + 3, nullptr, 10);
        const size_t chars = StartsWith(kind, "PCA") ? bytes * 4 / 3 : bytes;
        if (value.size() < chars && chars <= 256) value.resize(chars, ' ');
      }
      syntax += "," + value;
    }
  }
  CString source(syntax.c_str()), hex;
  DataSyntaxToBuffer(source, nullptr, 0, hex);
  CByteArray bytes;
  GetSelectedBuffer(hex, &bytes);
  return std::vector<uint8_t>(bytes.GetData(), bytes.GetData() + bytes.GetSize());
}

std::string FrameLine(const MonitorFrame &frame) {
  char head[64];
  std::snprintf(head, sizeof head, "%s %6d %8d  ", ClockText(frame.start).c_str(), frame.gap_ms, frame.frame_ms);
  std::optional<HartFrame> parsed = ParseFrame(frame.bytes.data(), frame.bytes.size());
  if (!parsed) {
    if (frame.bytes.empty()) return head + std::string("time-out") + (frame.code ? " (" + std::to_string(frame.code) + ")" : "");
    return head + std::string("noise     ") + Hex(frame.bytes);
  }
  char fields[96];
  std::snprintf(fields, sizeof fields, "%-9s %s  %-14s  %3u  ", Who(*parsed), TypeName(*parsed),
                Hex(parsed->address).c_str(), parsed->command);
  std::string line = head + std::string(fields);
  if (parsed->kind != FrameKind::kRequest && parsed->body.size() >= 2)
    line += "rc " + HexByte(parsed->body[0]) + " ds " + HexByte(parsed->body[1]) + "  ";
  line += Hex(parsed->Data());
  if (!parsed->complete) line += "  [cut off]";
  else if (!parsed->checksum_ok) line += "  [bad checksum]";
  if (const std::string decoded = Decoded(frame); !decoded.empty()) line += "  = " + decoded;
  return line;
}

nlohmann::ordered_json FrameJson(const MonitorFrame &frame) {
  nlohmann::ordered_json j;
  j["time"] = IsoTime(frame.start);
  j["gap_ms"] = frame.gap_ms;
  j["frame_ms"] = frame.frame_ms;
  std::optional<HartFrame> parsed = ParseFrame(frame.bytes.data(), frame.bytes.size());
  if (!parsed) {
    j["event"] = frame.bytes.empty() ? "time-out" : "noise";
    if (!frame.bytes.empty()) j["bytes"] = Hex(frame.bytes);
    return j;
  }
  j["from"] = Who(*parsed);
  j["type"] = TypeName(*parsed);
  j["master"] = parsed->from_primary ? "primary" : "secondary";
  j["address"] = Hex(parsed->address);
  j["command"] = parsed->command;
  j["byte_count"] = parsed->byte_count;
  if (parsed->kind != FrameKind::kRequest && parsed->body.size() >= 2) {
    j["response_code"] = parsed->body[0];
    j["device_status"] = parsed->body[1];
  }
  j["data"] = Hex(parsed->Data());
  if (const std::string decoded = Decoded(frame); !decoded.empty()) j["decoded"] = decoded;
  j["preambles"] = parsed->preambles;
  j["complete"] = parsed->complete;
  j["checksum_ok"] = parsed->checksum_ok;
  return j;
}

}  // namespace velmora::tool
