// The end-to-end client.
#include "tests/support/e2e_client.h"

#include <chrono>

namespace velmora::test {

Client::Client(unsigned int port, unsigned int baud_code, unsigned int history_msg, unsigned int key) {
  window_ = CreateNoticeWindow();
  tagHARTREGISTRATION registration{window_, port, baud_code, kLinkMsg, kReplyMsg, history_msg, key};
  if (!HART_RegisterDriver(&registration, &hApp_)) hApp_ = VELMORA_NONE;
}

Client::~Client() {
  Unregister();
  MSG msg;
  while (PeekMessageA(&msg, window_, 0, 0, PM_REMOVE)) {
  }
  DestroyNoticeWindow(window_);
}

void Client::Configure(unsigned int retries, unsigned int preambles) {
  tagHARTCONFIG config{1, preambles, retries, 0, 0};
  HART_GetConfiguration(hApp_, &config);
  config.nRetries = retries;
  config.nPreambles = preambles;
  HART_SetConfiguration(hApp_, &config);
}

unsigned int Client::SendShort(unsigned char command, std::vector<unsigned char> data, unsigned char address) {
  tagHARTREQUEST request{};
  request.nCommand = command;
  request.nPollingAddress = address;
  request.pData = data.data();
  request.nDataCount = static_cast<unsigned int>(data.size());
  return HART_SendRequest(hApp_, &request, command);
}

unsigned int Client::SendLong(const unsigned char address[5], unsigned char command, std::vector<unsigned char> data) {
  tagHARTREQUEST request{};
  request.nCommand = command;
  request.nAddressFormat = 2;
  for (int i = 0; i < 5; ++i) request.abLongAddress[i] = address[i];
  request.pData = data.data();
  request.nDataCount = static_cast<unsigned int>(data.size());
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
    Reply out;
    out.lparam = static_cast<unsigned int>(msg.lParam);
    out.command = reply.nCommand;
    out.response_code = reply.nResponseCode;
    out.device_status = reply.nDeviceStatus;
    out.data.assign(data, data + reply.nDataCount);
    return out;
  }
  return std::nullopt;
}

void Client::Unregister() {
  if (hApp_ == VELMORA_NONE) return;
  HART_UnRegisterDriver(hApp_);
  hApp_ = VELMORA_NONE;
}

}  // namespace velmora::test
