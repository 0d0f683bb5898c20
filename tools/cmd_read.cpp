// velmora read (and history): identity, tag, descriptor and date, and the dynamic variables
// (commands 0 or 11, 13, 3, 1, 2); --watch repeats the variables.
#include <chrono>
#include <cstdio>
#include <thread>

#include "commands.h"
#include "frame_view.h"
#include "terminal.h"

namespace velmora::tool {
namespace {

struct Variables {
  std::optional<DynamicVariables> dynamic;
  std::optional<Variable> primary;
  std::optional<std::pair<float, float>> current_percent;
};

// One command to the device; a missing or failed reply goes to problems.
std::optional<Reply> Ask(LineSession &session, const Target &target, uint8_t command,
                         std::vector<std::string> &problems) {
  std::string error;
  Reply reply = session.Transact(target, command, {}, error);
  if (!reply.answered) {
    problems.push_back("command " + std::to_string(command) + ": " + error);
    return std::nullopt;
  }
  if (reply.response_code != 0 && !IsWarning(reply.response_code)) {
    problems.push_back("command " + std::to_string(command) + ": response code " +
                       std::to_string(reply.response_code) + ", " + ResponseCodeText(reply.response_code));
    return std::nullopt;
  }
  return reply;
}

Variables ReadVariables(LineSession &session, const Target &target, std::vector<std::string> &problems) {
  Variables v;
  if (auto r = Ask(session, target, 3, problems)) v.dynamic = DecodeDynamicVariables(r->data);
  if (auto r = Ask(session, target, 1, problems)) v.primary = DecodePrimaryVariable(r->data);
  if (auto r = Ask(session, target, 2, problems)) v.current_percent = DecodeCurrentAndPercent(r->data);
  return v;
}

nlohmann::ordered_json VariablesJson(const Variables &v) {
  nlohmann::ordered_json j;
  if (v.current_percent) {
    j["loop_current_ma"] = v.current_percent->first;
    j["percent_of_range"] = v.current_percent->second;
  } else if (v.dynamic) {
    j["loop_current_ma"] = v.dynamic->loop_current_ma;
  }
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  if (v.dynamic)
    for (const Variable &var : v.dynamic->variables)
      list.push_back({{"name", var.name}, {"value", var.value}, {"unit_code", var.unit}, {"unit", var.unit_name}});
  j["variables"] = list;
  return j;
}

void PrintVariables(const Variables &v) {
  if (v.current_percent)
    std::printf("Loop current   %.3f mA, %.1f %% of range\n", v.current_percent->first, v.current_percent->second);
  else if (v.dynamic)
    std::printf("Loop current   %.3f mA\n", v.dynamic->loop_current_ma);
  if (v.dynamic)
    for (const Variable &var : v.dynamic->variables)
      std::printf("  %-3s %14.4f %s\n", var.name.c_str(), var.value, var.unit_name.c_str());
  else if (v.primary)
    std::printf("  PV  %14.4f %s\n", v.primary->value, v.primary->unit_name.c_str());
}

void PrintIdentity(const FoundDevice &device, const std::optional<TagInfo> &tag) {
  const Identity &id = device.identity;
  std::printf("Device         long address %s", LongAddressText(id.long_address).c_str());
  if (device.polling_address) std::printf(", polling address %u", *device.polling_address);
  std::printf("\nManufacturer   %u (%s)\n", id.manufacturer, id.manufacturer_name.c_str());
  std::printf("Device type    %04X, device id %06X\n", id.device_type, id.device_id);
  std::printf("Revisions      universal %u, device %u, software %u, hardware %u\n", id.universal_revision,
              id.device_revision, id.software_revision, id.hardware_revision);
  if (tag) {
    std::printf("Tag            %s\n", tag->tag.c_str());
    std::printf("Descriptor     %s\n", tag->descriptor.c_str());
    std::printf("Date           %04u-%02u-%02u\n", tag->year, tag->month, tag->day);
  }
}

nlohmann::ordered_json DeviceJson(const FoundDevice &device, const std::optional<TagInfo> &tag) {
  const Identity &id = device.identity;
  char type[8], device_id[8];
  std::snprintf(type, sizeof type, "%04X", id.device_type);
  std::snprintf(device_id, sizeof device_id, "%06X", id.device_id);
  nlohmann::ordered_json j;
  if (device.polling_address) j["polling_address"] = *device.polling_address;
  j["long_address"] = LongAddressText(id.long_address);
  j["manufacturer"] = {{"id", id.manufacturer}, {"name", id.manufacturer_name}};
  j["device_type"] = type;
  j["device_id"] = device_id;
  j["revisions"] = {{"universal", id.universal_revision},
                    {"device", id.device_revision},
                    {"software", id.software_revision},
                    {"hardware", id.hardware_revision}};
  if (tag) {
    char date[16];
    std::snprintf(date, sizeof date, "%04u-%02u-%02u", tag->year, tag->month, tag->day);
    j["tag"] = tag->tag;
    j["descriptor"] = tag->descriptor;
    j["date"] = date;
  }
  return j;
}

}  // namespace

int RunRead(const CommonOptions &common, const AddressOptions &address, const ReadOptions &read) {
  if (read.history) FlushHistory();
  Line line;
  if (!line.Open(common)) return kExitUsage;
  LineSession &session = line.Session();
  std::string error;
  std::optional<FoundDevice> device = FindDevice(session, address, error);
  if (!device) {
    PrintError(error);
    return kExitDevice;
  }
  std::vector<std::string> problems;
  std::optional<TagInfo> tag;
  if (auto r = Ask(session, device->target, 13, problems)) tag = DecodeTag(r->data);
  Variables vars = ReadVariables(session, device->target, problems);

  const bool redraw = read.watch_s > 0 && !common.json && IsTerminal(stdout);
  for (unsigned int round = 1;; ++round) {
    if (redraw) std::printf("\x1b[H\x1b[2J");
    if (read.history) {
      // history shows the exchanges, not the values
    } else if (common.json) {
      nlohmann::ordered_json j = DeviceJson(*device, tag);
      j.update(VariablesJson(vars));
      if (read.watch_s > 0) j["round"] = round;
      if (!problems.empty()) j["problems"] = problems;
      std::printf("%s\n", j.dump().c_str());
    } else {
      if (round == 1 || redraw) PrintIdentity(*device, tag);
      else std::printf("\n");
      PrintVariables(vars);
      for (const std::string &p : problems) PrintError(p);
    }
    std::fflush(stdout);
    if (read.watch_s <= 0 || (read.count && round >= read.count) || StopRequested() || session.LineLost()) break;
    session.Listen(std::chrono::milliseconds(static_cast<long long>(read.watch_s * 1000)));
    if (StopRequested()) break;
    problems.clear();
    vars = ReadVariables(session, device->target, problems);
  }

  if (read.history) {
    session.Listen(std::chrono::milliseconds(50));  // the last record closes after its reply
    const unsigned int flags = (read.decoded ? 16u : 0u) | read.details;
    const std::string text = Utf8FromCp1252(GetHistory(flags).str());
    if (common.json) std::printf("%s\n", nlohmann::ordered_json{{"history", text}}.dump().c_str());
    else std::printf("%s", text.c_str());
    for (const std::string &p : problems) PrintError(p);
  }
  if (session.LineLost()) PrintError("the line went away (device unplugged, or its far end closed)");
  return problems.empty() && !session.LineLost() ? kExitOk : kExitDevice;
}

}  // namespace velmora::tool
