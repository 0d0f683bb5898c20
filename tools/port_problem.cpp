// Diagnoses of a port that would not open: missing, not permitted (with the group to join),
// busy, or not a serial line.
#include "port_problem.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace velmora::tool {

std::string DiagnosePort(const std::string &device) {
  struct stat info {};
  if (stat(device.c_str(), &info) != 0) {
    if (errno == ENOENT)
      return "port missing: " + device +
             " does not exist. Is the modem plugged in? Its name is usually /dev/ttyUSB0 or /dev/ttyACM0 "
             "(ls /dev/ttyUSB* /dev/ttyACM*); --sim runs against a simulated device.";
    return "cannot use " + device + ": " + std::strerror(errno);
  }
  const int fd = open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    if (error == EACCES || error == EPERM) {
      const group *owner = getgrgid(info.st_gid);
      const std::string name = owner ? owner->gr_name : std::to_string(info.st_gid);
      return "permission denied on " + device + ": it belongs to group '" + name + "'. Join it with " +
             "'sudo usermod -aG " + name + " $USER' and log in again.";
    }
    if (error == EBUSY)
      return "port busy: another program has " + device + " open ('fuser -v " + device + "' shows which).";
    return "cannot open " + device + ": " + std::strerror(error);
  }
  std::string problem;
  termios settings{};
  if (tcgetattr(fd, &settings) != 0) {
    problem = device + " is not a serial port.";
  } else if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    problem = "port busy: another HART master has " + device + " open ('fuser -v " + device + "' shows which).";
  } else {
    flock(fd, LOCK_UN);
  }
  close(fd);
  return problem;
}

}  // namespace velmora::tool
