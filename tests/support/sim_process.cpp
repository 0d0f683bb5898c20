// Starting and stopping velmora-sim.
#include "tests/support/sim_process.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>

namespace velmora::test {

std::string SimProcess::Binary() {
  char self[PATH_MAX] = {};
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string dir = length > 0 ? std::string(self, static_cast<size_t>(length)) : std::string();
  dir = dir.substr(0, dir.find_last_of('/'));
  return dir + "/../sim/velmora-sim";
}

SimProcess::SimProcess(const std::vector<std::string> &args) {
  const std::string binary = Binary();
  if (access(binary.c_str(), X_OK) != 0) return;
  int out[2];
  if (pipe(out) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    close(out[1]);
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>(binary.c_str()));
    for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    execv(binary.c_str(), argv.data());
    _exit(127);
  }
  close(out[1]);
  // The first line, "velmora-sim: PATH", says that the line is served.
  std::string line;
  pollfd waiter{out[0], POLLIN, 0};
  while (line.find('\n') == std::string::npos && poll(&waiter, 1, 5000) > 0) {
    char chunk[256];
    const ssize_t got = read(out[0], chunk, sizeof chunk);
    if (got <= 0) break;
    line.append(chunk, static_cast<size_t>(got));
  }
  close(out[0]);
  const size_t end = line.find('\n');
  const size_t space = line.rfind(' ', end);
  if (end != std::string::npos && space != std::string::npos) path_ = line.substr(space + 1, end - space - 1);
}

SimProcess::~SimProcess() { Stop(); }

void SimProcess::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
}

}  // namespace velmora::test
