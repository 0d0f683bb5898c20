// Starting and stopping velmora-sim for --sim.
#include "sim_launcher.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace velmora::tool {
namespace {

bool Executable(const std::string &path) { return !path.empty() && access(path.c_str(), X_OK) == 0; }

std::string FindSimulator() {
  if (const char *env = std::getenv("VELMORA_SIM"); env && *env) return env;
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = '\0';
    std::string dir(self);
    dir.erase(dir.rfind('/'));
    for (const char *relative : {"/velmora-sim", "/../sim/velmora-sim"})
      if (Executable(dir + relative)) return dir + relative;
  }
  return "velmora-sim";  // the PATH's
}

}  // namespace

bool SimLauncher::Start(const std::vector<std::string> &args, std::string &error) {
  const std::string binary = FindSimulator();
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) {
    error = std::string("cannot start velmora-sim: ") + std::strerror(errno);
    return false;
  }
  std::vector<char *> argv;
  argv.push_back(const_cast<char *>(binary.c_str()));
  for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
  argv.push_back(nullptr);
  // Its standard error is kept aside and shown only if it fails to start.
  std::FILE *log = std::tmpfile();
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out[1], STDOUT_FILENO);
    if (log) dup2(fileno(log), STDERR_FILENO);
    execvp(argv[0], argv.data());
    std::fprintf(stderr, "velmora: cannot run %s: %s\n", argv[0], std::strerror(errno));
    _exit(127);
  }
  close(out[1]);
  if (pid_ < 0) {
    close(out[0]);
    error = std::string("cannot start velmora-sim: ") + std::strerror(errno);
    return false;
  }
  // Its first line, "velmora-sim: PATH", says it serves the line.
  std::string line;
  pollfd fd{out[0], POLLIN, 0};
  char ch;
  while (line.find('\n') == std::string::npos && poll(&fd, 1, 5000) == 1 && read(out[0], &ch, 1) == 1) line += ch;
  close(out[0]);
  const size_t space = line.rfind(' ');
  if (line.find('\n') == std::string::npos || space == std::string::npos) {
    std::string said;
    if (log) {
      std::rewind(log);
      char chunk[256];
      while (std::fgets(chunk, sizeof chunk, log)) said += chunk;
      if (const size_t usage = said.find("\nusage:"); usage != std::string::npos) said.erase(usage);
      std::fclose(log);
    }
    error = "velmora-sim (" + binary + ") did not start" + (said.empty() ? "; set VELMORA_SIM to its path" : ":\n" + said);
    while (!error.empty() && error.back() == '\n') error.pop_back();
    return false;
  }
  if (log) std::fclose(log);
  path_ = line.substr(space + 1, line.find('\n') - space - 1);
  return true;
}

SimLauncher::~SimLauncher() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace velmora::tool
