// A whole story through the request interface with real worker threads, on a pseudo-terminal
// against velmora-sim: the POSIX serial backend with real timing and another process at the far
// end. (Request interface stories in virtual time: link/exchange_test; many applications on many
// ports in real time: stress_test.)
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>

#include "port/port_control.h"
#include "sim/sim_device.h"
#include "tables/tables.h"
#include "tests/support/e2e_client.h"
#include "tests/support/link_fixture.h"
#include "tests/support/sim_process.h"

namespace velmora::test {
namespace {

constexpr unsigned int kPort = 4;

class Stories : public ::testing::Test {
 protected:
  void SetUp() override { ResetDriverTables(); }
  void TearDown() override {
    ResetDriverTables();
    SetComPortDevice(kPort, nullptr);
    sim_.reset();
  }

  std::unique_ptr<SimProcess> sim_;
};

// velmora-sim on a pseudo-terminal at 1200 baud, the POSIX backend with real timing: the identity
// and, in a long frame, the variables. The device misses a reply (the retry gets it), then goes
// away with requests in hand, as an unplugged adapter does: they end at once with failure notices
// instead of running through their retries, the application hears that the line is lost, and the
// port reads closed and refuses requests. Back on the same path, a new registration opens the
// port for every application.
TEST_F(Stories, DeviceOnAPseudoTerminalThatMissesAReplyThenGoesAwayAndComesBack) {
  const std::string path = ::testing::TempDir() + "velmora-stories-" + std::to_string(getpid());
  auto start = [&](std::vector<std::string> args) {
    sim_ = std::make_unique<SimProcess>(args);
    std::filesystem::remove(path);
    std::filesystem::create_symlink(sim_->Path(), path);
    return !sim_->Path().empty();
  };
  if (!start({"--fault", "no-reply:times=1,command=0", "--fault", "no-reply:command=1"}))
    GTEST_SKIP() << "velmora-sim not available at " << SimProcess::Binary();
  SetComPortDevice(kPort, path.c_str());
  Client client(kPort, 0, Client::kHistoryMsg);  // the worker keeps the history as it serves
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
  EXPECT_EQ(std::pair(variables->command, unsigned{variables->response_code}), std::pair(3u, 0u));
  // The loop current, then unit and value of each of the four variables.
  ASSERT_EQ(variables->data.size(), 24u);
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(variables->data[4 + 5 * i], device.Config().variables[i].unit) << i;
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
  EXPECT_TRUE(std::any_of(client.others.begin(), client.others.end(),
                          [](const MSG &msg) { return msg.message == Client::kHistoryMsg; }));
  EXPECT_EQ(std::pair(ComPortTable[kPort - 1].hComPort.load(), client.Send(0)), std::pair(NoHandle(), VELMORA_NONE));
  ASSERT_TRUE(start({}));
  Client second(kPort, 0);
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
