// velmora send: one command, its data written in the data syntax language; the request and the
// reply as the line carried them, with the response code and the device status spelled out.
#include <cstdio>

#include "commands.h"
#include "frame_view.h"
#include "terminal.h"

namespace velmora::tool {

int RunSend(const CommonOptions &common, const AddressOptions &address, unsigned int command,
            const std::string &data_syntax, bool raw) {
  std::string error;
  const std::vector<uint8_t> data = DataFromSyntax(data_syntax, error);
  if (!error.empty()) {
    PrintError(error);
    return kExitUsage;
  }
  std::vector<MonitorFrame> frames;
  bool collect = false;
  Line line;
  if (!line.Open(common, [&](const MonitorFrame &frame) {
        if (collect && !frame.bytes.empty()) frames.push_back(frame);
      }))
    return kExitUsage;
  LineSession &session = line.Session();

  // Command 0 goes to the polling address (or the long address given), command 11 to every
  // device; any other command needs the device's long address, which command 0 or 11 gives.
  Target target;
  std::vector<uint8_t> payload = data;
  if (command == 11) {
    target.long_frame = true;
    if (payload.empty() && !address.tag.empty()) payload = PackedTag(address.tag);
  } else if (!address.long_address.empty()) {
    target.long_frame = true;
    if (!ParseLongAddress(address.long_address, target.long_address)) {
      PrintError("--long " + address.long_address + ": a long address is 5 bytes in hex, such as 2A5A000001");
      return kExitUsage;
    }
  } else if (command == 0 && address.tag.empty()) {
    target.polling_address = static_cast<uint8_t>(address.polling_address.value_or(0));
  } else {
    std::optional<FoundDevice> device = FindDevice(session, address, error);
    if (!device) {
      PrintError(error);
      return kExitDevice;
    }
    target = device->target;
  }

  collect = true;
  const Reply reply = session.Transact(target, static_cast<uint8_t>(command), payload, error);
  session.Listen(std::chrono::milliseconds(50));  // frames posted behind the reply
  collect = false;

  nlohmann::ordered_json j;
  if (common.json) {
    j["command"] = command;
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const MonitorFrame &frame : frames) list.push_back(FrameJson(frame));
    j["frames"] = list;
  } else {
    for (const MonitorFrame &frame : frames) {
      if (raw) {
        std::optional<HartFrame> parsed = ParseFrame(frame.bytes.data(), frame.bytes.size());
        std::printf("%s\n", Hex(parsed ? parsed->Pdu(frame.bytes.data(), frame.bytes.size()) : frame.bytes).c_str());
      } else {
        std::printf("%s\n", FrameLine(frame).c_str());
      }
    }
  }
  if (!reply.answered) {
    if (common.json) {
      j["answered"] = false;
      j["error"] = error;
      std::printf("%s\n", j.dump().c_str());
    }
    PrintError("command " + std::to_string(command) + ": " + error);
    return kExitDevice;
  }
  const std::vector<std::string> bits = DeviceStatusBits(reply.device_status);
  const bool failed = reply.response_code != 0 && !IsWarning(reply.response_code);
  if (common.json) {
    j["answered"] = true;
    j["response_code"] = reply.response_code;
    j["response"] = ResponseCodeText(reply.response_code);
    j["device_status"] = reply.device_status;
    j["status_bits"] = bits;
    j["data"] = Hex(reply.data);
    std::printf("%s\n", j.dump().c_str());
  } else if (!raw) {
    std::printf("Response code  %u: %s\n", reply.response_code, ResponseCodeText(reply.response_code).c_str());
    std::string status;
    for (const std::string &bit : bits) status += (status.empty() ? "" : ", ") + bit;
    std::printf("Device status  %s: %s\n", HexByte(reply.device_status).c_str(), status.empty() ? "good" : status.c_str());
    std::printf("Data           %s\n", reply.data.empty() ? "(none)" : Hex(reply.data).c_str());
  }
  return failed ? kExitDevice : kExitOk;
}

}  // namespace velmora::tool
