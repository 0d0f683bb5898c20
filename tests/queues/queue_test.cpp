// Queues and delivery: order and links after every kind of removal and the 999-element limit,
// the guard between client threads, searches and clearing, and results on their way to
// applications: the notice and its words, parking, destroyed windows, abandoned requests.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "queues/delivery.h"
#include "queues/queue_guard.h"
#include "tables/tables.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

using Words = std::vector<unsigned int>;
constexpr unsigned int kReplyMsg = 0x900, kA = 3, kB = 5;  // applications on port row 0

// Service numbers from head to tail, checking the count and the tail on the way.
Words Walk(const typQueue &queue) {
  Words out;
  const typQueueElement *last = nullptr;
  for (const typQueueElement *e = queue.pHead; e && out.size() <= queue.nCount; last = e, e = e->pNext)
    out.push_back(e->nServiceHandle);
  EXPECT_EQ(out.size(), queue.nCount);
  EXPECT_EQ(queue.pTail, queue.nCount < 2 ? nullptr : last);
  return out;
}

unsigned int Append(typQueue &queue, unsigned int service, unsigned int app = 0, unsigned int driver = 0) {
  typQueueElement e{};
  e.nServiceHandle = service;
  e.nAppHandle = app;
  e.nDriverId = driver;
  return fncAppendQueueElement(&queue, &e);  // the queue keeps a copy
}

TEST(QueueTest, RemovalKeepsOrderLinksAndTheLimitOf999) {
  // remove == count: an element of no queue, which is refused.
  const unsigned int rows[][2] = {{1, 0}, {2, 0}, {2, 1}, {3, 0}, {3, 1}, {3, 2},     {5, 4},
                                  {5, 2}, {0, 0}, {2, 2}, {3, 3}, {999, 998}, {999, 0}};
  for (const auto &[count, remove] : rows) {
    SCOPED_TRACE(::testing::Message() << count << " elements, remove " << remove);
    typQueue queue{};
    fncInitQueue(&queue);
    typQueueElement stranger{}, *target = &stranger;
    Words expect;
    for (unsigned int i = 0; i < count; ++i) expect.push_back(Append(queue, i) ? i : kNone);
    for (unsigned int i = 0; remove < count && i <= remove; ++i) target = i ? target->pNext : queue.pHead;
    EXPECT_EQ(fncRemoveQueueElement(&queue, target), remove < count ? 1u : 0u);
    if (remove < count) expect.erase(expect.begin() + remove);
    EXPECT_EQ(Append(queue, 5000) + Append(queue, 5001), expect.size() < 998 ? 2u : 1u);  // 999 at most
    expect.insert(expect.end(), {5000, 5001});
    expect.resize(std::min<size_t>(expect.size(), 999));
    EXPECT_EQ(Walk(queue), expect);
    fncDeleteQueue(&queue);
  }
}

// Client threads on one queue, with a worker that only ever tries it: the guard lets one in at a
// time and its holder again, and every release wakes a waiting client (a lost wake-up leaves a
// client waiting for ever on a free queue: the test then ends the program rather than hang).
TEST(QueueTest, GuardLetsOneThreadInAtATimeAndWakesEveryWaiter) {
  typQueue &queue = TransmitQueues[30];
  constexpr unsigned int kClients = 3, kRounds = 2000, kKept = 300;  // a queue keeps 999
  std::atomic<unsigned int> inside{0}, overlaps{0}, started{0}, clients_done{0}, worker_takes{0};
  auto enter = [&] {
    overlaps += inside.fetch_add(1) != 0;
    std::this_thread::yield();
    inside.fetch_sub(1);
  };
  auto client = [&](unsigned int first) {
    for (started.fetch_add(1); started.load() < kClients + 1;) std::this_thread::yield();
    for (unsigned int i = first; i < first + kRounds; ++i) {
      LockQueue(&queue);
      LockQueue(&queue);  // the holder takes it again without waiting
      enter();
      if (i < first + kKept) Append(queue, i);
      UnlockQueue(&queue);
    }
    clients_done.fetch_add(1);
  };
  auto worker = [&] {
    for (started.fetch_add(1); started.load() < kClients + 1;) std::this_thread::yield();
    while (clients_done.load() < kClients) {
      if (!TryTakeQueue(&queue)) continue;
      enter();
      worker_takes.fetch_add(1);
      GiveQueue(&queue);
    }
  };
  std::vector<std::thread> threads;
  for (unsigned int c = 0; c < kClients; ++c) threads.emplace_back(client, c * 10000);
  threads.emplace_back(worker);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (clients_done.load() < kClients && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  if (clients_done.load() < kClients) {
    std::fprintf(stderr, "a client still waits on the queue guard after 60 s\n");
    std::_Exit(1);
  }
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(Words({overlaps.load(), static_cast<unsigned int>(Walk(queue).size())}), (Words{0, kClients * kKept}));
  EXPECT_GT(worker_takes.load(), 0u);
  fncDeleteQueue(&queue);
}

// An element's bytes come out whole or as the data behind the two status bytes; nothing comes
// from an element too short for it, nor goes into no buffer.
TEST(QueueTest, ElementDataComesOutWholeOrBehindTheStatus) {
  typQueueElement *e = fncCreateQueueElement();
  unsigned char bytes[] = {1, 2, 3, 4}, out[8];
  const unsigned int rows[][6] = {  // length, hart data, buffer given, result, length out, first byte out
      {4, 0, 1, 1, 4, 1}, {4, 1, 1, 1, 2, 3}, {3, 1, 1, 1, 1, 3}, {2, 1, 1, 0, 0, 0xEE},
      {0, 0, 1, 0, 0, 0xEE}, {4, 0, 0, 0, 0, 0xEE}, {4, 1, 0, 0, 0, 0xEE}};
  for (const auto &[length, hart, buffer, result, length_out, first] : rows) {
    SCOPED_TRACE(::testing::Message() << length << " bytes, hart " << hart << ", buffer " << buffer);
    fncSetQueueElementData(e, bytes, length);
    out[0] = 0xEE;
    unsigned int n = 99;
    unsigned char *to = buffer ? out : nullptr;
    const unsigned int got = hart ? fncGetQueueElementHartData(e, to, &n) : fncGetQueueElementData(e, to, &n);
    EXPECT_EQ(Words({got, n, out[0]}), (Words{result, length_out, first}));
  }
  // No length out; a copy onto itself (null elements: bad_input_test).
  EXPECT_EQ(Words({fncGetQueueElementData(e, out, nullptr), fncCopyQueueElement(e, e)}), (Words{0, 1}));
  fncDestroyQueueElement(e);
}

// Applications kA and kB with notice windows; a result handed over as the worker does.
class DeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetDriverTables();
    for (unsigned int hApp : {kA, kB}) {
      AppTable[hApp].hWnd = CreateNoticeWindow();
      AppTable[hApp].nReplyMsg = kReplyMsg;
      AppTable[hApp].bInUse = 1;
    }
  }
  void TearDown() override {
    for (unsigned int hApp : {kA, kB}) DestroyNoticeWindow(AppTable[hApp].hWnd.load());
    ResetDriverTables();
  }
  static void Pass(unsigned int hApp, unsigned int hServ, std::vector<unsigned char> data,
                   unsigned int good = 1, unsigned short burst = 0) {
    typQueueElement *element = fncCreateQueueElement();
    element->nAppHandle = hApp;
    element->nServiceHandle = hServ;
    fncSetQueueElementData(element, data.data(), static_cast<unsigned int>(data.size()));
    fncPassToApplication(&ComPortTable[0], good, element, 1, burst);
  }
  // wParam (and lParam) of every notice waiting for hApp, removed; each must carry kReplyMsg.
  static Words Notices(unsigned int hApp, bool with_lparam = false) {
    Words out;
    for (const MSG &msg : Drain(AppTable[hApp].hWnd.load())) {
      out.push_back(msg.message == kReplyMsg ? static_cast<unsigned int>(msg.wParam) : 0xBAD);
      if (with_lparam) out.push_back(static_cast<unsigned int>(msg.lParam));
    }
    return out;
  }
};

unsigned int Found(const typQueueElement *e) { return e ? e->nServiceHandle : kNone; }

// Port row 0 holds requests and results of kA (even services) and kB (odd ones); service row 24
// came from another port. Rows 10 and 20 are in use (20 a result not fetched yet), the others are
// abandoned.
TEST_F(DeliveryTest, SearchesAndClearingTakeOnlyTheirOwn) {
  typQueue *queues[] = {&TransmitQueues[0], &AppReceiveQueues[kA], &AppReceiveQueues[kB],
                        &ReceivePendingQueue};
  const std::vector<Words> start = {{10, 11, 12}, {20, kBurstService}, {21}, {22, kBurstService, 24}};
  const Words kept = {1, 4, 1, 4, 4, 4};
  auto fill = [&] {
    fncClearAllQueues();
    for (unsigned int q = 0; q < 4; ++q)
      for (unsigned int s : start[q]) {
        Append(*queues[q], s, s % 2 ? kB : kA, s == 24 ? 4 : 0);
        ServiceTable[s % kServiceCount].nServiceState = s == 10 || s == 20 ? 1 : 4;
        ServiceTable[s % kServiceCount].nAppHandle = s % 2 ? kB : kA;
      }
    ComPortTable[0].pActiveElement = fncCreateQueueElement();
  };
  fill();
  EXPECT_EQ(Words({Found(fncFindTransmitService(kA, 11)), Found(fncFindReceiveService(kB, 20)),
                   Found(fncFindTransmitApplication(0, kB)), fncGetBurstCount(kA)}),
            (Words{11, kNone, 11, 2}));
  // After each clearing: the four queues, the states of 10 12 20 21 22 24, the clear mark of the
  // element in service (kNone: it was dropped).
  const std::pair<unsigned int (*)(), std::vector<Words>> clears[] = {
      {[] { return fncClearQueuesOfApp(0, kA); }, {{11}, {}, {21}, {kBurstService}, {0, 0, 0, 4, 0, 0}, {0}}},
      {[] { return fncClearQueuesOfCom(0); }, {{}, start[1], {21}, {24}, kept, {kBurstService}}},
      {[] { return fncClearBurstQueue(kA); }, {start[0], {20}, {21}, {22, 24}, kept, {0}}},
      {fncClearAllQueues, {{}, {}, {}, {}, kept, {kNone}}}};
  for (const auto &[clear, after] : clears) {
    fill();
    clear();
    std::vector<Words> got{Walk(*queues[0]), Walk(*queues[1]), Walk(*queues[2]), Walk(*queues[3]), {}, {}};
    for (unsigned int s : {10, 12, 20, 21, 22, 24}) got[4].push_back(ServiceTable[s].nServiceState.load());
    got[5].push_back(ComPortTable[0].pActiveElement ? ComPortTable[0].pActiveElement->nClearMark : kNone);
    EXPECT_EQ(got, after);
  }
}

TEST_F(DeliveryTest, NoticeGoesToTheOwnersWindow) {
  const std::vector<unsigned char> ten = {0x00, 0x40, 1, 2, 3, 4, 5, 6, 7, 8};
  const std::tuple<unsigned int, std::vector<unsigned char>, unsigned int, unsigned short, unsigned int,
                   unsigned int>
      rows[] = {{5, ten, 1, 0, 0x80040, 1}, {5, ten, 1, 1, 0x8080040, 1}, {6, {32, 0}, 1, 0, 0x2000, 1},
                {7, {7}, 1, 0, 0xFFFF, 0},   {8, {}, 1, 0, 0xFFFF, 0},      {9, ten, 0, 1, 0x800FFFF, 0},
                {kBurstService, {0, 0}, 1, 1, 0x1234, 1}};  // service, bytes, good, burst, lParam, counted
  AppTable[kA].nBurstAppKey = 0x1234;  // a burst frame carries it instead of the reply word
  for (const auto &[service, data, good, burst, word, counted] : rows) {
    SCOPED_TRACE(::testing::Message() << "service " << service << ", " << data.size() << " bytes");
    AppTable[kA].nReplyCount = 0;
    Pass(kA, service, data, good, burst);
    EXPECT_EQ(Notices(kA, true), (Words{service, word}));
    EXPECT_EQ(AppTable[kA].nReplyCount.load(), counted);
  }
}

// Results that meet a held receive queue wait, and are announced oldest first before the next
// one; each is fetched once. A result for a destroyed window waits unannounced where it can be
// fetched, and that of an abandoned request is dropped.
TEST_F(DeliveryTest, ParkedResultsAndAbandonedRequests) {
  LockQueue(&AppReceiveQueues[kA]);
  Pass(kA, 10, {0, 0, 0xAA});
  Pass(kB, 11, {0, 0});
  Pass(kA, 12, {0x20, 0x40, 0xCC, 0xDD});
  EXPECT_EQ(std::vector<Words>({Notices(kA), Notices(kB)}), (std::vector<Words>{{}, {11}}));  // B's was free
  UnlockQueue(&AppReceiveQueues[kA]);
  Pass(kA, 14, {0, 0});
  EXPECT_EQ(Notices(kA), (Words{10, 12, 14}));
  unsigned char data[256];
  tagHARTREQUEST reply{0, 0, 0, {}, data, 0, 0, 0, 0, 0};
  unsigned int app_id = 0;
  ServiceTable[12].nServiceState = 1;
  ServiceTable[12].nAppId = 0x10002;
  EXPECT_EQ(Words({HART_ReceiveRequest(kA, 12, &reply, &app_id), reply.nDataCount, data[0], data[1],
                   reply.nResponseCode, reply.nDeviceStatus, app_id, ServiceTable[12].nServiceState.load(),
                   HART_ReceiveRequest(kA, 12, &reply, &app_id)}),
            (Words{1, 2, 0xCC, 0xDD, 0x20, 0x40, 0x10002, 0, 0}));
  // The result stays tied to the window it was first meant for, in the receive queue.
  DestroyNoticeWindow(AppTable[kA].hWnd.load());
  Pass(kA, 40, {0, 0});
  AppTable[kA].hWnd = CreateNoticeWindow();
  fncPassReceivePendingQueue();
  typQueueElement *unposted = fncFindReceiveService(kA, 40);
  ASSERT_NE(unposted, nullptr);
  EXPECT_EQ(Words({ReceivePendingQueue.nCount, unposted->bUnposted}), (Words{0, 1}));
  ServiceTable[50].nServiceState = 4;  // an abandoned request: its result is dropped and its row freed
  Pass(kB, 50, {0, 0});
  EXPECT_EQ(Words({Found(fncFindReceiveService(kB, 50)), ServiceTable[50].nServiceState.load()}),
            (Words{kNone, 0}));
  EXPECT_EQ(Notices(kA), Words{});
  // A result left unannounced in its receive queue goes out on the next call for it.
  unposted->hPostWnd = AppTable[kA].hWnd.load();
  subSendOutstandingMessages();
  EXPECT_EQ(Notices(kA), Words{40});
  EXPECT_EQ(unposted->bUnposted, 0u);
}

}  // namespace
}  // namespace velmora::test
