// velmora scan: command 0 to each polling address, then the tag (command 13) of each device.
#include <cstdio>

#include "commands.h"
#include "frame_view.h"
#include "terminal.h"

namespace velmora::tool {
namespace {

struct Found {
  unsigned int polling_address;
  Identity identity;
  std::optional<TagInfo> tag;
};

std::string Revisions(const Identity &id) {
  return std::to_string(id.universal_revision) + "/" + std::to_string(id.device_revision) + "/" +
         std::to_string(id.software_revision) + "/" + std::to_string(id.hardware_revision);
}

std::string Hex4(unsigned int value, int digits) {
  char text[16];
  std::snprintf(text, sizeof text, "%0*X", digits, value);
  return text;
}

}  // namespace

int RunScan(const CommonOptions &common, bool all_addresses) {
  Line line;
  if (!line.Open(common)) return kExitUsage;
  LineSession &session = line.Session();
  const unsigned int last = all_addresses ? 63 : 15;
  std::vector<Found> found;
  {
    Progress progress;
    progress.Note("scanning polling addresses 0-" + std::to_string(last) + " on " + session.Device());
    for (unsigned int address = 0; address <= last && !StopRequested() && !session.LineLost(); ++address) {
      progress.Update(address, last + 1,
                      "address " + std::to_string(address) + " of 0-" + std::to_string(last) + ", " +
                          std::to_string(found.size()) + " found");
      Target target;
      target.polling_address = static_cast<uint8_t>(address);
      std::string error;
      const Reply reply = session.Transact(target, 0, {}, error);
      if (!reply.answered) continue;
      if (std::optional<Identity> id = DecodeIdentity(reply.data)) {
        found.push_back({address, *id, std::nullopt});
        progress.Note("address " + std::to_string(address) + ": device " + LongAddressText(id->long_address));
      }
    }
    for (size_t i = 0; i < found.size() && !StopRequested() && !session.LineLost(); ++i) {
      progress.Update(static_cast<unsigned int>(i), static_cast<unsigned int>(found.size()),
                      "tag of the device at address " + std::to_string(found[i].polling_address));
      Target target;
      target.long_frame = found[i].identity.universal_revision >= 5;
      target.polling_address = static_cast<uint8_t>(found[i].polling_address);
      target.long_address = found[i].identity.long_address;
      std::string error;
      const Reply reply = session.Transact(target, 13, {}, error);
      if (reply.answered && reply.response_code == 0) found[i].tag = DecodeTag(reply.data);
    }
  }
  if (session.LineLost()) {
    PrintError("the line went away during the scan (device unplugged, or its far end closed)");
    return kExitDevice;
  }

  if (common.json) {
    for (const Found &f : found) {
      nlohmann::ordered_json j;
      j["polling_address"] = f.polling_address;
      j["long_address"] = LongAddressText(f.identity.long_address);
      j["manufacturer"] = {{"id", f.identity.manufacturer}, {"name", f.identity.manufacturer_name}};
      j["device_type"] = Hex4(f.identity.device_type, 4);
      j["device_id"] = Hex4(f.identity.device_id, 6);
      j["revisions"] = {{"universal", f.identity.universal_revision},
                        {"device", f.identity.device_revision},
                        {"software", f.identity.software_revision},
                        {"hardware", f.identity.hardware_revision}};
      j["tag"] = f.tag ? nlohmann::ordered_json(f.tag->tag) : nlohmann::ordered_json(nullptr);
      std::printf("%s\n", j.dump().c_str());
    }
  } else {
    std::vector<std::vector<std::string>> rows = {
        {"POLL", "LONG ADDRESS", "MANUFACTURER", "TYPE", "DEVICE ID", "REV U/D/S/H", "TAG"}};
    for (const Found &f : found)
      rows.push_back({std::to_string(f.polling_address), LongAddressText(f.identity.long_address),
                      std::to_string(f.identity.manufacturer) + " (" + f.identity.manufacturer_name + ")",
                      Hex4(f.identity.device_type, 4), Hex4(f.identity.device_id, 6), Revisions(f.identity),
                      f.tag ? f.tag->tag : "?"});
    PrintTable(stdout, rows);
    std::printf("%zu device%s on %s, addresses 0-%u\n", found.size(), found.size() == 1 ? "" : "s",
                session.Device().c_str(), last);
  }
  if (StopRequested()) return kExitDevice;
  return found.empty() ? kExitDevice : kExitOk;
}

}  // namespace velmora::tool
