// Starting and stopping velmora-sim.
#include "tests/support/sim_process.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace velmora::test {

std::string SimProcess::Binary() {
  std::error_code error;
  return (std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / "../sim/velmora-sim").string();
}

SimProcess::SimProcess(const std::vector<std::string> &args) {
  const std::string binary = Binary();
  int out[2];
  if (pipe(out) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    close(out[1]);
    std::vector<char *> argv{const_cast<char *>(binary.c_str())};
    for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    execv(binary.c_str(), argv.data());
    _exit(127);
  }
  close(out[1]);
  // The first line, "velmora-sim: PATH", says that the line is served.
  std::string line;
  pollfd waiter{out[0], POLLIN, 0};
  char chunk[256];
  ssize_t got = 0;
  while (line.find('\n') == std::string::npos && poll(&waiter, 1, 5000) > 0 &&
         (got = read(out[0], chunk, sizeof chunk)) > 0)
    line.append(chunk, static_cast<size_t>(got));
  close(out[0]);
  const std::string prefix = "velmora-sim: ";
  const size_t end = line.find('\n');
  if (line.rfind(prefix, 0) == 0 && end != std::string::npos) path_ = line.substr(prefix.size(), end - prefix.size());
}

SimProcess::~SimProcess() { Stop(); }

void SimProcess::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

}  // namespace velmora::test
