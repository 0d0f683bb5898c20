// Stories of the link layer on the in-memory line in virtual time: a scripted field
// device at the far end, the worker's passes run by the test, every microsecond exact.
#include <optional>
#include <tuple>

#include "link/link_counters.h"
#include "link/mac.h"
#include "tables/tables.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

using platform::MemoryLine;
using Kind = MemoryLine::EventKind;
using Edges = std::vector<std::tuple<char, uint32_t, uint64_t>>;  // R(TS) or D(TR), level, time
using Words = std::vector<unsigned int>;
using Reply = std::tuple<unsigned int, unsigned char, unsigned char, Bytes>;  // command, code, status, data
using MonitorList = std::vector<std::pair<unsigned int, int>>;

const Bytes kCmd0Data = {0x00, 0x40, 0xFE, 0x26, 0x06, 0x05, 0x05, 0x01, 0x02, 0x03};
const Bytes kCmd0Request = Frame(5, {0x02, 0x80, 0x00, 0x00});
const Bytes kCmd0Reply = ShortResponse(0, 0, kCmd0Data);

// Monitor notices as (event code, array size); the array of a frame's notice holds one of the
// frames given, then its two times. The arrays are freed here, as a receiver must.
MonitorList MonitorNotices(const std::vector<MSG> &notices, const std::vector<Bytes> &frames) {
  MonitorList out;
  for (const MSG &msg : notices) {
    std::unique_ptr<CByteArray> bytes(reinterpret_cast<CByteArray *>(msg.lParam));
    out.emplace_back(static_cast<unsigned int>(msg.wParam), bytes->GetSize());
    const Bytes frame(bytes->GetData(), bytes->GetData() + std::max(bytes->GetSize(), 8) - 8);
    EXPECT_TRUE(msg.wParam != 0 || std::count(frames.begin(), frames.end(), frame)) << ::testing::PrintToString(frame);
  }
  return out;
}

class ExchangeTest : public LinkFixture {
 protected:
  bool AwaitState(unsigned int state, unsigned int ms) {
    return RunUntil([&] { return Port().nMacState.load() == state; }, ms);
  }
  // The reply's command, response code, device status and data; none if none was waiting.
  std::optional<Reply> Receive(unsigned int hServ) {
    unsigned char data[256];
    tagHARTREQUEST r{};
    r.pData = data;
    if (HART_ReceiveRequest(kApp, hServ, &r, nullptr) != 1) return std::nullopt;
    return Reply{r.nCommand, r.nResponseCode, r.nDeviceStatus, Bytes(data, data + r.nDataCount)};
  }
};

// Command 0 at each rate on the free line, and at 1200 baud after what the far end sent before:
// another master's exchange (whose request of this port's role gives this port the other role),
// a burst frame to the other master (a request is not fetched during a reception) and noise (the
// request waits for quiet). Each row: the master's RTS and DTR edges and byte times (from RTS
// rising: lead-in, the bytes, the frame wait cut to whole ms, the drain rounded up, the tail), its
// frame, the states, the hold-off from the reply's last byte, the notices and the reply itself.
TEST_F(ExchangeTest, CommandZero) {
  auto exchange = [](unsigned char master) {  // another master's command 1 and its answer
    Bytes bytes = Frame(5, {0x02, master, 0x01, 0x00});
    const Bytes reply = ShortResponse(0, 1, {0, 0, 7, 0x3F, 0x80, 0, 0}, master);
    bytes.insert(bytes.end(), reply.begin(), reply.end());
    return bytes;
  };
  Bytes bursts = ShortResponse(0, 3, {0, 0, 1}, false, 5, true);  // two to the other master, back to back
  bursts.insert(bursts.end(), bursts.begin(), bursts.end());
  Bytes cut_off = Frame(5, {0x02, 0x00, 0x01, 0x00});
  cut_off.insert(cut_off.end(), {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x06, 0x00, 0x01, 0x20, 0x00, 0x00});
  const Words free = {macLineFree, macFreeReplyWait, macHoldOff};  // one record closes on the way
  // Two records close: the other master's exchange and this one's.
  const Words turn = {macLineFree, macPeerRequestHeard, macPeerReplyRunning, macOwnTurnGap, macTurnReplyWait,
                      macHoldOff};
  struct Row {
    unsigned baud_code, extra_rts_delay;
    uint64_t first_us, last_us, rts_down_us;  // first byte, last byte after the first, RTS down
    unsigned primary_before;
    Bytes far;  // sent before the request, which follows this long after their first byte:
    unsigned request_ms, discarded, history_notices;
    Words states;  // from the free line to the hold-off
    unsigned primary_after;
    const char *trace;  // a line in the state trace; none: no "I am" line
  } rows[] = {
      {0, 0, 2000, 82500, 104000, 1, {}, 0, 0, 1, free, 1, nullptr},  // 2 + 83 + ceil(91.67 - 85) + 10
      {0, 5, 2000, 82500, 109000, 1, {}, 0, 0, 1, free, 1, nullptr},  // the extra delay counts at 1200 only
      {1, 0, 1000, 10312, 16000, 1, {}, 0, 0, 1, free, 1, nullptr},   // 1 + 10 + ceil(12.46 - 11) + 3
      {1, 5, 1000, 10312, 16000, 1, {}, 0, 0, 1, free, 1, nullptr},
      {2, 0, 1000, 5156, 9000, 1, {}, 0, 0, 1, free, 1, nullptr},  // 1 + 5 + ceil(6.73 - 6) + 2
      {0, 0, 2000, 82500, 104000, 1, exchange(0x00), 95, 0, 2, turn, 1, nullptr},
      {0, 0, 2000, 82500, 104000, 1, exchange(0x80), 95, 0, 2, turn, 0, "I am secondary"},
      {0, 0, 2000, 82500, 104000, 0, exchange(0x00), 95, 0, 2, turn, 1, "I am primary"},
      {0, 0, 2000, 82500, 104000, 1, ShortResponse(0, 3, {0, 0, 1}, false, 5, true), 0, 0, 1,
       {macLineFree, macBurstGap, macTurnReplyWait, macHoldOff}, 1, nullptr},
      // Burst frames to the other master while this one has nothing to send: it waits for quiet.
      {0, 0, 2000, 82500, 104000, 1, bursts, 400, 0, 1,
       {macLineFree, macWaitQuiet, macLineFree, macFreeReplyWait, macHoldOff}, 1, nullptr},
      {0, 0, 2000, 82500, 104000, 1, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66}, 100, 1, 1,
       {macLineFree, macWaitQuiet, macLineFree, macFreeReplyWait, macHoldOff}, 1, nullptr},
      // The other master's reply is cut off (32 data bytes promised, 2 come): quiet of the idle
      // time-out since its last byte frees the line, with no second wait for quiet.
      {0, 0, 2000, 82500, 104000, 1, cut_off, 95, 0, 1,
       {macLineFree, macPeerRequestHeard, macPeerReplyRunning, macLineFree, macFreeReplyWait, macHoldOff}, 1,
       nullptr},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(::testing::Message() << "baud code " << row.baud_code << ", extra " << row.extra_rts_delay
                                      << ", far end " << ::testing::PrintToString(row.far));
    OpenAt(row.baud_code);
    Port().nExtraRtsDelay = row.extra_rts_delay;
    Port().bPrimaryMaster = Rx().bRxRolePrimary = row.primary_before;
    line_->SetMasterEcho(true);  // the parser must not take its own request for a reply
    AutoReply([](const Bytes &request) { return ShortResponse(0, 0, kCmd0Data, request[1] & 0x80); });
    ASSERT_TRUE(AwaitState(macLineFree, 400));
    line_->ClearRecord();
    const auto discarded_before = CountersOf(Port()).frames_discarded.load();
    FarSend(row.far);
    ASSERT_TRUE(row.far.empty() || RunUntil([&] { return Rx().nBytesThisCycle != 0; }, 200));
    RunFor(row.request_ms);
    const unsigned int hServ = Send(0);
    ASSERT_TRUE(AwaitState(macHoldOff, 2000));
    const uint32_t last_rx = Port().pTimer->tLastRx;
    EXPECT_EQ(std::pair(Port().pTimer->tStart, Port().pTimer->nTimeOutMs), std::pair(last_rx, 100u));
    ASSERT_TRUE(AwaitState(macLineFree, 300));
    // Fires in the first pass strictly past the end; passes are at most 5 ms apart.
    EXPECT_GT(platform::NowMs(), last_rx + 100);
    EXPECT_LE(platform::NowMs(), last_rx + 110);
    EXPECT_EQ(Words(states_.begin() + 2, states_.end() - 1), row.states);

    Edges edges;
    std::vector<uint64_t> starts;
    for (const MemoryLine::Event &e : line_->Record()) {
      if (e.end != MemoryLine::kMasterEnd) continue;
      if (e.kind == Kind::kByte) starts.push_back(e.time_us);
      if (e.kind == Kind::kRts || e.kind == Kind::kDtr)
        edges.emplace_back(e.kind == Kind::kRts ? 'R' : 'D', e.value, e.time_us);
    }
    const uint64_t rts_up = std::get<2>(edges.at(0)), rts_down = rts_up + row.rts_down_us;
    EXPECT_EQ(edges, (Edges{{'R', 1, rts_up}, {'D', 0, rts_up}, {'R', 0, rts_down}, {'D', 1, rts_down}}));
    ASSERT_EQ(starts.size(), kCmd0Request.size());
    EXPECT_EQ(starts.front() - rts_up, row.first_us);
    EXPECT_EQ(starts.back() - starts.front(), row.last_us);
    // The frame carries the master bit of the port's role.
    const Bytes request = Frame(5, {0x02, static_cast<unsigned char>(row.primary_after ? 0x80 : 0), 0, 0});
    EXPECT_EQ(Bytes(far_in_.end() - 10, far_in_.end()), request);
    EXPECT_EQ(std::pair(Port().bPrimaryMaster.load(), Rx().bRxRolePrimary),
              std::pair(row.primary_after, row.primary_after));
    EXPECT_EQ(CountersOf(Port()).frames_discarded.load() - discarded_before, row.discarded);
    // The history: the request and the decoded reply, the service and state traces.
    const std::string text = GetHistory(30).str();
    EXPECT_EQ(text.find(row.trace ? row.trace : "I am") != std::string::npos, row.trace != nullptr) << text;
    for (const char *part : {"Request, Preambles 5, STX, CMD 0, ", "Rsp Code 1: 00", "remSRQ/TRXq, hServ: ", "Tend"})
      EXPECT_NE(text.find(part), std::string::npos) << part << " in\n" << text;

    ASSERT_EQ(Notices(kReplyMsg).size(), 1u);  // the word: 8 data bytes, status 0x00 0x40
    EXPECT_EQ(std::pair(Notices(kReplyMsg)[0].wParam, Notices(kReplyMsg)[0].lParam),
              std::pair(hServ + 0ul, 0x80040l));
    EXPECT_EQ(Drain(history_window_).size(), row.history_notices);  // records closed
    EXPECT_EQ(Receive(hServ), Reply(0, 0x00, 0x40, Bytes(kCmd0Data.begin() + 2, kCmd0Data.end())));
  }
}

// How each answer (or silence) of the device ends a request: what went out, the monitor's
// events, the notices, the word of the reply notice and the reply.
TEST_F(ExchangeTest, AnswersAndSilence) {
  const Bytes none, error = ShortResponse(0, 0, {0x84, 0}), busy = ShortResponse(0, 0, {32, 0});
  const Bytes cut(kCmd0Reply.begin(), kCmd0Reply.end() - 4), burst_bit = Frame(5, {0x06, 0xC0, 0, 2, 0, 0});
  const Bytes long_busy = Frame(5, {0x86, 0xA6, 0x06, 0x01, 0x02, 0x03, 39, 2, 32, 0}), cmd0 = kCmd0Request;
  const Bytes cmd39 = Frame(5, {0x82, 0xA6, 0x06, 0x01, 0x02, 0x03, 39, 0});
  const Bytes burst = ShortResponse(1, 3, {0x00, 0x00, 0x01}, true, 5, true);
  // device answers (one per request sent), the request's frame, retries, repeat if busy,
  // reply word, busy notices, frames cut off; monitor (event, size): 0 a frame each way (+8 bytes),
  // 1 retry, 2 retry after a communication error, 3 failed
  const std::tuple<std::vector<Bytes>, Bytes, unsigned, unsigned, unsigned, size_t, unsigned, MonitorList>
      rows[] = {
        {{none}, cmd0, 0, 0, 0xFFFF, 0, 0, {{0, 18}, {3, 8}}},
        {{none, none, none}, cmd0, 2, 0, 0xFFFF, 0, 0, {{0, 18}, {1, 8}, {0, 18}, {1, 8}, {0, 18}, {3, 8}}},
        {{error, kCmd0Reply}, cmd0, 1, 0, 0x80040, 0, 0, {{0, 18}, {0, 20}, {2, 8}, {0, 18}, {0, 28}}},
        {{ShortResponse(0, 0, {})}, cmd0, 0, 0, 0xFFFF, 0, 0, {{0, 18}, {0, 18}}},  // no status bytes
        // A cut-off reply is dropped by the gap rule: its bytes come with the time-out.
        {{cut, kCmd0Reply}, cmd0, 1, 0, 0x80040, 0, 1, {{0, 18}, {1, 24}, {1, 8}, {0, 18}, {0, 28}}},
        {{busy, kCmd0Reply}, cmd0, 0, 1, 0x80040, 1, 0, {{0, 18}, {0, 20}, {0, 18}, {0, 28}}},
        {{busy}, cmd0, 0, 0, 0x2000, 0, 0, {{0, 18}, {0, 20}}},         // busy repeated only when asked
        {{long_busy}, cmd39, 0, 1, 0x2000, 0, 0, {{0, 22}, {0, 24}}},     // command 39: never repeated
        {{burst_bit}, cmd0, 0, 0, 0x8000000, 0, 0, {{0, 18}, {0, 20}}},  // the burst bit is bit 27
        // Another device's burst frame in place of the reply costs a try, each time.
        {{burst, burst, burst}, cmd0, 2, 0, 0xFFFF, 0, 0, {{0, 18}, {0, 21}, {0, 18}, {0, 21}, {0, 18}, {0, 21}}},
      };
  for (const auto &[answers, frame, retries, repeat, word, busy_notices, cut_off, monitor_list] : rows) {
    SCOPED_TRACE(::testing::Message() << "word " << word << ", " << answers.size() << " answers");
    OpenAt(0);
    ASSERT_EQ(RegisterLLMonitor(kApp, app_window_, kMonitorMsg), 1u);
    Port().nRetries = retries;
    AppTable[kApp].bRepeatIfBusy = repeat;
    size_t answered = 0;
    AutoReply([&, &answers = answers](const Bytes &) { return answers.at(answered++); });
    ASSERT_TRUE(AwaitState(macLineFree, 400));
    const auto cut_off_before = CountersOf(Port()).frames_cut_off.load();
    tagHARTREQUEST request{};  // the one whose frame is expected
    request.nAddressFormat = frame[5] == 0x82 ? 2 : 0;
    if (request.nAddressFormat == 2) std::copy_n(frame.begin() + 6, 5, request.abLongAddress);
    request.nCommand = frame[frame.size() - 3];
    const unsigned int hServ = HART_SendRequest(kApp, &request, 1);
    ASSERT_TRUE(RunUntil([&] { return !Notices(kReplyMsg).empty(); }, 4000));
    RunFor(20);
    Bytes sent;
    for (size_t i = 0; i < answers.size(); ++i) sent.insert(sent.end(), frame.begin(), frame.end());
    EXPECT_EQ(far_in_, sent);  // the same frame each time, byte for byte
    std::vector<Bytes> frames = answers;
    frames.push_back(frame);
    EXPECT_EQ(MonitorNotices(Notices(kMonitorMsg), frames), monitor_list);
    ASSERT_EQ(Notices(kReplyMsg).size(), 1u);
    EXPECT_EQ(std::pair(Notices(kReplyMsg)[0].wParam, Notices(kReplyMsg)[0].lParam),
              std::pair(hServ + 0ul, word + 0l));
    EXPECT_EQ(Notices(1167).size(), busy_notices);
    for (const MSG &m : Notices(1167)) EXPECT_EQ(std::pair(m.wParam, m.lParam), std::pair(0ul, 77l));
    EXPECT_EQ(CountersOf(Port()).frames_cut_off.load() - cut_off_before, cut_off);
    const std::optional<Reply> reply = Receive(hServ);
    ASSERT_TRUE(reply.has_value());
    // A failed request's reply: no data, response code 128, status 0.
    EXPECT_EQ(*reply, word == 0xFFFF ? Reply(0, 128, 0, Bytes{}) : *reply);
  }
}

TEST_F(ExchangeTest, BurstFramesReachEveryApplicationThatAsked) {
  AppTable[kApp].nBurstAppKey = 0x55;
  // Row 20 keeps a key but is not in use, row 22 is in use without a key: neither gets anything.
  for (unsigned int row : {20u, 21u, 22u}) {
    AppTable[row].nBurstAppKey = row == 22 ? 0 : 0x46 + row;
    AppTable[row].bInUse = row != 20;
    AppTable[row].hWnd = app_window_;
    AppTable[row].nReplyMsg = 0x757 + row;
  }
  ASSERT_TRUE(AwaitState(macLineFree, 400));
  FarSend(ShortResponse(0, 3, {0x00, 0x00, 0x01, 0x02}, true, 5, true));
  RunFor(200);
  const std::vector<MSG> mine = Notices(kReplyMsg), theirs = Notices(0x76C);
  ASSERT_EQ(std::tuple(mine.size(), theirs.size(), Notices(0x76B).size() + Notices(0x76D).size()),
            std::tuple(size_t{1}, size_t{1}, size_t{0}));
  EXPECT_EQ(std::pair(mine[0].wParam, mine[0].lParam), std::pair(65535ul, 0x55l));
  EXPECT_EQ(theirs[0].lParam, 0x5B);
  EXPECT_EQ(fncGetBurstCount(20), 0u);
  EXPECT_EQ(fncGetBurstCount(kApp), 1u);
  const typQueueElement *burst = fncFindReceiveService(kApp, VELMORA_BURST_SERVICE);
  ASSERT_NE(burst, nullptr);
  EXPECT_EQ(std::make_pair(burst->nReplyCommand, Bytes(burst->pData, burst->pData + burst->nDataLen)),
            std::make_pair(3u, Bytes{0, 0, 1, 2}));
}

// The owner of the request in service leaves before the reply is in (leaving marks the row
// abandoned): the reply is dropped unannounced and the row freed.
TEST_F(ExchangeTest, ReplyForAnOwnerThatLeftIsDropped) {
  AutoReply([](const Bytes &) { return kCmd0Reply; });
  ASSERT_TRUE(AwaitState(macLineFree, 400));
  const unsigned int hServ = Send(0);
  ASSERT_TRUE(RunUntil([&] { return far_in_.size() == kCmd0Request.size(); }, 200));
  ServiceTable[hServ].nServiceState = 4;
  ASSERT_TRUE(AwaitState(macLineFree, 400));
  EXPECT_EQ(std::tuple(Notices(kReplyMsg).size(), ServiceTable[hServ].nServiceState.load(), Receive(hServ)),
            std::tuple(size_t{0}, 0u, std::nullopt));
}

TEST_F(ExchangeTest, TwoSilentRequestsAt1200BaudToggleTheRate) {
  Port().nRetries = 1;
  ASSERT_TRUE(AwaitState(macLineFree, 400));
  line_->ClearRecord();
  Send(0);
  Send(0);
  ASSERT_TRUE(RunUntil([&] { return Notices(kReplyMsg).size() == 2; }, 6000));
  RunFor(300);
  std::vector<uint32_t> rates;
  for (const MemoryLine::Event &event : line_->Record())
    if (event.kind == Kind::kBaud && event.end == MemoryLine::kMasterEnd) rates.push_back(event.value);
  EXPECT_EQ(rates, (std::vector<uint32_t>{9600, 1200}));
  EXPECT_EQ(Port().nFailedCycles, 0u);
}

}  // namespace
}  // namespace velmora::test
