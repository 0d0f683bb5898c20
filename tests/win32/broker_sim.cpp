// The Windows side of the simulator broker: a request file written whole (a rename), then a wait
// for the broker's answer file.
#include "tests/win32/broker_sim.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace velmora::test {
namespace {

std::string Folder() {
  const char *folder = std::getenv("VELMORA_SIM_BROKER");
  return folder ? std::string(folder) + "\\" : std::string();
}

bool ReadWhole(const std::string &path, std::string *text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream all;
  all << in.rdbuf();
  *text = all.str();
  return true;
}

}  // namespace

BrokerSim::BrokerSim(const std::vector<std::string> &args) {
  static int counter = 0;
  id_ = "sim" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++counter);
  std::string body;
  for (const std::string &arg : args) body += arg + "\n";
  std::string reply;
  if (!Ask("start", body, "ready", &reply)) return;
  if (reply.rfind("COM", 0) != 0) {
    error_ = reply;
    return;
  }
  port_ = static_cast<unsigned int>(std::atoi(reply.c_str() + 3));
}

BrokerSim::~BrokerSim() {
  if (!id_.empty() && !Folder().empty()) Ask("stop", "", "stopped", nullptr);
}

bool BrokerSim::Kill() { return Ask("kill", "", "killed", nullptr); }

bool BrokerSim::Restart(const std::vector<std::string> &args) {
  std::string body;
  for (const std::string &arg : args) body += arg + "\n";
  std::string reply;
  return Ask("restart", body, "ready", &reply) && reply.rfind("COM", 0) == 0;
}

bool BrokerSim::Ask(const std::string &verb, const std::string &body, const std::string &answer,
                    std::string *reply) {
  const std::string folder = Folder();
  if (folder.empty()) {
    error_ = "VELMORA_SIM_BROKER is not set: run the program through scripts/wine-test.sh";
    return false;
  }
  const std::string request = folder + id_ + "." + verb, answer_path = folder + id_ + "." + answer;
  DeleteFileA(answer_path.c_str());
  {
    std::ofstream out(request + ".tmp", std::ios::binary | std::ios::trunc);
    out << body;
  }
  if (!MoveFileExA((request + ".tmp").c_str(), request.c_str(), MOVEFILE_REPLACE_EXISTING)) {
    error_ = "cannot write " + request;
    return false;
  }
  for (int waited = 0; waited < 10000; waited += 10) {
    std::string text;
    if (ReadWhole(answer_path, &text) && !text.empty() && text.back() == '\n') {
      DeleteFileA(answer_path.c_str());
      text.pop_back();
      if (reply) *reply = text;
      return true;
    }
    Sleep(10);
  }
  error_ = "the broker did not answer " + verb + " within 10 s";
  return false;
}

}  // namespace velmora::test
