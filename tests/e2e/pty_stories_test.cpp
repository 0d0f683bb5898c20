// Stories through the request interface against velmora-sim on a pseudo-terminal: the POSIX
// serial backend, real worker threads and another process at the far end.
#include <gtest/gtest.h>

#include "core/tables.h"
#include "tests/support/e2e_client.h"
#include "tests/support/link_fixture.h"
#include "tests/support/sim_process.h"

namespace velmora::test {
namespace {

constexpr unsigned int kPort = 9;

class PtyStories : public ::testing::Test {
 protected:
  void Start(const std::vector<std::string> &args) {
    ResetDriverTables();
    sim_ = std::make_unique<SimProcess>(args);
    if (sim_->Path().empty()) GTEST_SKIP() << "velmora-sim not available at " << SimProcess::Binary();
    SetComPortDevice(kPort, sim_->Path().c_str());
  }
  void TearDown() override {
    ResetDriverTables();
    SetComPortDevice(kPort, nullptr);
    sim_.reset();
  }
  std::unique_ptr<SimProcess> sim_;
};

TEST_F(PtyStories, IdentityAndVariablesAt1200Baud) {
  Start({});
  Client client(kPort, 0);
  ASSERT_TRUE(client.Registered());
  auto identity = client.Await(client.SendShort(0), 10000);
  ASSERT_TRUE(identity.has_value());
  ASSERT_GE(identity->data.size(), 12u);
  EXPECT_EQ(identity->data[0], 254);
  const unsigned char address[5] = {static_cast<unsigned char>(identity->data[1] & 0x3F), identity->data[2],
                                    identity->data[9], identity->data[10], identity->data[11]};
  auto variables = client.Await(client.SendLong(address, 3), 10000);
  ASSERT_TRUE(variables.has_value());
  EXPECT_EQ(variables->command, 3u);
  EXPECT_GE(variables->data.size(), 9u);
}

TEST_F(PtyStories, SilentDeviceGivesAFailureNoticeAfterTheRetries) {
  Start({"--baud", "9600", "--fault", "no-reply"});
  Client client(kPort, 1);
  client.Configure(1);
  auto reply = client.Await(client.SendShort(0), 10000);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->lparam, 0xFFFFu);
  EXPECT_EQ(reply->response_code, 128);
}

TEST_F(PtyStories, DeviceThatDisappearsKeepsGivingFailureNotices) {
  Start({"--baud", "9600"});
  Client client(kPort, 1);
  client.Configure(1);
  ASSERT_TRUE(client.Await(client.SendShort(0), 10000).has_value());
  sim_->Stop();
  for (int i = 0; i < 2; ++i) {
    auto reply = client.Await(client.SendShort(0), 10000);
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(reply->lparam, 0xFFFFu);
  }
  client.Unregister();
  EXPECT_EQ(ComPortTable[kPort - 1].hComPort.load(), NoHandle());
}

TEST_F(PtyStories, BusyDeviceIsReportedToo) {
  Start({"--baud", "19200", "--fault", "busy:times=1"});
  Client client(kPort, 2);
  auto reply = client.Await(client.SendShort(0), 10000);
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->response_code, 32);
  // Status bytes 32 and whatever the device reports, no data behind them.
  EXPECT_EQ(reply->lparam & 0xFFFFFF00u, 0x2000u);
}

}  // namespace
}  // namespace velmora::test
