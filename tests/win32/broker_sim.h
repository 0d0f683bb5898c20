// velmora-sim for Windows test programs under Wine. They cannot start a Linux program, so they
// ask the harness's broker (tests/win32/sim_broker.py) through files in the folder named by
// VELMORA_SIM_BROKER: it starts the simulator on a pseudo-terminal and maps a COM port to it.
#ifndef VELMORA_TESTS_WIN32_BROKER_SIM_H
#define VELMORA_TESTS_WIN32_BROKER_SIM_H

#include <string>
#include <vector>

namespace velmora::test {

class BrokerSim {
 public:
  // Starts velmora-sim with the arguments; Port() is 0 if that failed (Error() says why).
  explicit BrokerSim(const std::vector<std::string> &args);
  ~BrokerSim();
  BrokerSim(const BrokerSim &) = delete;
  BrokerSim &operator=(const BrokerSim &) = delete;

  // The COM port number that reaches the simulator.
  unsigned int Port() const { return port_; }
  const std::string &Error() const { return error_; }
  // The device vanishes at once (SIGKILL), as an unplugged adapter does; the port stays mapped.
  bool Kill();
  // A new simulator behind the same COM port.
  bool Restart(const std::vector<std::string> &args);

 private:
  bool Ask(const std::string &verb, const std::string &body, const std::string &answer, std::string *reply);
  std::string id_, error_;
  unsigned int port_ = 0;
};

}  // namespace velmora::test

#endif
