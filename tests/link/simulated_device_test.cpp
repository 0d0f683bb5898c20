// The link layer against the simulated field device in virtual time: the device answers as a
// real one would, and a second master shares the line.
#include <algorithm>

#include "core/tables.h"
#include "link/mac.h"
#include "sim/sim_memory_runner.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

class SimulatedDeviceTest : public LinkFixture {
 protected:
  void SetUp() override {
    LinkFixture::SetUp();
    // The simulator reads the far end itself.
    clock_->RemoveTickListener(listener_);
    listener_ = 0;
    runner_ = std::make_unique<sim::MemoryLineRunner>(line_, sim::LineConfig{});
    device_ = &runner_->Core().AddDevice(sim::DefaultDevice(0));
    runner_->AttachVirtual(*clock_);
  }
  void TearDown() override {
    runner_.reset();
    LinkFixture::TearDown();
  }
  std::vector<MSG> Replies() {
    std::vector<MSG> out;
    for (const MSG &msg : Drain(app_window_))
      if (msg.message == kReplyMsg) out.push_back(msg);
    return out;
  }
  // Runs until a reply notice is in and the line is free again, noting each state passed.
  bool RunToReply(std::vector<unsigned int> &states, std::vector<MSG> &replies, unsigned int ms) {
    states = {Port().nMacState.load()};
    return RunUntil(
        [&] {
          const unsigned int state = Port().nMacState.load();
          if (state != states.back()) states.push_back(state);
          for (const MSG &m : Replies()) replies.push_back(m);
          return !replies.empty() && state == macLineFree;
        },
        ms);
  }
  std::unique_ptr<sim::MemoryLineRunner> runner_;
  sim::Device *device_ = nullptr;
};

TEST_F(SimulatedDeviceTest, CommandZeroOnTheFreeLine) {
  ASSERT_TRUE(RunUntil([&] { return Port().nMacState.load() == macLineFree; }, 400));
  const unsigned int hServ = Send(0);
  std::vector<unsigned int> states;
  std::vector<MSG> replies;
  ASSERT_TRUE(RunToReply(states, replies, 1500));
  EXPECT_EQ(states, (std::vector<unsigned int>{macLineFree, macFreeReplyWait, macHoldOff, macLineFree}));
  EXPECT_EQ(replies[0].wParam, hServ);
  unsigned char data[256];
  tagHARTREQUEST reply{};
  reply.pData = data;
  ASSERT_EQ(HART_ReceiveRequest(kApp, hServ, &reply, nullptr), 1u);
  EXPECT_EQ(reply.nResponseCode, 0);
  ASSERT_GE(reply.nDataCount, 12u);
  EXPECT_EQ(data[0], 254);
  EXPECT_EQ(data[2], device_->LongAddress()[1]);
}

TEST_F(SimulatedDeviceTest, SecondMastersExchangeGivesThisMasterItsTurn) {
  sim::SecondMasterConfig peer;
  peer.role = sim::Master::kSecondary;
  peer.mode = sim::PeerMode::kOnCue;
  runner_->Core().Peer().Configure(peer);
  ASSERT_TRUE(RunUntil([&] { return Port().nMacState.load() == macLineFree; }, 400));
  sim::PeerRequest request;
  request.long_frame = false;
  request.command = 0;
  runner_->Core().Peer().Send(request, NowUs());
  ASSERT_TRUE(RunUntil([&] { return Port().nMacState.load() == macPeerRequestHeard; }, 500));
  const unsigned int hServ = Send(0);
  std::vector<unsigned int> states;
  std::vector<MSG> replies;
  ASSERT_TRUE(RunToReply(states, replies, 2000));
  EXPECT_EQ(states, (std::vector<unsigned int>{macPeerRequestHeard, macPeerReplyRunning, macOwnTurnGap,
                                               macTurnReplyWait, macHoldOff, macLineFree}));
  EXPECT_EQ(replies[0].wParam, hServ);
  EXPECT_NE(static_cast<unsigned int>(replies[0].lParam) & 0xFFFF, 0xFFFFu);
}

}  // namespace
}  // namespace velmora::test
