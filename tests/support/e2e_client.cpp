// The end-to-end client.
#include "tests/support/e2e_client.h"

#include <chrono>
#include <utility>

namespace velmora::test {

Client::Client(unsigned int port, unsigned int baud_code, unsigned int history_msg, unsigned int key) {
  window_ = CreateNoticeWindow();
  tagHARTREGISTRATION registration{window_, port, baud_code, kLinkMsg, kReplyMsg, history_msg, key};
  if (!HART_RegisterDriver(&registration, &hApp_)) hApp_ = VELMORA_NONE;
}

Client::~Client() {
  Unregister();
  DestroyNoticeWindow(window_);
}

void Client::Configure(unsigned int retries) {
  tagHARTCONFIG config{};
  HART_GetConfiguration(hApp_, &config);
  config.nRetries = retries;
  HART_SetConfiguration(hApp_, &config);
}

unsigned int Client::Send(unsigned char command, const unsigned char *long_address) {
  tagHARTREQUEST request{};
  request.nCommand = command;
  if (long_address) {
    request.nAddressFormat = 2;
    for (int i = 0; i < 5; ++i) request.abLongAddress[i] = long_address[i];
  }
  return HART_SendRequest(hApp_, &request, command);
}

std::optional<Reply> Client::Await(unsigned int hServ, unsigned int timeout_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  MSG msg;
  while (std::chrono::steady_clock::now() < end) {
    if (!GetMessageTimeout(&msg, window_, 50)) continue;
    if (msg.message != kReplyMsg || msg.wParam != hServ) {
      others.push_back(msg);
      continue;
    }
    unsigned char data[256];
    tagHARTREQUEST reply{};
    reply.pData = data;
    if (HART_ReceiveRequest(hApp_, hServ, &reply, nullptr) != 1) return std::nullopt;
    return Reply{static_cast<unsigned int>(msg.lParam), reply.nCommand, reply.nResponseCode, reply.nDeviceStatus,
                 std::vector<unsigned char>(data, data + reply.nDataCount)};
  }
  return std::nullopt;
}

void Client::Unregister() {
  if (hApp_ != VELMORA_NONE) HART_UnRegisterDriver(std::exchange(hApp_, VELMORA_NONE));
}

}  // namespace velmora::test
