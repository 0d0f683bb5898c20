// Reading velmora-sim's command line.
#include "sim/sim_options.h"

#include <map>
#include <set>

namespace velmora::sim {
namespace {

using Keys = std::map<std::string, std::string>;

// Decimal, or hexadecimal after "0x".
bool ParseNumber(const std::string &text, uint64_t max, uint64_t *out) {
  if (text.empty()) return false;
  int base = 10;
  size_t start = 0;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    start = 2;
  }
  uint64_t value = 0;
  for (size_t i = start; i < text.size(); ++i) {
    char c = text[i];
    int digit = (c >= '0' && c <= '9')                 ? c - '0'
                : (base == 16 && c >= 'a' && c <= 'f') ? c - 'a' + 10
                : (base == 16 && c >= 'A' && c <= 'F') ? c - 'A' + 10
                                                       : -1;
    if (digit < 0) return false;
    value = value * static_cast<uint64_t>(base) + static_cast<uint64_t>(digit);
    if (value > max) return false;
  }
  *out = value;
  return true;
}

std::vector<std::string> SplitList(const std::string &text) {
  std::vector<std::string> items;
  size_t at = 0;
  while (at <= text.size()) {
    size_t comma = text.find(',', at);
    if (comma == std::string::npos) comma = text.size();
    if (comma > at) items.push_back(text.substr(at, comma - at));
    at = comma + 1;
  }
  return items;
}

// "a=1,b=2,flag" into keys; a word without '=' maps to "".
Keys SplitKeys(const std::string &text) {
  Keys keys;
  for (const std::string &item : SplitList(text)) {
    size_t equals = item.find('=');
    if (equals == std::string::npos)
      keys[item] = "";
    else
      keys[item.substr(0, equals)] = item.substr(equals + 1);
  }
  return keys;
}

class Reader {
 public:
  explicit Reader(std::string *error) : error_(error) {}

  bool Fail(const std::string &message) {
    if (error_) *error_ = message;
    return false;
  }
  // Takes key `name` from keys as a number up to max, if present.
  bool Number(Keys &keys, const std::string &name, uint64_t max, uint64_t *out, const std::string &option) {
    auto found = keys.find(name);
    if (found == keys.end()) return true;
    bool ok = ParseNumber(found->second, max, out);
    keys.erase(found);
    return ok || Fail(option + ": " + name + " needs a number up to " + std::to_string(max));
  }
  bool NoneLeft(const Keys &keys, const std::string &option) {
    if (keys.empty()) return true;
    return Fail(option + ": unknown key '" + keys.begin()->first + "'");
  }

 private:
  std::string *error_;
};

// The numbers of a fault kind on the command line, named for what they mean, with defaults
// that give a visible fault.
struct FaultKeys {
  const char *value_key = nullptr;
  uint32_t value = 0;
  const char *extra_key = nullptr;
  uint32_t extra = 0;
};

FaultKeys KeysOf(FaultKind kind) {
  switch (kind) {
    case FaultKind::kDelay:
      return {"ms", 100};
    case FaultKind::kCommError:
      return {"code", 0x82};
    case FaultKind::kTruncate:
      return {"keep", 5};
    case FaultKind::kNoiseBefore:
      return {"bytes", 3};
    case FaultKind::kNoiseInside:
      return {"offset", 4, "bytes", 2};
    case FaultKind::kSplitGap:
      return {"offset", 4, "ms", 50};
    default:
      return {};
  }
}

struct PendingBurst {
  uint64_t device = 0;
  BurstConfig burst;
};

}  // namespace

std::string UsageText() {
  return "usage: velmora-sim [options]\n"
         "Simulated HART field devices on a pseudo-terminal. Prints \"velmora-sim: PATH\" as its first\n"
         "line, then serves the line until SIGINT or SIGTERM.\n"
         "\n"
         "  --devices N              devices on the line, polling addresses 0..N-1 (default 1)\n"
         "  --addresses A,B,...      polling addresses (0-63), one device each\n"
         "  --baud B                 1200 (default), 9600 or 19200\n"
         "  --turnaround MS          from the request's last byte to the reply (default 20)\n"
         "  --preambles N            preambles before each reply (default 5)\n"
         "  --echo                   send the master's bytes back, as a half-duplex modem does\n"
         "  --short-all              answer every command in a short frame, not only command 0\n"
         "  --write-protect          refuse write commands with response code 7\n"
         "  --burst KEYS             burst mode: command=C,period=MS,device=I,\n"
         "                           target=primary|secondary|alternate,gap=MS,short\n"
         "  --fault KIND[:KEYS]      delay:ms=N | busy | comm-error:code=N | no-reply |\n"
         "                           truncate:keep=N | bad-checksum | noise-before:bytes=N |\n"
         "                           noise-inside:offset=N,bytes=M | split:offset=N,ms=M\n"
         "                           with device=I, command=C, times=N (default: always)\n"
         "  --second-master KEYS     another master polls a device: period=MS,command=C,device=I,\n"
         "                           role=primary|secondary,mode=polite|cue,gap=MS,quiet=MS\n"
         "  --seed N                 seed of the noise bytes\n"
         "  --transcript[=FILE]      write what is heard and sent (standard error by default)\n"
         "  --help                   this text\n";
}

bool ParseOptions(const std::vector<std::string> &args, SimOptions *options, std::string *error) {
  Reader reader(error);
  SimOptions result;
  uint64_t device_count = 1;
  std::vector<uint8_t> addresses;
  bool short_all = false;
  bool write_protect = false;
  uint64_t preambles = 5;
  std::vector<PendingBurst> bursts;
  uint64_t peer_device = 0;
  uint64_t peer_command = 1;

  for (size_t i = 0; i < args.size(); ++i) {
    std::string name = args[i];
    std::string value;
    bool has_value = false;
    size_t equals = name.find('=');
    if (name.rfind("--", 0) == 0 && equals != std::string::npos) {
      value = name.substr(equals + 1);
      name = name.substr(0, equals);
      has_value = true;
    }
    auto take_value = [&]() -> bool {
      if (has_value) return true;
      if (i + 1 >= args.size()) return reader.Fail(name + " needs a value");
      value = args[++i];
      return true;
    };
    auto number = [&](uint64_t min, uint64_t max, uint64_t *out) -> bool {
      if (!take_value()) return false;
      if (!ParseNumber(value, max, out) || *out < min)
        return reader.Fail(name + " needs a number from " + std::to_string(min) + " to " + std::to_string(max));
      return true;
    };

    if (name == "--help" || name == "-h") {
      result.help = true;
    } else if (name == "--devices") {
      if (!number(1, 64, &device_count)) return false;
      addresses.clear();
    } else if (name == "--addresses") {
      if (!take_value()) return false;
      addresses.clear();
      std::set<uint8_t> seen;
      for (const std::string &item : SplitList(value)) {
        uint64_t address = 0;
        if (!ParseNumber(item, 63, &address)) return reader.Fail("--addresses: '" + item + "' is not 0-63");
        if (!seen.insert(static_cast<uint8_t>(address)).second) return reader.Fail("--addresses: repeated " + item);
        addresses.push_back(static_cast<uint8_t>(address));
      }
      if (addresses.empty()) return reader.Fail("--addresses needs at least one address");
      device_count = addresses.size();
    } else if (name == "--baud") {
      uint64_t baud = 0;
      if (!number(1200, 19200, &baud)) return false;
      if (baud != 1200 && baud != 9600 && baud != 19200) return reader.Fail("--baud: 1200, 9600 or 19200");
      result.line.baud = static_cast<uint32_t>(baud);
    } else if (name == "--turnaround") {
      uint64_t ms = 0;
      if (!number(0, 10000, &ms)) return false;
      result.line.turnaround_us = ms * 1000;
    } else if (name == "--preambles") {
      if (!number(2, 30, &preambles)) return false;
    } else if (name == "--echo") {
      result.line.echo = true;
    } else if (name == "--short-all") {
      short_all = true;
    } else if (name == "--write-protect") {
      write_protect = true;
    } else if (name == "--seed") {
      uint64_t seed = 0;
      if (!number(0, 0xFFFFFFFFu, &seed)) return false;
      result.line.seed = static_cast<uint32_t>(seed);
    } else if (name == "--transcript") {
      result.transcript = true;
      result.transcript_path = has_value ? value : "";
    } else if (name == "--burst") {
      if (!take_value()) return false;
      Keys keys = SplitKeys(value);
      PendingBurst pending;
      pending.burst.enabled = true;
      uint64_t command = pending.burst.command, period = pending.burst.period_ms, gap = pending.burst.min_gap_ms;
      if (!reader.Number(keys, "command", 255, &command, name) ||
          !reader.Number(keys, "period", 3600000, &period, name) || !reader.Number(keys, "gap", 60000, &gap, name) ||
          !reader.Number(keys, "device", 63, &pending.device, name))
        return false;
      if (period == 0) return reader.Fail("--burst: period must be above 0");
      if (auto target = keys.find("target"); target != keys.end()) {
        if (target->second == "primary")
          pending.burst.target = BurstTarget::kPrimary;
        else if (target->second == "secondary")
          pending.burst.target = BurstTarget::kSecondary;
        else if (target->second == "alternate")
          pending.burst.target = BurstTarget::kAlternate;
        else
          return reader.Fail("--burst: target is primary, secondary or alternate");
        keys.erase(target);
      }
      if (keys.erase("short")) pending.burst.long_frame = false;
      if (!reader.NoneLeft(keys, name)) return false;
      pending.burst.command = static_cast<uint8_t>(command);
      pending.burst.period_ms = static_cast<uint32_t>(period);
      pending.burst.min_gap_ms = static_cast<uint32_t>(gap);
      bursts.push_back(pending);
    } else if (name == "--fault") {
      if (!take_value()) return false;
      size_t colon = value.find(':');
      std::string kind_name = value.substr(0, colon);
      Keys keys = SplitKeys(colon == std::string::npos ? "" : value.substr(colon + 1));
      SimOptions::DeviceFault entry;
      if (!ParseFaultKind(kind_name, &entry.fault.kind))
        return reader.Fail("--fault: unknown kind '" + kind_name + "'");
      Fault &fault = entry.fault;
      FaultKeys named = KeysOf(fault.kind);
      uint64_t value_number = named.value, extra_number = named.extra;
      uint64_t device = 0, command = 0, times = 0;
      bool has_device = keys.count("device") > 0, has_command = keys.count("command") > 0;
      if ((named.value_key && !reader.Number(keys, named.value_key, 100000, &value_number, name)) ||
          (named.extra_key && !reader.Number(keys, named.extra_key, 100000, &extra_number, name)) ||
          !reader.Number(keys, "device", 63, &device, name) || !reader.Number(keys, "command", 255, &command, name) ||
          !reader.Number(keys, "times", 1000000, &times, name) || !reader.NoneLeft(keys, name))
        return false;
      fault.value = static_cast<uint32_t>(value_number);
      fault.extra = static_cast<uint32_t>(extra_number);
      fault.command = has_command ? static_cast<int>(command) : -1;
      fault.times = static_cast<uint32_t>(times);
      entry.device = has_device ? static_cast<int>(device) : -1;
      result.faults.push_back(entry);
    } else if (name == "--second-master") {
      if (!take_value()) return false;
      Keys keys = SplitKeys(value);
      result.second_master = true;
      SecondMasterConfig &peer = result.peer;
      uint64_t period = 1000, gap = peer.turn_gap_ms, quiet = peer.quiet_ms;
      if (!reader.Number(keys, "period", 3600000, &period, name) ||
          !reader.Number(keys, "command", 255, &peer_command, name) ||
          !reader.Number(keys, "device", 63, &peer_device, name) || !reader.Number(keys, "gap", 60000, &gap, name) ||
          !reader.Number(keys, "quiet", 60000, &quiet, name))
        return false;
      if (period == 0) return reader.Fail("--second-master: period must be above 0");
      if (auto role = keys.find("role"); role != keys.end()) {
        if (role->second == "primary")
          peer.role = Master::kPrimary;
        else if (role->second == "secondary")
          peer.role = Master::kSecondary;
        else
          return reader.Fail("--second-master: role is primary or secondary");
        keys.erase(role);
      }
      if (auto mode = keys.find("mode"); mode != keys.end()) {
        if (mode->second == "polite")
          peer.mode = PeerMode::kPolite;
        else if (mode->second == "cue")
          peer.mode = PeerMode::kOnCue;
        else
          return reader.Fail("--second-master: mode is polite or cue");
        keys.erase(mode);
      }
      if (!reader.NoneLeft(keys, name)) return false;
      peer.period_ms = static_cast<uint32_t>(period);
      peer.turn_gap_ms = static_cast<uint32_t>(gap);
      peer.quiet_ms = static_cast<uint32_t>(quiet);
    } else {
      return reader.Fail("unknown option '" + args[i] + "'");
    }
  }

  for (size_t i = 0; i < device_count; ++i) {
    DeviceConfig device = DefaultDevice(i);
    if (!addresses.empty()) device.polling_address = addresses[i];
    device.loop_current_enabled = device.polling_address == 0;
    device.short_frame_all_commands = short_all;
    device.write_protected = write_protect;
    device.response_preambles = static_cast<uint8_t>(preambles);
    result.devices.push_back(device);
  }
  for (const PendingBurst &pending : bursts) {
    if (pending.device >= device_count) return reader.Fail("--burst: no device " + std::to_string(pending.device));
    result.devices[pending.device].burst = pending.burst;
  }
  for (const SimOptions::DeviceFault &entry : result.faults)
    if (entry.device >= static_cast<int>(device_count))
      return reader.Fail("--fault: no device " + std::to_string(entry.device));
  if (result.second_master) {
    if (peer_device >= device_count) return reader.Fail("--second-master: no device " + std::to_string(peer_device));
    Device probe(result.devices[peer_device]);
    result.peer.periodic.long_frame = true;
    result.peer.periodic.long_address = probe.LongAddress();
    result.peer.periodic.command = static_cast<uint8_t>(peer_command);
    if (peer_command == 9) result.peer.periodic.data = {0, 1, 2, 3};
  }
  *options = std::move(result);
  return true;
}

void ApplyOptions(const SimOptions &options, SimLine &line) {
  for (const DeviceConfig &config : options.devices) line.AddDevice(config);
  for (const SimOptions::DeviceFault &entry : options.faults) {
    for (size_t i = 0; i < line.DeviceCount(); ++i)
      if (entry.device < 0 || static_cast<size_t>(entry.device) == i) line.DeviceAt(i).AddFault(entry.fault);
  }
  if (options.second_master) line.Peer().Configure(options.peer);
}

}  // namespace velmora::sim
