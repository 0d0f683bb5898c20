// velmora: find the HART devices on a loop, read them, send one command, watch the line.
// Arguments are parsed with CLI11; each subcommand is in its own cmd_*.cpp.
#include <CLI/CLI.hpp>

#include <cstdio>

#include "commands.h"
#include "terminal.h"

using namespace velmora::tool;

namespace {

struct Choices {
  CommonOptions common;
  AddressOptions address;
  ReadOptions read;
  std::optional<unsigned int> retries;
  std::optional<unsigned int> polling_address;
  bool all_addresses = false;
  unsigned int command = 0;
  std::string data;
  bool raw = false;
  double duration_s = 0;
  bool details = false;
};

const CLI::Validator kBaud(
    [](std::string &text) -> std::string {
      if (text == "1200" || text == "9600" || text == "19200") return {};
      return "baud " + text + " is not supported: use 1200 (a HART modem), 9600 or 19200";
    },
    "1200|9600|19200");

void AddCommon(CLI::App *sub, Choices &c, bool with_address) {
  sub->add_option("PORT", c.common.port, "serial device (/dev/ttyUSB0, /dev/pts/3) or port number 1-32");
  sub->add_option("--baud", c.common.link.baud, "line speed (default 1200)")->check(kBaud);
  sub->add_option("--retries", c.retries, "tries after the first, 0-10 (default 2; scan 1)")->check(CLI::Range(0, 10));
  sub->add_option("--preambles", c.common.link.preambles, "preambles before each request, 5-20 (default 5)")
      ->check(CLI::Range(5, 20));
  sub->add_flag("--secondary", c.common.link.secondary, "act as the secondary master (default primary)");
  sub->add_option("--timeout", c.common.link.timeout_s, "longest wait for one request's outcome, seconds (default 10)")
      ->check(CLI::PositiveNumber);
  sub->add_flag("--json", c.common.json, "machine-readable output: one JSON object per line");
  sub->add_option("--pcap", c.common.pcap, "also write the line's frames to FILE as HART-IP, for Wireshark and tshark");
  if (with_address) {
    auto *poll = sub->add_option("--address", c.polling_address, "the device's polling address, 0-63 (default 0)")
                     ->check(CLI::Range(0, 63));
    auto *tag = sub->add_option("--tag", c.address.tag, "find the device by its tag (command 11)")
                    ->check(CLI::Validator(
                        [](std::string &text) -> std::string {
                          return text.size() <= 8 ? std::string() : "a tag has at most 8 characters";
                        },
                        "TAG"));
    auto *ln = sub->add_option("--long", c.address.long_address, "the device's long address, 5 bytes in hex");
    poll->excludes(tag)->excludes(ln);
    tag->excludes(ln);
  }
  const char *group = "Simulator (with --sim)";
  sub->add_flag("--sim", c.common.sim, "start velmora-sim on a pseudo-terminal and use it instead of PORT")->group(group);
  auto &args = c.common.sim_args;
  for (const char *name : {"--devices", "--addresses", "--turnaround", "--burst", "--fault", "--second-master", "--seed"}) {
    const std::string option = name;
    sub->add_option_function<std::string>(
           option, [&args, option](const std::string &value) { args.insert(args.end(), {option, value}); },
           "velmora-sim " + option + " (see velmora-sim --help)")
        ->group(group);
  }
  sub->add_option_function<std::string>(
         "--transcript", [&args](const std::string &file) { args.push_back("--transcript=" + file); },
         "velmora-sim writes what it hears and sends to FILE")
      ->group(group);
  for (const char *name : {"--echo", "--short-all", "--write-protect"}) {
    const std::string option = name;
    sub->add_flag_callback(option, [&args, option] { args.push_back(option); }, "velmora-sim " + option)->group(group);
  }
}

// What the parser cannot see: PORT or --sim, one of them.
std::string CheckPort(const Choices &c) {
  if (c.common.sim && !c.common.port.empty()) return "give either PORT or --sim, not both";
  if (!c.common.sim && c.common.port.empty())
    return "which port? Give a device path such as /dev/ttyUSB0 or a port number, or --sim to use a simulated device";
  if (!c.common.sim && !c.common.sim_args.empty()) return c.common.sim_args.front() + " is for the simulator: add --sim";
  return {};
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"velmora: find, read and talk to HART field devices through a HART modem, and watch the line.",
               "velmora"};
  app.require_subcommand(1);
  Choices c;

  CLI::App *scan = app.add_subcommand("scan", "find the devices on the loop: polling addresses 0-15 (or 0-63)");
  AddCommon(scan, c, false);
  scan->add_flag("--all", c.all_addresses, "poll addresses 0-63");

  CLI::App *read = app.add_subcommand("read", "identity, tag, descriptor, date and the dynamic variables of a device");
  AddCommon(read, c, true);
  read->add_option("--watch", c.read.watch_s, "read the variables again every SECONDS")->check(CLI::PositiveNumber);
  read->add_option("--count", c.read.count, "with --watch: stop after this many readings");

  CLI::App *send = app.add_subcommand("send", "send one command and show the frames and the reply");
  AddCommon(send, c, true);
  send->add_option("--command", c.command, "the command number, 0-255")->required()->check(CLI::Range(0, 255));
  send->add_option("--data", c.data, "request data in the data syntax, such as \"DEC8,4\" or \"PCA6,TT-101\"");
  send->add_flag("--raw", c.raw, "print the frames as hex only");

  CLI::App *monitor = app.add_subcommand("monitor", "list every frame on the line as it goes by");
  AddCommon(monitor, c, false);
  monitor->add_option("--duration", c.duration_s, "stop after SECONDS (default: at Ctrl-C)")->check(CLI::PositiveNumber);

  CLI::App *history = app.add_subcommand("history", "read a device and print the history text of each exchange");
  AddCommon(history, c, true);
  history->add_flag("--decoded", c.read.decoded, "frames field by field");
  history->add_flag("--details", c.details, "with receive details, state trace and service details");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::fprintf(stderr, "velmora: %s\nRun 'velmora %s--help' for the options.\n", e.what(),
                 app.get_subcommands().empty() ? "" : (app.get_subcommands().front()->get_name() + " ").c_str());
    return kExitUsage;
  }
  if (const std::string problem = CheckPort(c); !problem.empty()) {
    PrintError(problem);
    return kExitUsage;
  }
  c.common.link.retries = c.retries.value_or(scan->parsed() ? 1 : 2);
  c.address.polling_address = c.polling_address;
  InstallStopSignals();
  if (scan->parsed()) return RunScan(c.common, c.all_addresses);
  if (read->parsed()) return RunRead(c.common, c.address, c.read);
  if (send->parsed()) return RunSend(c.common, c.address, c.command, c.data, c.raw);
  if (monitor->parsed()) return RunMonitor(c.common, c.duration_s);
  c.read.history = true;
  c.common.link.history = true;
  c.read.details = c.details ? 2u | 4u | 8u : 0u;
  return RunRead(c.common, c.address, c.read);
}
