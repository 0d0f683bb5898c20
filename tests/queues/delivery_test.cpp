// Delivery to applications: the reply word, parking in the pending queue, and the promise that
// a result can be fetched by the time its notice can be seen.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "core/tables.h"
#include "queues/delivery.h"
#include "queues/queue_guard.h"
#include "tests/support/link_fixture.h"

namespace velmora::test {
namespace {

constexpr unsigned int kReplyMsg = 0x900;

class DeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetDriverTables();
    for (unsigned int hApp : {kA, kB}) {
      windows_[hApp == kA ? 0 : 1] = CreateNoticeWindow();
      tagAPPINFO &app = AppTable[hApp];
      app.bInUse = 1;
      app.hWnd = windows_[hApp == kA ? 0 : 1];
      app.nReplyMsg = kReplyMsg;
    }
  }
  void TearDown() override {
    ResetDriverTables();
    for (HWND w : windows_) DestroyNoticeWindow(w);
  }
  // A result element for hApp with service hServ and the given data, passed on and freed.
  void Pass(unsigned int hApp, unsigned int hServ, std::vector<unsigned char> data, unsigned int good = 1,
            unsigned short burst = 0) {
    typQueueElement *element = fncCreateQueueElement();
    element->nAppHandle = hApp;
    element->nServiceHandle = hServ;
    if (!data.empty()) fncSetQueueElementData(element, data.data(), static_cast<unsigned int>(data.size()));
    ServiceTable[hServ % kServiceCount].nServiceState = 1;
    fncPassToApplication(&ComPortTable[0], good, element, 1, burst);
  }
  HWND Window(unsigned int hApp) { return windows_[hApp == kA ? 0 : 1]; }

  static constexpr unsigned int kA = 3;
  static constexpr unsigned int kB = 7;
  HWND windows_[2] = {};
};

struct WordCase {
  std::vector<unsigned char> data;
  unsigned int good;
  unsigned short burst;
  unsigned int word;
  unsigned int reply_count;
};

class ReplyWordTest : public DeliveryTest, public ::testing::WithParamInterface<WordCase> {};

TEST_P(ReplyWordTest, NoticeCarriesTheReplyWord) {
  const WordCase c = GetParam();
  Pass(kA, 5, c.data, c.good, c.burst);
  const std::vector<MSG> notices = Drain(Window(kA));
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].message, kReplyMsg);
  EXPECT_EQ(notices[0].wParam, 5u);
  EXPECT_EQ(static_cast<unsigned int>(notices[0].lParam), c.word);
  EXPECT_EQ(AppTable[kA].nReplyCount.load(), c.reply_count);
  EXPECT_NE(fncFindReceiveService(kA, 5), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Words, ReplyWordTest,
    ::testing::Values(WordCase{{0x00, 0x40, 1, 2, 3, 4, 5, 6, 7, 8}, 1, 0, 0x80040, 1},
                      WordCase{{0x00, 0x40, 1, 2, 3, 4, 5, 6, 7, 8}, 1, 1, 0x8080040, 1},
                      WordCase{{32, 0}, 1, 0, 0x2000, 1}, WordCase{{7}, 1, 0, 0xFFFF, 0}, WordCase{{}, 1, 0, 0xFFFF, 0},
                      WordCase{{}, 0, 0, 0xFFFF, 0}, WordCase{{}, 0, 1, 0x800FFFF, 0}));

TEST_F(DeliveryTest, BurstElementCarriesTheKeyWithoutTheBurstBit) {
  AppTable[kA].nBurstAppKey = 0x1234;
  Pass(kA, 65535, {0x00, 0x00}, 1, 1);
  const std::vector<MSG> notices = Drain(Window(kA));
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].wParam, 65535u);
  EXPECT_EQ(notices[0].lParam, 0x1234);
  EXPECT_EQ(AppTable[kA].nReplyCount.load(), 1u);
}

TEST_F(DeliveryTest, LockedReceiveQueueParksTheResultUntilItIsFree) {
  typQueue &receive = AppReceiveQueues[kA];
  LockQueue(&receive);
  Pass(kA, 10, {0x00, 0x00, 0xAA});
  Pass(kA, 11, {0x00, 0x00, 0xBB});
  EXPECT_TRUE(Drain(Window(kA)).empty());
  EXPECT_EQ(receive.nCount, 0u);
  EXPECT_EQ(ReceivePendingQueue.nCount, 2u);
  UnlockQueue(&receive);
  // The next result announces the parked ones first, oldest first.
  Pass(kA, 12, {0x00, 0x00, 0xCC});
  std::vector<unsigned int> order;
  for (const MSG &msg : Drain(Window(kA))) order.push_back(static_cast<unsigned int>(msg.wParam));
  EXPECT_EQ(order, (std::vector<unsigned int>{10, 11, 12}));
  EXPECT_EQ(ReceivePendingQueue.nCount, 0u);
  EXPECT_EQ(receive.nCount, 3u);
  unsigned char data[256];
  tagHARTREQUEST reply{};
  reply.pData = data;
  EXPECT_EQ(HART_ReceiveRequest(kA, 10, &reply, nullptr), 1u);
  EXPECT_EQ(reply.nDataCount, 1u);
  EXPECT_EQ(data[0], 0xAA);
}

TEST_F(DeliveryTest, PassMovesOnlyTheResultsWhoseQueueIsFree) {
  LockQueue(&AppReceiveQueues[kA]);
  LockQueue(&AppReceiveQueues[kB]);
  Pass(kA, 20, {0, 0});
  Pass(kB, 21, {0, 0});
  UnlockQueue(&AppReceiveQueues[kB]);
  fncPassReceivePendingQueue();
  EXPECT_EQ(Drain(Window(kB)).size(), 1u);
  EXPECT_TRUE(Drain(Window(kA)).empty());
  EXPECT_EQ(ReceivePendingQueue.nCount, 1u);
  UnlockQueue(&AppReceiveQueues[kA]);
  fncPassReceivePendingQueue();
  EXPECT_EQ(Drain(Window(kA)).size(), 1u);
}

TEST_F(DeliveryTest, LockedPendingQueueStillTakesNewResults) {
  LockQueue(&AppReceiveQueues[kA]);
  Pass(kA, 30, {0, 0});
  ReceivePendingQueue.bLocked = 1;
  UnlockQueue(&AppReceiveQueues[kA]);
  fncPassReceivePendingQueue();
  EXPECT_TRUE(Drain(Window(kA)).empty());
  LockQueue(&AppReceiveQueues[kA]);
  Pass(kA, 31, {0, 0});
  EXPECT_EQ(ReceivePendingQueue.nCount, 2u);
  UnlockQueue(&AppReceiveQueues[kA]);
  ReceivePendingQueue.bLocked = 0;
  fncPassReceivePendingQueue();
  EXPECT_EQ(Drain(Window(kA)).size(), 2u);
}

TEST_F(DeliveryTest, FailedPostParksTheResultUnannounced) {
  DestroyNoticeWindow(Window(kA));
  Pass(kA, 40, {0, 0});
  EXPECT_EQ(AppReceiveQueues[kA].nCount, 0u);
  ASSERT_EQ(ReceivePendingQueue.nCount, 1u);
  EXPECT_EQ(ReceivePendingQueue.pHead->bUnposted, 1u);
  windows_[0] = CreateNoticeWindow();
  AppTable[kA].hWnd = windows_[0];
  // The element keeps the window it was first handled with: the post keeps failing.
  fncPassReceivePendingQueue();
  EXPECT_EQ(ReceivePendingQueue.nCount, 1u);
}

TEST_F(DeliveryTest, ResultOfAnAbandonedRequestIsDroppedAndItsRowFreed) {
  typQueueElement *element = fncCreateQueueElement();
  element->nAppHandle = kA;
  element->nServiceHandle = 50;
  ServiceTable[50].nServiceState = 4;
  fncPassToApplication(&ComPortTable[0], 1, element, 1, 0);
  EXPECT_TRUE(Drain(Window(kA)).empty());
  EXPECT_EQ(AppReceiveQueues[kA].nCount, 0u);
  EXPECT_EQ(ServiceTable[50].nServiceState.load(), 0u);
}

TEST_F(DeliveryTest, OutstandingMessagesPostAtMostOne) {
  subSendOutstandingMessages();
  EXPECT_TRUE(Drain(Window(kA)).empty());
  Pass(kA, 60, {0, 0});
  Pass(kA, 61, {0, 0});
  Drain(Window(kA));
  for (typQueueElement *e = AppReceiveQueues[kA].pHead; e; e = e->pNext) e->bUnposted = 1;
  subSendOutstandingMessages();
  EXPECT_EQ(Drain(Window(kA)).size(), 1u);
  subSendOutstandingMessages();
  EXPECT_EQ(Drain(Window(kA)).size(), 1u);
  subSendOutstandingMessages();
  EXPECT_TRUE(Drain(Window(kA)).empty());
}

// A thread that answers every notice at once always finds its reply: the element is in the
// queue before the notice can be seen.
TEST_F(DeliveryTest, ReplyCanBeFetchedAsSoonAsItsNoticeIsSeen) {
  constexpr unsigned int kResults = 2000;
  std::atomic<unsigned int> fetched{0}, missed{0};
  std::thread application([&] {
    MSG msg;
    unsigned char data[256];
    while (fetched + missed < kResults && GetMessageTimeout(&msg, Window(kA), 5000)) {
      tagHARTREQUEST reply{};
      reply.pData = data;
      if (HART_ReceiveRequest(kA, static_cast<unsigned int>(msg.wParam), &reply, nullptr)) ++fetched;
      else ++missed;
    }
  });
  for (unsigned int i = 0; i < kResults; ++i) {
    Pass(kA, i % kServiceCount, {0x00, 0x00, static_cast<unsigned char>(i)});
    // Results that met a locked queue are announced by a later pass.
    fncPassReceivePendingQueue();
    if (i % 997 == 0) std::this_thread::yield();
  }
  while (ReceivePendingQueue.nCount != 0 && fetched + missed < kResults) fncPassReceivePendingQueue();
  application.join();
  EXPECT_EQ(missed.load(), 0u);
  EXPECT_EQ(fetched.load(), kResults);
}

TEST_F(DeliveryTest, LinkEventsGoOnlyToTheActiveRequestsApplication) {
  tagCOMPORTINFO &port = ComPortTable[0];
  NotifyAppLinkEvent(&port, 1);
  EXPECT_TRUE(Drain(Window(kA)).empty());
  typQueueElement *active = fncCreateQueueElement();
  active->nAppHandle = kA;
  port.pActiveElement = active;
  NotifyAppLinkEvent(&port, 1);
  EXPECT_TRUE(Drain(Window(kA)).empty());
  AppTable[kA].nLinkEventMsg = 0x950;
  NotifyAppLinkEvent(&port, 3);
  const std::vector<MSG> events = Drain(Window(kA));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].message, 0x950u);
  EXPECT_EQ(events[0].wParam, 3u);
  EXPECT_EQ(events[0].lParam, 0);
}

}  // namespace
}  // namespace velmora::test
