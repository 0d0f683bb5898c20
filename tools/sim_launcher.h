// velmora-sim started for --sim: the simulated devices on a pseudo-terminal, stopped with the
// tool. The binary is $VELMORA_SIM, else beside this program (installed or in the build tree),
// else on the PATH.
#ifndef VELMORA_TOOLS_SIM_LAUNCHER_H
#define VELMORA_TOOLS_SIM_LAUNCHER_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace velmora::tool {

class SimLauncher {
 public:
  SimLauncher() = default;
  SimLauncher(const SimLauncher &) = delete;
  SimLauncher &operator=(const SimLauncher &) = delete;
  ~SimLauncher();
  // Starts it with the arguments and waits until it serves its line; false with a reason.
  bool Start(const std::vector<std::string> &args, std::string &error);
  const std::string &Path() const { return path_; }

 private:
  pid_t pid_ = -1;
  std::string path_;
};

}  // namespace velmora::tool

#endif
