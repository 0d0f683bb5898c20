// The end-to-end stories as a Windows program: velmora.dll loaded as a client loads it, message-only
// windows for the notices, and velmora-sim on the Linux side reached through a real COM port
// (COM10 and above, mapped by the harness under Wine). If the harness logs the modem lines, the
// RTS edges are checked against the bytes written too.
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/e2e_client.h"
#include "tests/win32/broker_sim.h"
#include "velmora.h"

namespace velmora::test {
namespace {

constexpr unsigned int kBaud9600 = 1, kBaud1200 = 0;

std::vector<MSG> Drain(HWND window) {
  std::vector<MSG> notices;
  MSG msg;
  while (GetMessageTimeout(&msg, window, 0)) notices.push_back(msg);
  return notices;
}

bool Open(const tagCOMPORTINFO *port) { return port->hComPort.load() != VELMORA_INVALID_HANDLE; }

// The monitor's frames: request frames begin with STX (0x02) behind the preambles.
bool IsRequest(const CByteArray &frame) {
  for (int i = 0; i < frame.GetSize(); ++i)
    if (frame.GetData()[i] != 0xFF) return frame.GetData()[i] == 0x02;
  return false;
}

class ComPortStories : public ::testing::Test {
 protected:
  std::unique_ptr<BrokerSim> Start(const std::vector<std::string> &args) {
    auto sim = std::make_unique<BrokerSim>(args);
    if (sim->Port() == 0) ADD_FAILURE() << "simulator not started: " << sim->Error();
    return sim;
  }
};

TEST_F(ComPortStories, IdentityAndVariables) {
  auto sim = Start({"--baud", "1200"});
  ASSERT_NE(sim->Port(), 0u);
  Client client(sim->Port(), kBaud1200);
  ASSERT_NE(client.App(), VELMORA_NONE);
  client.Configure(2);
  const unsigned int hServ = client.Send(0);
  auto identity = client.Await(hServ, 10000);
  ASSERT_TRUE(identity.has_value());
  EXPECT_EQ(identity->response_code, 0u);
  ASSERT_GE(identity->data.size(), 12u);
  EXPECT_EQ(identity->data[0], 254u);  // the expansion code that opens an identity
  // The reply word: the length behind the status bytes, then the two status bytes.
  EXPECT_EQ(identity->lparam, identity->data.size() << 16 | identity->device_status);

  const unsigned char long_address[5] = {static_cast<unsigned char>(identity->data[1] & 0x3F), identity->data[2],
                                         identity->data[9], identity->data[10], identity->data[11]};
  auto variables = client.Await(client.Send(3, long_address), 10000);
  ASSERT_TRUE(variables.has_value());
  EXPECT_EQ(variables->command, 3u);
  EXPECT_EQ(variables->response_code, 0u);
  EXPECT_EQ(variables->data.size(), 24u);  // loop current, then unit and value of four variables
}

TEST_F(ComPortStories, SilentDeviceGivesRetriesThenAFailureNotice) {
  auto sim = Start({"--baud", "9600", "--fault", "no-reply"});
  ASSERT_NE(sim->Port(), 0u);
  Client client(sim->Port(), kBaud9600);
  client.Configure(2);
  HWND monitor = CreateNoticeWindow();
  ASSERT_EQ(RegisterLLMonitor(client.App(), monitor, 0xC00), 1u);
  auto reply = client.Await(client.Send(0), 8000);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->lparam, 0xFFFFu);
  EXPECT_EQ(reply->response_code, 128u);
  EXPECT_TRUE(reply->data.empty());
  UnRegisterLLMonitor(client.App());
  int requests = 0;
  for (const MSG &notice : Drain(monitor)) {
    auto *frame = reinterpret_cast<CByteArray *>(notice.lParam);
    requests += IsRequest(*frame) ? 1 : 0;
    delete frame;
  }
  EXPECT_EQ(requests, 3);  // the request and two retries
  DestroyNoticeWindow(monitor);
}

TEST_F(ComPortStories, BusyDeviceIsReportedOrAskedAgain) {
  auto sim = Start({"--baud", "9600", "--fault", "busy:times=3"});
  ASSERT_NE(sim->Port(), 0u);
  Client client(sim->Port(), kBaud9600, 0, 0x4242);
  auto busy = client.Await(client.Send(0));
  ASSERT_TRUE(busy.has_value());
  EXPECT_EQ(busy->response_code, 32u);
  EXPECT_EQ(busy->lparam, 0x2000u | busy->device_status);
  GetAppInfo(client.App())->bRepeatIfBusy = 1;
  auto reply = client.Await(client.Send(0), 8000);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->response_code, 0u);
  EXPECT_EQ(std::count_if(client.others.begin(), client.others.end(),
                          [](const MSG &m) { return m.message == VELMORA_BUSY_NOTICE && m.lParam == 0x4242; }),
            2);
}

// Two applications share the port, each with its own window; the port stays open while one is
// left and closes with the last.
TEST_F(ComPortStories, TwoApplicationsOnOnePort) {
  auto sim = Start({"--baud", "9600", "--fault", "delay:ms=100"});
  ASSERT_NE(sim->Port(), 0u);
  Client first(sim->Port(), kBaud9600), second(sim->Port(), kBaud9600);
  const unsigned int a = first.Send(0), b = second.Send(0), c = first.Send(0);
  for (auto [client, hServ] : {std::pair{&first, a}, {&second, b}, {&first, c}}) {
    auto reply = client->Await(hServ);
    ASSERT_TRUE(reply.has_value()) << hServ;
    EXPECT_EQ(reply->response_code, 0u);
  }
  for (const MSG &msg : first.others) EXPECT_NE(msg.message, Client::kReplyMsg);
  for (const MSG &msg : second.others) EXPECT_NE(msg.message, Client::kReplyMsg);
  const tagCOMPORTINFO *port = GetComPortInfo(first.App());
  first.Unregister();
  EXPECT_TRUE(Open(port));
  auto reply = second.Await(second.Send(0));
  ASSERT_TRUE(reply.has_value());
  second.Unregister();
  EXPECT_FALSE(Open(port));
}

TEST_F(ComPortStories, DeviceThatGoesAwayAndComesBack) {
  auto sim = Start({"--baud", "9600", "--fault", "no-reply:command=1"});
  ASSERT_NE(sim->Port(), 0u);
  Client client(sim->Port(), kBaud9600);
  auto reply = client.Await(client.Send(0), 10000);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->response_code, 0u);
  client.Configure(10);  // ten silent tries would take seconds
  const unsigned int in_flight = client.Send(1), queued = client.Send(1);
  Sleep(300);
  const auto gone = std::chrono::steady_clock::now();
  ASSERT_TRUE(sim->Kill());
  for (unsigned int service : {in_flight, queued}) {
    auto failed = client.Await(service, 5000);
    ASSERT_TRUE(failed.has_value());
    EXPECT_EQ(std::pair(failed->lparam, unsigned{failed->response_code}), std::pair(0xFFFFu, 128u));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - gone, std::chrono::seconds(3));
  EXPECT_TRUE(std::any_of(client.others.begin(), client.others.end(), [](const MSG &msg) {
    return msg.message == Client::kLinkMsg && msg.wParam == VELMORA_LINK_LOST;
  }));
  EXPECT_FALSE(Open(GetComPortInfo(client.App())));
  EXPECT_EQ(client.Send(0), VELMORA_NONE);
  ASSERT_TRUE(sim->Restart({"--baud", "9600"}));
  Client second(sim->Port(), kBaud9600);
  for (Client *each : {&second, &client}) {
    auto answer = each->Await(each->Send(0), 10000);
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->response_code, 0u);
  }
}

TEST_F(ComPortStories, MonitorAndHistorySeeAnExchange) {
  auto sim = Start({"--baud", "9600"});
  ASSERT_NE(sim->Port(), 0u);
  FlushHistory();
  Client client(sim->Port(), kBaud9600, Client::kHistoryMsg);
  HWND monitor = CreateNoticeWindow();
  ASSERT_EQ(RegisterLLMonitor(client.App(), monitor, 0xC00), 1u);
  auto reply = client.Await(client.Send(0));
  ASSERT_TRUE(reply.has_value());
  MSG msg;
  bool closed = std::any_of(client.others.begin(), client.others.end(),
                            [](const MSG &m) { return m.message == Client::kHistoryMsg; });
  for (int i = 0; i < 100 && !closed; ++i)
    closed = GetMessageTimeout(&msg, client.Window(), 20) && msg.message == Client::kHistoryMsg;
  EXPECT_TRUE(closed);
  const std::string text = GetHistory(30).str();
  for (const char *part : {"Request, Preambles 5, STX, CMD 0, ", "Rsp Code 1: 00", "->K"})
    EXPECT_NE(text.find(part), std::string::npos) << part << " in\n" << text;
  FlushHistory();
  UnRegisterLLMonitor(client.App());
  std::vector<std::vector<unsigned char>> requests;
  int replies = 0;
  for (const MSG &notice : Drain(monitor)) {
    EXPECT_EQ(notice.message, 0xC00u);
    auto *frame = reinterpret_cast<CByteArray *>(notice.lParam);
    if (IsRequest(*frame)) requests.emplace_back(frame->GetData(), frame->GetData() + frame->GetSize() - 8);
    else ++replies;
    delete frame;
  }
  DestroyNoticeWindow(monitor);
  // The request as sent: five preambles, STX, polling address 0 from the primary master, command 0.
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0], (std::vector<unsigned char>{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82}));
  EXPECT_EQ(replies, 1);
}

// With the harness's modem log: RTS goes up before the first byte of a request is written and
// comes down no sooner than the bytes take to leave at the line's rate.
TEST_F(ComPortStories, RtsFramesEveryRequest) {
  const char *log = std::getenv("VELMORA_MODEM_LOG");
  if (!log) GTEST_SKIP() << "no modem log: run through scripts/wine-test.sh --modem-log";
  auto sim = Start({"--baud", "1200"});
  ASSERT_NE(sim->Port(), 0u);
  std::string path = std::string("Z:") + log;
  std::replace(path.begin(), path.end(), '/', '\\');
  // The log holds the earlier stories too: read from here on.
  const auto start = std::ifstream(path, std::ios::ate).tellg();
  {
    Client client(sim->Port(), kBaud1200);
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(client.Await(client.Send(0), 10000).has_value());
  }
  std::ifstream in(path);
  ASSERT_TRUE(in) << path;
  if (start > 0) in.seekg(start);
  // Each request: "RTS 1", one or more "WRITE <hex bytes>", "RTS 0", with times in microseconds.
  struct Request {
    long long up = -1, first = -1, last = -1, down = -1, bytes = 0;
  };
  std::vector<Request> seen;
  bool rts = false;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    long long us = 0;
    std::string what, value;
    fields >> us >> what >> value;
    if (what == "RTS" && value == "1") {
      seen.push_back(Request{us});
      rts = true;
    } else if (what == "RTS" && value == "0" && !seen.empty()) {
      seen.back().down = us;
      rts = false;
    } else if (what == "WRITE") {
      ASSERT_TRUE(rts) << "bytes written with RTS off: " << line;
      if (seen.back().first < 0) seen.back().first = us;
      seen.back().last = us;
      seen.back().bytes += static_cast<long long>(value.size() / 2);
    }
  }
  ASSERT_GE(seen.size(), 2u);
  for (const Request &request : seen) {
    ASSERT_GE(request.first, 0) << "RTS raised for no bytes";
    EXPECT_LT(request.up, request.first);
    ASSERT_GT(request.down, request.last);
    // 11 bits a byte at 1200 baud, less a millisecond of the timer's grain.
    EXPECT_GE(request.down - request.first, request.bytes * 11 * 1000000 / 1200 - 1000) << request.bytes;
  }
}

}  // namespace
}  // namespace velmora::test
