// velmora, the program, against velmora-sim: what a user at the command line sees, what a script
// reads from --json, what tshark reads from a capture, and the exit codes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/sim_process.h"

namespace {

struct Result {
  int exit_code = -1;
  std::string out, err;
};

std::string Slurp(const std::string &path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string TempPath(const char *name) {
  return ::testing::TempDir() + "velmora_cli_" + std::to_string(getpid()) + "_" + name;
}

// Runs a shell command line; standard output and error are kept apart.
Result Shell(const std::string &command) {
  const std::string out = TempPath("out"), err = TempPath("err");
  const int status = std::system((command + " >" + out + " 2>" + err + " </dev/null").c_str());
  Result r;
  r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.out = Slurp(out);
  r.err = Slurp(err);
  std::remove(out.c_str());
  std::remove(err.c_str());
  return r;
}

Result Velmora(const std::string &args) { return Shell(std::string(VELMORA_CLI) + " " + args); }

std::vector<nlohmann::json> JsonLines(const std::string &text) {
  std::vector<nlohmann::json> objects;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (!line.empty()) objects.push_back(nlohmann::json::parse(line));
  return objects;
}

TEST(CliTest, ScanFindsExactlyTheSimulatedDevicesWithTheirTags) {
  const Result r = Velmora("scan --sim --addresses 0,3,7 --retries 0 --json");
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const std::vector<nlohmann::json> devices = JsonLines(r.out);
  ASSERT_EQ(devices.size(), 3u) << r.out;
  const unsigned int addresses[] = {0, 3, 7};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(devices[i]["polling_address"], addresses[i]);
    EXPECT_EQ(devices[i]["tag"], "SIM" + std::to_string(i));
    EXPECT_EQ(devices[i]["device_id"], "5A000" + std::to_string(i + 1));
  }
  // Not a terminal: the progress comes as plain lines, one per device found.
  EXPECT_NE(r.err.find("address 7: device 201A5A0003"), std::string::npos) << r.err;
}

TEST(CliTest, ReadShowsTheSimulatorsValues) {
  const Result r = Velmora("read --sim --devices 2 --address 1");
  ASSERT_EQ(r.exit_code, 0) << r.err;
  for (const char *expected : {"long address 201A5A0002", "Tag            SIM1", "Descriptor     SIMULATOR",
                               "Date           2025-01-01", "Loop current   4.000 mA", " kPA", " \xC2\xB0" "C", "QV"})
    EXPECT_NE(r.out.find(expected), std::string::npos) << expected << " not in\n" << r.out;
}

TEST(CliTest, SendWritesWithDataSyntaxAndTheDumpShowsIt) {
  velmora::test::SimProcess sim({});
  ASSERT_FALSE(sim.Path().empty());
  // Command 18 writes tag, descriptor and date; its reply echoes them, and command 13 reads them back.
  Result r = Velmora("send " + sim.Path() + " --command 18 --data 'pca6,tt-101,pca12,loop one,24,12,125' --json");
  ASSERT_EQ(r.exit_code, 0) << r.err;
  nlohmann::json reply = nlohmann::json::parse(r.out);
  ASSERT_EQ(reply["frames"].size(), 2u) << r.out;
  const nlohmann::json &request = reply["frames"][0];
  EXPECT_EQ(request["command"], 18);
  EXPECT_EQ(request["byte_count"], 21);
  EXPECT_EQ(request["decoded"].get<std::string>().rfind("TT-101", 0), 0u) << request;
  EXPECT_EQ(reply["frames"][1]["data"], request["data"]);
  EXPECT_EQ(reply["response_code"], 0);
  EXPECT_EQ(reply["status_bits"], nlohmann::json::array({"configuration changed"}));

  r = Velmora("read " + sim.Path() + " --tag TT-101 --json");
  ASSERT_EQ(r.exit_code, 0) << r.err;
  reply = nlohmann::json::parse(r.out);
  EXPECT_EQ(reply["tag"], "TT-101");
  EXPECT_EQ(reply["date"], "2025-12-24");

  // The human form spells the outcome out; an error code gives exit 1.
  r = Velmora("send " + sim.Path() + " --command 6 --data 64");
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("Response code  2: invalid selection"), std::string::npos) << r.out;
}

TEST(CliTest, CaptureDecodesInTsharkAsHartIpInOrder) {
  if (Shell("command -v tshark").exit_code != 0) GTEST_SKIP() << "tshark is not installed (scripts/setup.sh)";
  const std::string pcap = TempPath("read.pcap");
  Result r = Velmora("read --sim --pcap " + pcap);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = Shell("tshark -r " + pcap +
            " -T fields -E separator=, -e ip.src -e hart_ip.message_id -e hart_ip.message_type -e hart_ip.pt.command "
            "-e hart_ip.pt.short_addr -e hart_ip.pt.long_address -e hart_ip.pt.length -e hart_ip.transaction_id");
  std::remove(pcap.c_str());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  // Request and reply for each of commands 0 (short frame), 13, 3, 1 and 2 (long frames); a
  // reply carries its request's sequence number.
  const std::string expected =
      "192.0.2.1,3,0,0,0,,0,1\n192.0.2.100,3,1,0,0,,24,1\n"
      "192.0.2.1,3,0,13,,a01a5a0001,0,2\n192.0.2.100,3,1,13,,a01a5a0001,23,2\n"
      "192.0.2.1,3,0,3,,a01a5a0001,0,3\n192.0.2.100,3,1,3,,a01a5a0001,26,3\n"
      "192.0.2.1,3,0,1,,a01a5a0001,0,4\n192.0.2.100,3,1,1,,a01a5a0001,7,4\n"
      "192.0.2.1,3,0,2,,a01a5a0001,0,5\n192.0.2.100,3,1,2,,a01a5a0001,10,5\n";
  EXPECT_EQ(r.out, expected);
}

TEST(CliTest, MonitorListsAnotherMastersExchanges) {
  const Result r = Velmora("monitor --sim --second-master period=300,command=3 --duration 2 --json");
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const std::vector<nlohmann::json> frames = JsonLines(r.out);
  ASSERT_GE(frames.size(), 4u) << r.out;
  size_t requests = 0, replies = 0;
  for (const nlohmann::json &frame : frames) {
    if (!frame.contains("command")) continue;
    EXPECT_EQ(frame["command"], 3);
    EXPECT_EQ(frame["checksum_ok"], true);
    requests += frame["from"] == "secondary";
    replies += frame["from"] == "device";
  }
  EXPECT_GE(requests, 2u);
  EXPECT_GE(replies, 2u);
}

TEST(CliTest, BadArgumentsAndPortsSayWhatIsWrong) {
  velmora::test::SimProcess sim({});
  ASSERT_FALSE(sim.Path().empty());
  struct Row {
    std::string args;
    int exit_code;
    const char *message;
  };
  const Row rows[] = {
      {"", 2, "subcommand is required"},
      {"read", 2, "which port?"},
      {"read --sim " + sim.Path(), 2, "either PORT or --sim"},
      {"read " + sim.Path() + " --devices 3", 2, "--devices is for the simulator"},
      {"read --sim --baud 4800", 2, "baud 4800 is not supported"},
      {"send --sim", 2, "--command is required"},
      {"send --sim --command 1 --data 'dec8'", 2, "needs a value"},
      {"read --sim --address 1 --tag X", 2, "excludes"},
      {"read /dev/velmora-no-such-port", 2, "port missing"},
      {"read /dev/null", 2, "not a serial port"},
      {"read 40", 2, "port numbers are 1 to 32"},
      {"read --sim --address 5 --retries 0", 1, "no answer from the device"},
      {"read --sim --long 0102030405 --retries 0", 1, "no answer from the device"},
      {"read --sim --fault bogus", 2, "unknown kind 'bogus'"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.args);
    const Result r = Velmora(row.args);
    EXPECT_EQ(r.exit_code, row.exit_code) << r.err;
    EXPECT_NE(r.err.find(row.message), std::string::npos) << r.err;
  }
}

TEST(CliTest, PortHeldByAnotherMasterIsBusy) {
  velmora::test::SimProcess sim({});
  ASSERT_FALSE(sim.Path().empty());
  const std::string pid_file = TempPath("monitor.pid"), said = TempPath("monitor.err");
  Shell(std::string(VELMORA_CLI) + " monitor " + sim.Path() + " --duration 60 >/dev/null 2>" + said +
        " & echo $! >" + pid_file);
  // The monitor says so once it holds the port.
  for (int i = 0; i < 100 && Slurp(said).find("listening on") == std::string::npos; ++i) usleep(50000);
  const Result r = Velmora("read " + sim.Path() + " --retries 0");
  Shell("kill $(cat " + pid_file + ")");
  std::remove(pid_file.c_str());
  std::remove(said.c_str());
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("port busy"), std::string::npos) << r.err;
}

}  // namespace
