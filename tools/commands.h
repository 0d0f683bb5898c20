// The subcommands of velmora and what they share: options, opening the line (or the simulator),
// finding the device the address options name, and a frame as a line of text or JSON.
#ifndef VELMORA_TOOLS_COMMANDS_H
#define VELMORA_TOOLS_COMMANDS_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "device_reads.h"
#include "hart_ip_capture.h"
#include "line_session.h"
#include "sim_launcher.h"

namespace velmora::tool {

// 0 done; 1 the device answered with an error or did not answer; 2 the command could not run
// (bad arguments, or a port that would not open).
enum ExitCode { kExitOk = 0, kExitDevice = 1, kExitUsage = 2 };

struct CommonOptions {
  std::string port;
  LinkSettings link;
  bool json = false;
  std::string pcap;
  bool sim = false;
  std::vector<std::string> sim_args;
};

struct AddressOptions {
  std::optional<unsigned int> polling_address;
  std::string tag;
  std::string long_address;
};

struct ReadOptions {
  double watch_s = 0;      // 0: read once
  unsigned int count = 0;  // rounds of --watch; 0 until Ctrl-C
  bool history = false;
  bool decoded = false;
  unsigned int details = 0;  // history flags beyond decoding
};

int RunScan(const CommonOptions &common, bool all_addresses);
int RunRead(const CommonOptions &common, const AddressOptions &address, const ReadOptions &read);
int RunSend(const CommonOptions &common, const AddressOptions &address, unsigned int command,
            const std::string &data_syntax, bool raw);
int RunMonitor(const CommonOptions &common, double duration_s);

// ---- shared by the subcommands

// The simulator (with --sim), the session and the capture of one run.
class Line {
 public:
  // Opens what the options ask for; false after telling the user why.
  bool Open(const CommonOptions &common, LineSession::FrameSink also = nullptr);
  LineSession &Session() { return session_; }

 private:
  SimLauncher sim_;
  CaptureFile capture_;
  LineSession session_;  // last: closed before the simulator goes
};

// The device the address options name, found with command 0 (polling or long address) or
// command 11 (tag). Requests to it then go in long frames, or short ones for devices older than
// universal revision 5.
struct FoundDevice {
  Target target;
  std::optional<unsigned int> polling_address;  // known when found by it
  Identity identity;
};
std::optional<FoundDevice> FindDevice(LineSession &session, const AddressOptions &address, std::string &error);

// The data syntax language as the user writes it: keywords in any case, STR text as typed.
std::vector<uint8_t> DataFromSyntax(const std::string &text, std::string &error);

// A frame off the monitor as one line of columns, and as a JSON object.
std::string FrameLine(const MonitorFrame &frame);
nlohmann::ordered_json FrameJson(const MonitorFrame &frame);

void PrintError(const std::string &message);
std::string HexByte(unsigned int value);

}  // namespace velmora::tool

#endif
