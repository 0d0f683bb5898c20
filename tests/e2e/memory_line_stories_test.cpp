// Whole stories through the request interface on the in-memory line, with the simulated field
// device running in real time in this process: what a client sees, with real worker threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "core/tables.h"
#include "sim/sim_memory_runner.h"
#include "tests/support/e2e_client.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

constexpr unsigned int kPort = 4;
constexpr unsigned int kBaudCode = 1;  // 9600 baud keeps the stories short

class MemoryLineStories : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetDriverTables();
    static int counter = 0;
    const std::string name = "stories-" + std::to_string(++counter);
    line_ = platform::MemoryLine::Create(name);
    SetComPortDevice(kPort, ("mem:" + name).c_str());
    sim::LineConfig config;
    config.baud = 9600;
    config.turnaround_us = 5000;
    runner_ = std::make_unique<sim::MemoryLineRunner>(line_, config);
    device_ = &runner_->Core().AddDevice(sim::DefaultDevice(0));
  }
  void StartSim() { runner_->StartRealTime(); }
  void TearDown() override {
    runner_.reset();
    ResetDriverTables();
    SetComPortDevice(kPort, nullptr);
  }
  std::array<unsigned char, 5> LongAddress() {
    std::array<unsigned char, 5> address{};
    const auto bytes = device_->LongAddress();
    std::copy(bytes.begin(), bytes.end(), address.begin());
    return address;
  }

  std::shared_ptr<platform::MemoryLine> line_;
  std::unique_ptr<sim::MemoryLineRunner> runner_;
  sim::Device *device_ = nullptr;
};

TEST_F(MemoryLineStories, IdentityAndDynamicVariablesAreDecoded) {
  StartSim();
  Client client(kPort, kBaudCode);
  ASSERT_TRUE(client.Registered());
  auto identity = client.Await(client.SendShort(0));
  ASSERT_TRUE(identity.has_value());
  EXPECT_EQ(identity->command, 0u);
  EXPECT_EQ(identity->response_code, 0u);
  ASSERT_GE(identity->data.size(), 12u);
  EXPECT_EQ(identity->data[0], 254);
  const auto expected = LongAddress();
  EXPECT_EQ(identity->data[1] & 0x3F, expected[0]);
  EXPECT_EQ(identity->data[2], expected[1]);
  EXPECT_EQ(identity->data[9], expected[2]);
  // The reply word: length behind the status bytes, then the two status bytes.
  EXPECT_EQ(identity->lparam >> 16, identity->data.size());

  const unsigned char long_address[5] = {static_cast<unsigned char>(identity->data[1] & 0x3F), identity->data[2],
                                         identity->data[9], identity->data[10], identity->data[11]};
  auto variables = client.Await(client.SendLong(long_address, 3));
  ASSERT_TRUE(variables.has_value());
  EXPECT_EQ(variables->command, 3u);
  EXPECT_EQ(variables->response_code, 0u);
  ASSERT_GE(variables->data.size(), 9u);
  EXPECT_EQ(variables->data[4], device_->Config().variables[0].unit);
}

TEST_F(MemoryLineStories, SilentDeviceGivesRetriesThenAFailureNotice) {
  device_->AddFault(sim::Fault::NoReply().Always());
  StartSim();
  Client client(kPort, kBaudCode);
  client.Configure(2);
  auto reply = client.Await(client.SendShort(0), 8000);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->lparam, 0xFFFFu);
  EXPECT_EQ(reply->response_code, 128);
  EXPECT_EQ(reply->data.size(), 0u);
  EXPECT_EQ(runner_->WithCore([](sim::SimLine &core) { return core.Stats().frames_heard; }), 3u);
}

TEST_F(MemoryLineStories, BusyDeviceIsAskedAgainWhenTheApplicationWantsIt) {
  device_->AddFault(sim::Fault::Busy().Times(2));
  StartSim();
  Client client(kPort, kBaudCode, 0, 0x4242);
  GetAppInfo(client.App())->bRepeatIfBusy = 1;
  auto reply = client.Await(client.SendShort(0), 8000);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->response_code, 0u);
  const auto busy = std::count_if(client.others.begin(), client.others.end(),
                                  [](const MSG &m) { return m.message == VELMORA_BUSY_NOTICE && m.lParam == 0x4242; });
  EXPECT_EQ(busy, 2);
}

TEST_F(MemoryLineStories, TwoApplicationsShareOnePort) {
  StartSim();
  Client first(kPort, kBaudCode), second(kPort, kBaudCode);
  ASSERT_TRUE(first.Registered());
  ASSERT_TRUE(second.Registered());
  const unsigned int a = first.SendShort(0), b = second.SendShort(0);
  ASSERT_NE(a, b);
  EXPECT_TRUE(second.Await(b).has_value());
  EXPECT_TRUE(first.Await(a).has_value());
  first.Unregister();
  EXPECT_NE(GetComPortHandle(second.App()), NoHandle());
  EXPECT_TRUE(second.Await(second.SendShort(0)).has_value());
}

TEST_F(MemoryLineStories, BurstFramesReachTheApplicationThatAsked) {
  sim::BurstConfig burst;
  burst.enabled = true;
  burst.command = 1;
  burst.period_ms = 200;
  device_->SetBurst(burst);
  StartSim();
  Client client(kPort, kBaudCode);
  Client other(kPort, kBaudCode);
  GetAppInfo(client.App())->nBurstAppKey = 0x99;
  MSG msg;
  unsigned int bursts = 0;
  for (int i = 0; i < 40 && bursts < 2; ++i)
    while (GetMessageTimeout(&msg, client.Window(), 50))
      if (msg.message == Client::kReplyMsg && msg.wParam == 65535 && msg.lParam == 0x99) ++bursts;
  EXPECT_GE(bursts, 2u);
  EXPECT_FALSE(PeekMessageA(&msg, other.Window(), Client::kReplyMsg, Client::kReplyMsg, PM_NOREMOVE));
  typQueueElement *element = fncFindReceiveService(client.App(), 65535);
  ASSERT_NE(element, nullptr);
  EXPECT_EQ(element->nReplyCommand, 1u);
  fncClearBurstQueue(client.App());
}

TEST_F(MemoryLineStories, MonitorSeesEveryFrameOfAnExchange) {
  StartSim();
  Client client(kPort, kBaudCode);
  HWND monitor = CreateNoticeWindow();
  ASSERT_EQ(RegisterLLMonitor(client.App(), monitor, 0xC00), 1u);
  ASSERT_TRUE(client.Await(client.SendShort(0)).has_value());
  UnRegisterLLMonitor(client.App());
  std::vector<std::vector<unsigned char>> frames;
  MSG msg;
  while (PeekMessageA(&msg, monitor, 0, 0, PM_REMOVE)) {
    auto *bytes = reinterpret_cast<CByteArray *>(msg.lParam);
    if (msg.wParam == 0) frames.emplace_back(bytes->GetData(), bytes->GetData() + bytes->GetSize() - 8);
    delete bytes;
  }
  DestroyNoticeWindow(monitor);
  ASSERT_EQ(frames.size(), 2u);
  // The request as sent, then the reply as received, both with their preambles.
  EXPECT_EQ(frames[0], Frame(5, {0x02, 0x80, 0x00, 0x00}));
  ASSERT_GE(frames[1].size(), 5u);
  const auto delimiter = std::find_if(frames[1].begin(), frames[1].end(), [](unsigned char b) { return b != 0xFF; });
  ASSERT_NE(delimiter, frames[1].end());
  EXPECT_EQ(*delimiter, 0x06);
}

TEST_F(MemoryLineStories, HistoryTextOfAnExchange) {
  StartSim();
  FlushHistory();
  Client client(kPort, kBaudCode, Client::kHistoryMsg);
  ASSERT_TRUE(client.Await(client.SendShort(0)).has_value());
  MSG msg;
  bool closed = std::any_of(client.others.begin(), client.others.end(),
                            [](const MSG &m) { return m.message == Client::kHistoryMsg; });
  for (int i = 0; i < 100 && !closed; ++i)
    closed = GetMessageTimeout(&msg, client.Window(), 20) && msg.message == Client::kHistoryMsg;
  ASSERT_TRUE(closed);
  const std::string text = GetHistory(30).str();
  EXPECT_NE(text.find("Request, Preambles 5, STX, CMD 0, "), std::string::npos) << text;
  EXPECT_NE(text.find("Rsp Code 1: 00"), std::string::npos) << text;
  EXPECT_NE(text.find("remSRQ/TRXq, hServ: "), std::string::npos) << text;
  EXPECT_NE(text.find("->K"), std::string::npos) << text;
  FlushHistory();
}

TEST_F(MemoryLineStories, UnregisterWithRequestsQueuedAndOneInService) {
  device_->AddFault(sim::Fault::Delay(300).Always());
  StartSim();
  Client client(kPort, kBaudCode);
  std::vector<unsigned int> services;
  for (int i = 0; i < 5; ++i) services.push_back(client.SendShort(0));
  // Let the first go into service.
  for (int i = 0; i < 100 && ComPortTable[kPort - 1].pActiveElement == nullptr; ++i) platform::os::SleepMicros(2000);
  client.Unregister();
  EXPECT_EQ(GetComPortInfo(0) != nullptr, true);
  EXPECT_EQ(ComPortTable[kPort - 1].hComPort.load(), NoHandle());
  for (unsigned int s : services) EXPECT_EQ(ServiceTable[s].nServiceState.load(), 0u) << s;
  EXPECT_EQ(ComPortTable[kPort - 1].pActiveElement, nullptr);
}

}  // namespace
}  // namespace velmora::test
