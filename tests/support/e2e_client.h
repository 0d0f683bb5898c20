// A client of the request interface for end-to-end tests: a notice window registered with a
// port, requests sent and their notices awaited in real time.
#ifndef VELMORA_TESTS_SUPPORT_E2E_CLIENT_H
#define VELMORA_TESTS_SUPPORT_E2E_CLIENT_H

#include <optional>
#include <vector>

#include "velmora.h"

namespace velmora::test {

struct Reply {
  unsigned int lparam = 0, command = 0;
  unsigned char response_code = 0, device_status = 0;
  std::vector<unsigned char> data;  // behind the status bytes
};

class Client {
 public:
  static constexpr unsigned int kReplyMsg = 0xB01, kLinkMsg = 0xB02, kHistoryMsg = 0xB03;

  // Registers with the port at the baud code; App() is VELMORA_NONE if that failed.
  Client(unsigned int port, unsigned int baud_code, unsigned int history_msg = 0, unsigned int key = 1);
  ~Client();
  unsigned int App() const { return hApp_; }
  HWND Window() const { return window_; }
  void Configure(unsigned int retries);
  // A command without data in a short frame to polling address 0, or in a long frame to `address`.
  unsigned int Send(unsigned char command, const unsigned char *long_address = nullptr);
  // Waits for the reply notice of hServ (other notices are kept in `others`) and fetches it.
  std::optional<Reply> Await(unsigned int hServ, unsigned int timeout_ms = 5000);
  void Unregister();

  std::vector<MSG> others;

 private:
  unsigned int hApp_ = VELMORA_NONE;
  HWND window_ = nullptr;
};

}  // namespace velmora::test

#endif
