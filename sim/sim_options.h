// The command line of velmora-sim, read into a configuration that can also be applied to a
// simulated line in-process.
#ifndef VELMORA_SIM_SIM_OPTIONS_H
#define VELMORA_SIM_SIM_OPTIONS_H

#include <string>
#include <vector>

#include "sim/sim_device.h"
#include "sim/sim_fault.h"
#include "sim/sim_line.h"
#include "sim/sim_second_master.h"

namespace velmora::sim {

struct SimOptions {
  LineConfig line;
  std::vector<DeviceConfig> devices;
  struct DeviceFault {
    int device = -1;  // -1: every device
    Fault fault;
  };
  std::vector<DeviceFault> faults;
  bool second_master = false;
  SecondMasterConfig peer;
  bool transcript = false;
  std::string transcript_path;  // empty: standard error
  bool help = false;
};

// Reads the arguments (without the program name). False with a message for anything it cannot
// use; the options are then not to be used.
bool ParseOptions(const std::vector<std::string> &args, SimOptions *options, std::string *error);
std::string UsageText();
// Adds the devices, faults and second master to a line.
void ApplyOptions(const SimOptions &options, SimLine &line);

}  // namespace velmora::sim

#endif
