// Whole stories through the request interface, with real worker threads: on the in-memory line
// against the simulated device running in real time in this process, and on a pseudo-terminal
// against velmora-sim, the POSIX serial backend with real timing and another process at the far end.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>

#include "port/port_control.h"
#include "sim/sim_memory_runner.h"
#include "tables/tables.h"
#include "tests/support/e2e_client.h"
#include "tests/support/link_fixture.h"
#include "tests/support/sim_process.h"

namespace velmora::test {
namespace {

constexpr unsigned int kPort = 4, kBaudCode = 1;  // 9600 baud keeps the stories short

// The default device on the in-memory line at kPort, started by the story when it is set up.
class Stories : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetDriverTables();
    static int counter = 0;
    const std::string name = "stories-" + std::to_string(++counter);
    // The device's usual 20 ms turnaround leaves a loaded master time to listen again.
    runner_ = std::make_unique<sim::MemoryLineRunner>(platform::MemoryLine::Create(name), sim::LineConfig{9600});
    device_ = &runner_->Core().AddDevice(sim::DefaultDevice(0));
    SetComPortDevice(kPort, ("mem:" + name).c_str());
  }
  // Or velmora-sim with the arguments on a pseudo-terminal instead; false if it did not start.
  bool StartSimProcess(const std::vector<std::string> &args) {
    sim_ = std::make_unique<SimProcess>(args);
    SetComPortDevice(kPort, sim_->Path().c_str());
    return !sim_->Path().empty();
  }
  void TearDown() override {
    runner_.reset();
    ResetDriverTables();
    SetComPortDevice(kPort, nullptr);
    sim_.reset();
  }
  // Waits until the device has heard `count` requests: the last of them is in service.
  bool Heard(uint64_t count) {
    auto heard = [&] { return runner_->WithCore([](sim::SimLine &core) { return core.Stats().frames_heard; }); };
    for (int i = 0; i < 1000 && heard() < count; ++i) platform::os::SleepMicros(2000);
    return heard() == count;
  }

  std::unique_ptr<sim::MemoryLineRunner> runner_;
  sim::Device *device_ = nullptr;
  std::unique_ptr<SimProcess> sim_;
};

TEST_F(Stories, SilentDeviceGivesRetriesThenAFailureNotice) {
  device_->AddFault(sim::Fault::NoReply().Always());
  runner_->StartRealTime();
  Client client(kPort, kBaudCode);
  client.Configure(2);
  auto reply = client.Await(client.Send(0), 8000);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->lparam, 0xFFFFu);
  EXPECT_EQ(reply->response_code, 128);
  EXPECT_TRUE(reply->data.empty());
  EXPECT_TRUE(Heard(3));  // the request and two retries
}

TEST_F(Stories, BusyDeviceIsReportedOrAskedAgain) {
  device_->AddFault(sim::Fault::Busy().Times(3));
  runner_->StartRealTime();
  Client client(kPort, kBaudCode, 0, 0x4242);
  auto busy = client.Await(client.Send(0));
  ASSERT_TRUE(busy.has_value());
  // Response code 32 and the device status in the reply word, no data behind them.
  EXPECT_EQ(busy->response_code, 32);
  EXPECT_EQ(busy->lparam, 0x2000u | busy->device_status);
  EXPECT_TRUE(busy->data.empty());
  GetAppInfo(client.App())->bRepeatIfBusy = 1;
  auto reply = client.Await(client.Send(0), 8000);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->response_code, 0u);
  EXPECT_EQ(std::count_if(client.others.begin(), client.others.end(),
                          [](const MSG &m) { return m.message == VELMORA_BUSY_NOTICE && m.lParam == 0x4242; }),
            2);
}

TEST_F(Stories, BurstFramesReachTheApplicationThatAsked) {
  sim::BurstConfig burst;  // command 1
  burst.enabled = true;
  burst.period_ms = 200;
  device_->SetBurst(burst);
  runner_->StartRealTime();
  Client client(kPort, kBaudCode), other(kPort, kBaudCode);
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
}

TEST_F(Stories, MonitorAndHistorySeeAnExchange) {
  runner_->StartRealTime();
  FlushHistory();
  Client client(kPort, kBaudCode, Client::kHistoryMsg);
  HWND monitor = CreateNoticeWindow();
  ASSERT_EQ(RegisterLLMonitor(client.App(), monitor, 0xC00), 1u);
  auto reply = client.Await(client.Send(0));
  ASSERT_TRUE(reply.has_value());
  // The history window is told when the exchange's record closes.
  MSG msg;
  bool closed = std::any_of(client.others.begin(), client.others.end(),
                            [](const MSG &m) { return m.message == Client::kHistoryMsg; });
  for (int i = 0; i < 100 && !closed; ++i)
    closed = GetMessageTimeout(&msg, client.Window(), 20) && msg.message == Client::kHistoryMsg;
  EXPECT_TRUE(closed);
  const std::string text = GetHistory(30).str();
  for (const char *part : {"Request, Preambles 5, STX, CMD 0, ", "Rsp Code 1: 00", "remSRQ/TRXq, hServ: ", "->K"})
    EXPECT_NE(text.find(part), std::string::npos) << part << " in\n" << text;
  FlushHistory();
  UnRegisterLLMonitor(client.App());
  std::vector<std::vector<unsigned char>> frames;
  for (const MSG &notice : Drain(monitor)) {
    auto *bytes = reinterpret_cast<CByteArray *>(notice.lParam);
    if (notice.wParam == 0) frames.emplace_back(bytes->GetData(), bytes->GetData() + bytes->GetSize() - 8);
    delete bytes;
  }
  DestroyNoticeWindow(monitor);
  // The monitor saw the request as sent, then the reply as received: whole, but for the reply's
  // first preambles, which can pass before a loaded master listens.
  std::vector<unsigned char> reply_data = {reply->response_code, reply->device_status};
  reply_data.insert(reply_data.end(), reply->data.begin(), reply->data.end());
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0], Frame(5, {0x02, 0x80, 0x00, 0x00}));
  frames[1].erase(frames[1].begin(), std::find(frames[1].begin(), frames[1].end(), 0x06));
  EXPECT_EQ(frames[1], ShortResponse(0, 0, reply_data, true, 0));
}

// Two applications share the port; each leaves with requests queued and one in service.
TEST_F(Stories, LeavingWithRequestsQueuedAndOneInService) {
  device_->AddFault(sim::Fault::Delay(200).Always());
  runner_->StartRealTime();
  Client first(kPort, kBaudCode), second(kPort, kBaudCode);
  std::vector<unsigned int> firsts, seconds;
  for (int i = 0; i < 3; ++i) firsts.push_back(first.Send(0));
  const unsigned int queued = second.Send(0);
  ASSERT_TRUE(Heard(1));
  first.Unregister();
  // The other's request is still answered, in its own window; the port stays open for it. The
  // rows of the one that left are freed, the one in service once its reply is in, unannounced.
  EXPECT_NE(ComPortTable[kPort - 1].hComPort.load(), NoHandle());
  auto reply = second.Await(queued);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->response_code, 0u);
  for (unsigned int s : firsts) EXPECT_EQ(ServiceTable[s].nServiceState.load(), 0u) << s;
  for (const MSG &msg : Drain(first.Window())) EXPECT_NE(msg.message, Client::kReplyMsg);
  // The last one leaves: the port closes at once, in the middle of the exchange.
  for (int i = 0; i < 3; ++i) seconds.push_back(second.Send(0));
  ASSERT_TRUE(Heard(3));
  second.Unregister();
  EXPECT_EQ(ComPortTable[kPort - 1].hComPort.load(), NoHandle());
  EXPECT_EQ(ComPortTable[kPort - 1].pActiveElement, nullptr);
  for (unsigned int s : seconds) EXPECT_EQ(ServiceTable[s].nServiceState.load(), 0u) << s;
}

TEST_F(Stories, IdentityAndVariablesAt1200Baud) {
  if (!StartSimProcess({})) GTEST_SKIP() << "velmora-sim not available at " << SimProcess::Binary();
  Client client(kPort, 0);
  client.Configure(2);  // a reply lost to a loaded machine's scheduling is asked for again
  // velmora-sim serves the default device: its identity reply is known in full.
  sim::Device device(sim::DefaultDevice(0));
  const sim::Reply expected = *device.Answer(0, {}, sim::Master::kPrimary, 0);
  auto identity = client.Await(client.Send(0), 10000);
  ASSERT_TRUE(identity.has_value());
  EXPECT_EQ(identity->response_code, 0u);
  EXPECT_EQ(identity->data, expected.data);
  // Without the cold start bit, which a lost first answer takes along.
  EXPECT_EQ(identity->device_status | sim::kStatusColdStart, expected.device_status | sim::kStatusColdStart);
  // The reply word: the length behind the status bytes, then the two status bytes.
  EXPECT_EQ(identity->lparam, identity->data.size() << 16 | identity->device_status);

  auto variables = client.Await(client.Send(3, device.LongAddress().data()), 10000);
  ASSERT_TRUE(variables.has_value());
  EXPECT_EQ(variables->command, 3u);
  EXPECT_EQ(variables->response_code, 0u);
  // The loop current, then unit and value of each of the four variables.
  ASSERT_EQ(variables->data.size(), 24u);
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(variables->data[4 + 5 * i], device.Config().variables[i].unit) << i;
}

// The device misses a reply (the retry gets it), then goes away with requests in hand, as an
// unplugged adapter does: they end at once with failure notices instead of running through their
// retries, the application hears that the line is lost, and the port reads closed and refuses
// requests. Back on the same path, a new registration opens the port for every application.
TEST_F(Stories, DeviceThatMissesAReplyThenGoesAwayAndComesBack) {
  const std::string path = ::testing::TempDir() + "velmora-stories-" + std::to_string(getpid());
  auto start = [&](std::vector<std::string> args) {
    sim_ = std::make_unique<SimProcess>(args);
    std::filesystem::remove(path);
    std::filesystem::create_symlink(sim_->Path(), path);
    return !sim_->Path().empty();
  };
  if (!start({"--baud", "9600", "--fault", "no-reply:times=1,command=0", "--fault", "no-reply:command=1"}))
    GTEST_SKIP() << "no velmora-sim";
  SetComPortDevice(kPort, path.c_str());
  Client client(kPort, 1);
  client.Configure(1);
  auto reply = client.Await(client.Send(0), 10000);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->response_code, 0u);
  client.Configure(10);  // ten silent tries would take seconds
  const unsigned int in_flight = client.Send(1), queued = client.Send(1);
  platform::os::SleepMicros(300000);
  const auto gone = std::chrono::steady_clock::now();
  sim_->Stop();
  for (unsigned int service : {in_flight, queued}) {
    auto failed = client.Await(service, 3000);
    ASSERT_TRUE(failed.has_value());
    EXPECT_EQ(std::pair(failed->lparam, unsigned{failed->response_code}), std::pair(0xFFFFu, 128u));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - gone, std::chrono::seconds(2));
  EXPECT_TRUE(std::any_of(client.others.begin(), client.others.end(), [](const MSG &msg) {
    return msg.message == Client::kLinkMsg && msg.wParam == VELMORA_LINK_LOST;
  }));
  EXPECT_EQ(std::pair(ComPortTable[kPort - 1].hComPort.load(), client.Send(0)), std::pair(NoHandle(), VELMORA_NONE));
  ASSERT_TRUE(start({"--baud", "9600"}));
  Client second(kPort, 1);
  for (Client *each : {&second, &client}) {
    auto answer = each->Await(each->Send(0), 10000);
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->response_code, 0u);
  }
  second.Unregister();
  client.Unregister();
  EXPECT_EQ(ComPortTable[kPort - 1].hComPort.load(), NoHandle());
  EXPECT_FALSE(PortHasRemains(kPort - 1));
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace velmora::test
