// velmora-sim as a child process on a pseudo-terminal: started with a readiness handshake (the
// path it prints once it serves the line), stopped with SIGTERM.
#ifndef VELMORA_TESTS_SUPPORT_SIM_PROCESS_H
#define VELMORA_TESTS_SUPPORT_SIM_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace velmora::test {

class SimProcess {
 public:
  // Starts velmora-sim with the arguments; Path() is empty if it could not be started.
  explicit SimProcess(const std::vector<std::string> &args);
  ~SimProcess();
  const std::string &Path() const { return path_; }
  // Stops the simulator now; its pseudo-terminal goes with it.
  void Stop();
  // Where the binary is expected, beside the test programs' folder.
  static std::string Binary();

 private:
  pid_t pid_ = -1;
  std::string path_;
};

}  // namespace velmora::test

#endif
