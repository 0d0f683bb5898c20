// Stories of the link layer on the in-memory line in virtual time: a scripted field device at
// the far end, the worker's passes run by the test, every millisecond exact.
#include <algorithm>

#include "core/tables.h"
#include "diag/history_store.h"
#include "link/frame_builder.h"
#include "link/mac.h"
#include "port/port_control.h"
#include "port/port_runtime.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

using platform::MemoryLine;

constexpr unsigned char kCmd0Data[] = {0x00, 0x40, 0xFE, 0x26, 0x06, 0x05, 0x05, 0x01, 0x02, 0x03};

std::vector<unsigned char> Cmd0Reply(const std::vector<unsigned char> &request) {
  std::vector<unsigned char> data(std::begin(kCmd0Data), std::end(kCmd0Data));
  return ShortResponse(request[1] & 0x0F, request[2], data);
}

struct Edge {
  MemoryLine::EventKind kind;
  uint32_t level;
  uint64_t time_us;
};

std::vector<Edge> MasterEdges(const MemoryLine &line) {
  std::vector<Edge> edges;
  for (const auto &event : line.Record())
    if (event.end == MemoryLine::kMasterEnd &&
        (event.kind == MemoryLine::EventKind::kRts || event.kind == MemoryLine::EventKind::kDtr))
      edges.push_back({event.kind, event.value, event.time_us});
  return edges;
}

std::vector<uint64_t> MasterByteStarts(const MemoryLine &line) {
  std::vector<uint64_t> starts;
  for (const auto &event : line.Record())
    if (event.end == MemoryLine::kMasterEnd && event.kind == MemoryLine::EventKind::kByte)
      starts.push_back(event.time_us);
  return starts;
}

// Monitor notices as (event code, array size); the arrays are freed here, as a receiver must.
std::vector<std::pair<unsigned int, int>> MonitorNotices(HWND window) {
  std::vector<std::pair<unsigned int, int>> out;
  for (const MSG &msg : Drain(window)) {
    auto *bytes = reinterpret_cast<CByteArray *>(msg.lParam);
    out.emplace_back(static_cast<unsigned int>(msg.wParam), bytes->GetSize());
    delete bytes;
  }
  return out;
}

class ExchangeTest : public LinkFixture {
 protected:
  // Brings the state machine from its start to the free line: init, then 305 ms of quiet.
  void ReachLineFree() {
    ASSERT_TRUE(RunUntil([&] { return Port().nMacState.load() == macLineFree; }, 400));
  }
  // Runs passes until reply notices arrive, at most ms; gives them.
  std::vector<MSG> AwaitReplies(unsigned int ms) {
    std::vector<MSG> replies;
    RunUntil(
        [&] {
          for (const MSG &m : Replies()) replies.push_back(m);
          return !replies.empty();
        },
        ms);
    return replies;
  }
  size_t PendingReplies() {
    MSG msg;
    return PeekMessageA(&msg, app_window_, kReplyMsg, kReplyMsg, PM_NOREMOVE) ? 1 : 0;
  }
  std::vector<MSG> Replies() {
    std::vector<MSG> out;
    for (const MSG &msg : Drain(app_window_))
      if (msg.message == kReplyMsg) out.push_back(msg);
    return out;
  }
};

struct TransmitTiming {
  unsigned int baud_code;
  unsigned int extra_rts_delay;
  uint64_t first_byte_us;  // after RTS rises
  uint64_t rts_down_us;    // after RTS rises
};

class TransmitSequenceTest : public ExchangeTest, public ::testing::WithParamInterface<TransmitTiming> {};

// A 10-byte command 0 frame: lead-in, frame wait ((n-1) x per-byte time, cut to whole ms), the
// drained output (whole ms, rounded up), the tail; RTS and DTR move together.
TEST_P(TransmitSequenceTest, RtsDtrEdgesAndBytesAreExact) {
  const TransmitTiming timing = GetParam();
  OpenAt(timing.baud_code);
  Port().nExtraRtsDelay = timing.extra_rts_delay;
  ReachLineFree();
  line_->ClearRecord();
  const unsigned int hServ = Send(0);
  ASSERT_NE(hServ, kNone);
  ASSERT_TRUE(RunUntil([&] { return Port().nTxRequest.load() == 2; }, 200));

  const std::vector<Edge> edges = MasterEdges(*line_);
  ASSERT_EQ(edges.size(), 4u);
  EXPECT_EQ(edges[0].kind, MemoryLine::EventKind::kRts);
  EXPECT_EQ(edges[0].level, 1u);
  EXPECT_EQ(edges[1].kind, MemoryLine::EventKind::kDtr);
  EXPECT_EQ(edges[1].level, 0u);
  EXPECT_EQ(edges[2].kind, MemoryLine::EventKind::kRts);
  EXPECT_EQ(edges[2].level, 0u);
  EXPECT_EQ(edges[3].kind, MemoryLine::EventKind::kDtr);
  EXPECT_EQ(edges[3].level, 1u);
  const uint64_t rts_up = edges[0].time_us;
  EXPECT_EQ(edges[1].time_us, rts_up);
  EXPECT_EQ(edges[2].time_us - rts_up, timing.rts_down_us);
  EXPECT_EQ(edges[3].time_us, edges[2].time_us);

  const std::vector<uint64_t> starts = MasterByteStarts(*line_);
  ASSERT_EQ(starts.size(), 10u);
  const uint64_t char_us = MemoryLine::CharMicros(BaudRateOf(timing.baud_code));
  EXPECT_EQ(starts[0] - rts_up, timing.first_byte_us);
  for (size_t i = 1; i < starts.size(); ++i)
    EXPECT_EQ(starts[i] - starts[0], MemoryLine::CharMicros(BaudRateOf(timing.baud_code), i)) << i;
  // RTS falls only after the last byte has left.
  EXPECT_GT(edges[2].time_us, starts[9] + char_us);
  EXPECT_EQ(FarReceived(), Frame(5, {0x02, 0x80, 0x00, 0x00}));
}

INSTANTIATE_TEST_SUITE_P(
    Rates, TransmitSequenceTest,
    ::testing::Values(
        // 1200: 2 + 83 + ceil(91.67 - 85) + 10 = 104 ms
        TransmitTiming{0, 0, 2000, 104000},
        // nExtraRtsDelay counts at 1200 baud only
        TransmitTiming{0, 5, 2000, 109000},
        // 9600: 1 + 10 + ceil(12.46 - 11) + 3 = 16 ms
        TransmitTiming{1, 0, 1000, 16000}, TransmitTiming{1, 5, 1000, 16000},
        // 19200: 1 + 5 + ceil(6.73 - 6) + 2 = 9 ms
        TransmitTiming{2, 0, 1000, 9000}));

TEST_F(ExchangeTest, PlainExchangeOnFreeLineDeliversReplyAndHoldsOff) {
  line_->SetMasterEcho(true);
  AutoReply(Cmd0Reply);
  ReachLineFree();
  std::vector<unsigned int> states = {Port().nMacState.load()};
  const unsigned int hServ = Send(0);
  ASSERT_NE(hServ, kNone);
  uint64_t hold_off_from_us = 0;
  RunUntil(
      [&] {
        const unsigned int state = Port().nMacState.load();
        if (state != states.back()) {
          states.push_back(state);
          if (state == macHoldOff) hold_off_from_us = NowUs();
        }
        return states.size() >= 4;
      },
      1000);
  EXPECT_EQ(states, (std::vector<unsigned int>{macLineFree, macFreeReplyWait, macHoldOff, macLineFree}));

  const std::vector<MSG> replies = Replies();
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_EQ(replies[0].wParam, hServ);
  // 8 data bytes behind status bytes 0x00 and 0x40.
  EXPECT_EQ(static_cast<unsigned int>(replies[0].lParam), 0x80040u);

  unsigned char data[256] = {};
  tagHARTREQUEST reply{};
  reply.pData = data;
  unsigned int app_id = 0;
  ASSERT_EQ(HART_ReceiveRequest(kApp, hServ, &reply, &app_id), 1u);
  EXPECT_EQ(reply.nDataCount, 8u);
  EXPECT_EQ(reply.nResponseCode, 0x00);
  EXPECT_EQ(reply.nDeviceStatus, 0x40);
  EXPECT_EQ(reply.nCommand, 0u);
  EXPECT_EQ(app_id, 0x00120034u);
  EXPECT_TRUE(std::equal(data, data + 8, kCmd0Data + 2));
  EXPECT_EQ(ServiceTable[hServ].nServiceState.load(), 0u);
  EXPECT_EQ(HART_ReceiveRequest(kApp, hServ, &reply, &app_id), 0u);
  (void)hold_off_from_us;
}

TEST_F(ExchangeTest, HoldOffCountsFromTheReplysLastByte) {
  AutoReply(Cmd0Reply);
  ReachLineFree();
  Send(0);
  ASSERT_TRUE(RunUntil([&] { return Port().nMacState.load() == macHoldOff; }, 1000));
  const uint32_t last_rx = Port().pTimer->tLastRx;
  EXPECT_EQ(Port().pTimer->tStart, last_rx);
  EXPECT_EQ(Port().pTimer->nTimeOutMs, 100u);
  ASSERT_TRUE(RunUntil([&] { return Port().nMacState.load() == macLineFree; }, 300));
  // Fires in the first pass that starts strictly past tStart + 100; passes are 5 ms apart and
  // the check here follows that pass's own sleep.
  EXPECT_GT(platform::NowMs(), last_rx + 100);
  EXPECT_LE(platform::NowMs(), last_rx + 100 + 5 + 5);
}

struct RetryCase {
  unsigned int retries;
  std::vector<unsigned int> monitor_codes;
  unsigned int transmissions;
};

class RetryTest : public ExchangeTest, public ::testing::WithParamInterface<RetryCase> {};

TEST_P(RetryTest, SilentDeviceGetsRetriesThenFailureNotice) {
  const RetryCase c = GetParam();
  HWND monitor = CreateNoticeWindow();
  ASSERT_EQ(RegisterLLMonitor(kApp, monitor, kMonitorMsg), 1u);
  Port().nRetries = c.retries;
  ReachLineFree();
  MonitorNotices(monitor);
  const unsigned int hServ = Send(0);
  ASSERT_TRUE(RunUntil([&] { return PendingReplies() > 0; }, 4000));

  std::vector<unsigned int> codes;
  unsigned int transmissions = 0;
  for (auto [code, size] : MonitorNotices(monitor)) {
    if (code == 0) {
      ++transmissions;
      EXPECT_EQ(size, 10 + 8);
    } else {
      codes.push_back(code);
    }
  }
  EXPECT_EQ(codes, c.monitor_codes);
  EXPECT_EQ(transmissions, c.transmissions);
  EXPECT_EQ(FarReceived().size(), 10u * c.transmissions);

  tagHARTREQUEST reply{};
  unsigned char data[256];
  reply.pData = data;
  ASSERT_EQ(HART_ReceiveRequest(kApp, hServ, &reply, nullptr), 1u);
  EXPECT_EQ(reply.nDataCount, 0u);
  EXPECT_EQ(reply.nResponseCode, 128);
  EXPECT_EQ(reply.nDeviceStatus, 0);
  UnRegisterLLMonitor(kApp);
  MonitorNotices(monitor);
  DestroyNoticeWindow(monitor);
}

INSTANTIATE_TEST_SUITE_P(Retries, RetryTest,
                         ::testing::Values(RetryCase{0, {3}, 1}, RetryCase{2, {1, 1, 3}, 3}));

TEST_F(ExchangeTest, FailureNoticeCarriesTheFailureWord) {
  ReachLineFree();
  const unsigned int hServ = Send(0);
  const std::vector<MSG> replies = AwaitReplies(2000);
  ASSERT_FALSE(replies.empty());
  EXPECT_EQ(replies[0].wParam, hServ);
  EXPECT_EQ(static_cast<unsigned int>(replies[0].lParam), 0xFFFFu);
}

TEST_F(ExchangeTest, CommunicationErrorIsRetriedThenTheGoodReplyDelivered) {
  HWND monitor = CreateNoticeWindow();
  RegisterLLMonitor(kApp, monitor, kMonitorMsg);
  Port().nRetries = 1;
  int answered = 0;
  AutoReply([&](const std::vector<unsigned char> &request) {
    ++answered;
    if (answered == 1) return ShortResponse(0, request[2], {0x84, 0x00});
    return Cmd0Reply(request);
  });
  ReachLineFree();
  const unsigned int hServ = Send(0);
  const std::vector<MSG> replies = AwaitReplies(3000);
  ASSERT_FALSE(replies.empty());
  EXPECT_EQ(answered, 2);
  EXPECT_EQ(static_cast<unsigned int>(replies[0].lParam), 0x80040u);
  std::vector<unsigned int> codes;
  for (auto [code, size] : MonitorNotices(monitor))
    if (code != 0) codes.push_back(code);
  EXPECT_EQ(codes, (std::vector<unsigned int>{2}));
  tagHARTREQUEST reply{};
  unsigned char data[256];
  reply.pData = data;
  EXPECT_EQ(HART_ReceiveRequest(kApp, hServ, &reply, nullptr), 1u);
  UnRegisterLLMonitor(kApp);
  DestroyNoticeWindow(monitor);
}

TEST_F(ExchangeTest, ReplyWithoutStatusBytesCountsAsCommunicationError) {
  int answered = 0;
  AutoReply([&](const std::vector<unsigned char> &request) {
    ++answered;
    return ShortResponse(0, request[2], {});
  });
  ReachLineFree();
  const unsigned int hServ = Send(0);
  const std::vector<MSG> replies = AwaitReplies(2000);
  ASSERT_FALSE(replies.empty());
  EXPECT_EQ(answered, 1);
  EXPECT_EQ(replies[0].wParam, hServ);
  EXPECT_EQ(static_cast<unsigned int>(replies[0].lParam), 0xFFFFu);
}

class BusyTest : public ExchangeTest, public ::testing::WithParamInterface<bool> {};

TEST_P(BusyTest, BusyIsRepeatedOnlyWhenAsked) {
  const bool repeat = GetParam();
  AppTable[kApp].bRepeatIfBusy = repeat ? 1 : 0;
  int answered = 0;
  AutoReply([&](const std::vector<unsigned char> &request) {
    ++answered;
    if (answered == 1) return ShortResponse(0, request[2], {32, 0x00});
    return Cmd0Reply(request);
  });
  ReachLineFree();
  const unsigned int hServ = Send(0);
  std::vector<MSG> all;
  ASSERT_TRUE(RunUntil(
      [&] {
        for (const MSG &m : Drain(app_window_)) all.push_back(m);
        return std::any_of(all.begin(), all.end(), [](const MSG &m) { return m.message == kReplyMsg; });
      },
      3000));
  const auto busy = std::count_if(all.begin(), all.end(), [](const MSG &m) { return m.message == 1167; });
  const auto reply = std::find_if(all.begin(), all.end(), [](const MSG &m) { return m.message == kReplyMsg; });
  EXPECT_EQ(reply->wParam, hServ);
  if (repeat) {
    EXPECT_EQ(busy, 1);
    EXPECT_EQ(answered, 2);
    EXPECT_EQ(static_cast<unsigned int>(reply->lParam), 0x80040u);
    const auto notice = std::find_if(all.begin(), all.end(), [](const MSG &m) { return m.message == 1167; });
    EXPECT_EQ(notice->wParam, 0u);
    EXPECT_EQ(notice->lParam, 77);
    // The same frame went out twice, byte for byte.
    const std::vector<unsigned char> frame = Frame(5, {0x02, 0x80, 0x00, 0x00});
    std::vector<unsigned char> twice = frame;
    twice.insert(twice.end(), frame.begin(), frame.end());
    EXPECT_EQ(FarReceived(), twice);
  } else {
    EXPECT_EQ(busy, 0);
    EXPECT_EQ(answered, 1);
    EXPECT_EQ(static_cast<unsigned int>(reply->lParam), 0x2000u);
  }
}

INSTANTIATE_TEST_SUITE_P(RepeatIfBusy, BusyTest, ::testing::Bool());

TEST_F(ExchangeTest, Command39InLongFrameIsNeverRepeated) {
  AppTable[kApp].bRepeatIfBusy = 1;
  int answered = 0;
  AutoReply([&](const std::vector<unsigned char> &request) {
    ++answered;
    return Frame(5, {0x86, static_cast<unsigned char>(0x80 | (request[1] & 0x3F)), request[2], request[3], request[4], request[5], request[6],
                     2, 32, 0});
  });
  ReachLineFree();
  tagHARTREQUEST request{};
  request.nCommand = 39;
  request.nAddressFormat = 2;
  unsigned char address[5] = {0x26, 0x06, 0x01, 0x02, 0x03};
  std::copy(address, address + 5, request.abLongAddress);
  const unsigned int hServ = HART_SendRequest(kApp, &request, 1);
  ASSERT_NE(hServ, kNone);
  const std::vector<MSG> replies = AwaitReplies(2000);
  ASSERT_FALSE(replies.empty());
  EXPECT_EQ(answered, 1);
  EXPECT_EQ(static_cast<unsigned int>(replies[0].lParam), 0x2000u);
}

TEST_F(ExchangeTest, BurstBitInDeliveredReplySetsTheWordsBit27) {
  AutoReply([](const std::vector<unsigned char> &request) {
    return Frame(5, {0x06, 0x80 | 0x40, request[2], 2, 0x00, 0x00});
  });
  ReachLineFree();
  Send(0);
  const std::vector<MSG> replies = AwaitReplies(2000);
  ASSERT_FALSE(replies.empty());
  EXPECT_EQ(static_cast<unsigned int>(replies[0].lParam), 0x8000000u);
}

TEST_F(ExchangeTest, OtherMastersExchangeHeardFirstThenOwnTurn) {
  ReachLineFree();
  AutoReply(Cmd0Reply);
  // Queue our request while the other master's request is already on the line, so that the
  // turn after the other exchange is ours.
  const std::vector<unsigned char> other_request = Frame(5, {0x02, 0x00, 0x01, 0x00});
  FarSend(other_request);
  std::vector<unsigned int> states = {Port().nMacState.load()};
  auto track = [&] {
    const unsigned int state = Port().nMacState.load();
    if (state != states.back()) states.push_back(state);
  };
  // The other master's request (secondary bit): type 3.
  ASSERT_TRUE(RunUntil(
      [&] {
        track();
        return Port().nMacState.load() == macPeerRequestHeard;
      },
      500));
  const unsigned int hServ = Send(0);
  ASSERT_NE(hServ, kNone);
  // The device answers the other master (bit 7 clear): type 6, our turn.
  FarSend(ShortResponse(0, 1, {0x00, 0x00, 0x07, 0x3F, 0x80, 0x00, 0x00}, false), NowUs() + 20000);
  ASSERT_TRUE(RunUntil(
      [&] {
        track();
        return !Replies().empty();
      },
      2000));
  RunUntil(
      [&] {
        track();
        return Port().nMacState.load() == macLineFree;
      },
      500);
  EXPECT_EQ(states, (std::vector<unsigned int>{macLineFree, macPeerRequestHeard, macPeerReplyRunning,
                                               macOwnTurnGap, macTurnReplyWait, macHoldOff, macLineFree}));
}

struct RoleCase {
  unsigned int configured_primary;
  unsigned char heard_address;
  unsigned int expect_primary;
  const char *expect_line;
};

class RoleChangeTest : public ExchangeTest, public ::testing::WithParamInterface<RoleCase> {};

TEST_P(RoleChangeTest, HeardMasterDecidesTheRole) {
  const RoleCase c = GetParam();
  Port().bPrimaryMaster = c.configured_primary;
  Rx().bRxRolePrimary = c.configured_primary;
  Port().dwDebugFlags = 1;
  ReachLineFree();
  FarSend(Frame(5, {0x02, c.heard_address, 0x00, 0x00}));
  ASSERT_TRUE(RunUntil([&] { return Port().nMacState.load() == macPeerRequestHeard; }, 500));
  EXPECT_EQ(Port().bPrimaryMaster.load(), c.expect_primary);
  EXPECT_EQ(Rx().bRxRolePrimary, c.expect_primary);
  RunFor(400);
  std::string states;
  WithHistory([&](typHistoryRecord *records, unsigned int open) {
    for (unsigned int i = 0; i <= open && i < 100; ++i)
      if (records[i].psStates) states += records[i].psStates->str();
  });
  if (c.expect_line) {
    EXPECT_NE(states.find(c.expect_line), std::string::npos) << states;
  } else {
    EXPECT_EQ(states.find("I am"), std::string::npos) << states;
  }
  // Frames built from now on carry the new role's master bit.
  tagHARTREQUEST request{};
  unsigned char frame[256];
  unsigned int length = 0;
  ASSERT_TRUE(BuildFrameChecked(Port(), request, frame, sizeof frame, &length));
  EXPECT_EQ(frame[6], c.expect_primary ? 0x80 : 0x00);
}

INSTANTIATE_TEST_SUITE_P(Roles, RoleChangeTest,
                         ::testing::Values(RoleCase{1, 0x80, 0, "I am secondary"}, RoleCase{0, 0x00, 1, "I am primary"},
                                           RoleCase{1, 0x00, 1, nullptr}));

TEST_F(ExchangeTest, BurstFrameToOtherMasterGivesTurnThroughBurstGap) {
  AutoReply(Cmd0Reply);
  ReachLineFree();
  std::vector<unsigned int> states;
  FarSend(ShortResponse(0, 3, {0x00, 0x00, 0x01}, false, 5, true));
  // The request comes while the burst frame is being received: no fetch happens during a
  // reception, so the burst frame's end is what gives this master the turn.
  ASSERT_TRUE(RunUntil([&] { return Rx().nRxState >= 2; }, 200));
  ASSERT_NE(Send(0), kNone);
  ASSERT_TRUE(RunUntil(
      [&] {
        const unsigned int state = Port().nMacState.load();
        if (states.empty() || states.back() != state) states.push_back(state);
        return state == macTurnReplyWait;
      },
      1000));
  EXPECT_NE(std::find(states.begin(), states.end(), macBurstGap), states.end());
}

TEST_F(ExchangeTest, BurstFramesReachEveryApplicationThatAsked) {
  HWND other = CreateNoticeWindow();
  AppTable[kApp].nBurstAppKey = 0x55;
  AppTable[20].nBurstAppKey = 0x66;
  AppTable[20].hWnd = other;
  AppTable[20].nReplyMsg = 0x777;
  ReachLineFree();
  FarSend(ShortResponse(0, 3, {0x00, 0x00, 0x01, 0x02}, true, 5, true));
  RunFor(200);
  const std::vector<MSG> mine = Replies();
  ASSERT_EQ(mine.size(), 1u);
  EXPECT_EQ(mine[0].wParam, 65535u);
  EXPECT_EQ(mine[0].lParam, 0x55);
  const std::vector<MSG> theirs = Drain(other);
  ASSERT_EQ(theirs.size(), 1u);
  EXPECT_EQ(theirs[0].message, 0x777u);
  EXPECT_EQ(theirs[0].lParam, 0x66);
  EXPECT_EQ(fncGetBurstCount(kApp), 1u);
  typQueueElement *burst = fncFindReceiveService(kApp, 65535);
  ASSERT_NE(burst, nullptr);
  EXPECT_EQ(burst->nReplyCommand, 3u);
  EXPECT_EQ(burst->nDataLen, 4u);
  fncClearBurstQueue(kApp);
  fncClearBurstQueue(20);
  EXPECT_EQ(fncGetBurstCount(kApp), 0u);
  DestroyNoticeWindow(other);
}

TEST_F(ExchangeTest, NoiseOnTheFreeLineDelaysTheRequestUntilQuiet) {
  AutoReply(Cmd0Reply);
  ReachLineFree();
  FarSend({0x11, 0x22, 0x33, 0x44, 0x55, 0x66});
  RunFor(100);
  EXPECT_EQ(RuntimeOf(Port()).counters.frames_discarded.load(), 1u);
  Send(0);
  std::vector<unsigned int> states;
  ASSERT_TRUE(RunUntil(
      [&] {
        const unsigned int state = Port().nMacState.load();
        if (states.empty() || states.back() != state) states.push_back(state);
        return !Replies().empty();
      },
      2000));
  // The noise left bytes counted, so the request waited for quiet: 6, 1, 6, 7, 8.
  EXPECT_EQ(states.front(), macLineFree);
  EXPECT_NE(std::find(states.begin(), states.end(), macWaitQuiet), states.end());
}

TEST_F(ExchangeTest, ReplyCutOffIsDroppedByTheGapRuleAndRetried) {
  Port().nRetries = 1;
  int answered = 0;
  AutoReply([&](const std::vector<unsigned char> &request) {
    ++answered;
    std::vector<unsigned char> reply = Cmd0Reply(request);
    if (answered == 1) reply.resize(reply.size() - 4);
    return reply;
  });
  ReachLineFree();
  const unsigned int hServ = Send(0);
  const std::vector<MSG> replies = AwaitReplies(3000);
  ASSERT_FALSE(replies.empty());
  EXPECT_EQ(answered, 2);
  EXPECT_EQ(replies[0].wParam, hServ);
  EXPECT_EQ(static_cast<unsigned int>(replies[0].lParam), 0x80040u);
  EXPECT_EQ(RuntimeOf(Port()).counters.frames_cut_off.load(), 1u);
}

TEST_F(ExchangeTest, TwoSilentRequestsAt1200BaudToggleTheRate) {
  Port().nRetries = 1;
  ReachLineFree();
  line_->ClearRecord();
  Send(0);
  Send(0);
  unsigned int failures = 0;
  ASSERT_TRUE(RunUntil(
      [&] {
        failures += static_cast<unsigned int>(Replies().size());
        return failures == 2;
      },
      6000));
  RunFor(300);
  std::vector<uint32_t> rates;
  for (const auto &event : line_->Record())
    if (event.kind == MemoryLine::EventKind::kBaud && event.end == MemoryLine::kMasterEnd)
      rates.push_back(event.value);
  EXPECT_EQ(rates, (std::vector<uint32_t>{9600, 1200}));
  EXPECT_EQ(Port().nFailedCycles, 0u);
}

}  // namespace
}  // namespace velmora::test
