// Queue elements and queues: copies, ownership of the bytes, the linking invariants in every
// case of removal, and the 999-element limit.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "core/tables.h"
#include "queues/queue_guard.h"

namespace velmora {
namespace {

// Checks the invariants between operations and gives the elements' service numbers in order.
std::vector<unsigned int> Walk(const typQueue &queue) {
  std::vector<unsigned int> out;
  EXPECT_EQ(queue.nCount == 0, queue.pHead == nullptr);
  EXPECT_EQ(queue.pTail == nullptr, queue.nCount < 2);
  if (queue.pTail) {
    EXPECT_NE(queue.pTail, queue.pHead);
  }
  const typQueueElement *last = nullptr;
  for (const typQueueElement *e = queue.pHead; e && out.size() <= queue.nCount; e = e->pNext) {
    out.push_back(e->nServiceHandle);
    last = e;
  }
  EXPECT_EQ(out.size(), queue.nCount);
  if (queue.nCount >= 2) {
    EXPECT_EQ(last, queue.pTail);
  }
  return out;
}

class QueueTest : public ::testing::Test {
 protected:
  void SetUp() override { fncInitQueue(&queue_); }
  void TearDown() override { fncDeleteQueue(&queue_); }
  void Append(unsigned int service, std::vector<unsigned char> data = {}) {
    typQueueElement *e = fncCreateQueueElement();
    e->nServiceHandle = service;
    if (!data.empty()) fncSetQueueElementData(e, data.data(), static_cast<unsigned int>(data.size()));
    ASSERT_EQ(fncAppendQueueElement(&queue_, e), 1u);
    EXPECT_EQ(e->pNext, nullptr);
    fncDestroyQueueElement(e);
  }
  typQueueElement *At(unsigned int index) {
    typQueueElement *e = queue_.pHead;
    for (unsigned int i = 0; i < index; ++i) e = e->pNext;
    return e;
  }
  typQueue queue_{};
};

TEST_F(QueueTest, EmptyQueue) {
  EXPECT_EQ(queue_.nMaxCount, 1000u);
  EXPECT_TRUE(Walk(queue_).empty());
  typQueueElement *stranger = fncCreateQueueElement();
  EXPECT_EQ(fncRemoveQueueElement(&queue_, stranger), 0u);
  fncDestroyQueueElement(stranger);
}

struct RemoveCase {
  unsigned int count;
  unsigned int remove;
  std::vector<unsigned int> left;
};

class QueueRemoveTest : public QueueTest, public ::testing::WithParamInterface<RemoveCase> {};

TEST_P(QueueRemoveTest, EveryCaseKeepsTheInvariants) {
  const RemoveCase c = GetParam();
  for (unsigned int i = 0; i < c.count; ++i) Append(i);
  EXPECT_EQ(fncRemoveQueueElement(&queue_, At(c.remove)), 1u);
  EXPECT_EQ(Walk(queue_), c.left);
  Append(99);
  std::vector<unsigned int> after = c.left;
  after.push_back(99);
  EXPECT_EQ(Walk(queue_), after);
}

INSTANTIATE_TEST_SUITE_P(Cases, QueueRemoveTest,
                         ::testing::Values(RemoveCase{1, 0, {}}, RemoveCase{2, 0, {1}}, RemoveCase{2, 1, {0}},
                                           RemoveCase{3, 0, {1, 2}}, RemoveCase{3, 1, {0, 2}}, RemoveCase{3, 2, {0, 1}},
                                           RemoveCase{5, 4, {0, 1, 2, 3}}, RemoveCase{5, 2, {0, 1, 3, 4}}));

TEST_F(QueueTest, ElementNotInTheQueueIsNotRemoved) {
  Append(1);
  Append(2);
  typQueue other{};
  fncInitQueue(&other);
  typQueueElement *e = fncCreateQueueElement();
  fncAppendQueueElement(&other, e);
  fncDestroyQueueElement(e);
  EXPECT_EQ(fncRemoveQueueElement(&queue_, other.pHead), 0u);
  EXPECT_EQ(Walk(queue_), (std::vector<unsigned int>{1, 2}));
  fncDeleteQueue(&other);
}

TEST_F(QueueTest, HoldsNineHundredNinetyNine) {
  for (unsigned int i = 0; i < 998; ++i) Append(i);
  Append(998);
  EXPECT_EQ(queue_.nCount, 999u);
  typQueueElement *e = fncCreateQueueElement();
  EXPECT_EQ(fncAppendQueueElement(&queue_, e), 0u);
  EXPECT_EQ(queue_.nCount, 999u);
  fncDestroyQueueElement(e);
  EXPECT_EQ(Walk(queue_).size(), 999u);
}

TEST_F(QueueTest, TheQueueKeepsItsOwnCopy) {
  typQueueElement *mine = fncCreateQueueElement();
  unsigned char data[] = {1, 2, 3};
  fncSetQueueElementData(mine, data, 3);
  mine->nServiceHandle = 5;
  fncAppendQueueElement(&queue_, mine);
  mine->pData[0] = 9;
  mine->nServiceHandle = 6;
  EXPECT_EQ(queue_.pHead->pData[0], 1);
  EXPECT_EQ(queue_.pHead->nServiceHandle, 5u);
  EXPECT_NE(queue_.pHead->pData, mine->pData);
  fncDestroyQueueElement(mine);
}

TEST(QueueElementTest, DataOwnershipAndCopies) {
  typQueueElement *e = fncCreateQueueElement();
  unsigned char data[] = {0x00, 0x40, 0x07};
  EXPECT_EQ(fncSetQueueElementData(e, data, 3), 1u);
  EXPECT_EQ(fncSetQueueElementData(e, data, 0), 0u);
  EXPECT_EQ(e->pData, nullptr);
  EXPECT_EQ(e->nDataLen, 0u);
  fncSetQueueElementData(e, data, 2);
  unsigned char out[8];
  unsigned int length = 99;
  EXPECT_EQ(fncGetQueueElementData(e, out, &length), 1u);
  EXPECT_EQ(length, 2u);
  EXPECT_EQ(fncGetQueueElementHartData(e, out, &length), 0u);
  EXPECT_EQ(length, 0u);
  fncSetQueueElementData(e, data, 3);
  EXPECT_EQ(fncGetQueueElementHartData(e, out, &length), 1u);
  EXPECT_EQ(length, 1u);
  EXPECT_EQ(out[0], 0x07);

  typQueueElement *empty = fncCreateQueueElement();
  empty->nReplyCommand = 44;
  empty->dwReplySpare = 7;
  EXPECT_EQ(fncCopyQueueElement(e, empty), 1u);
  EXPECT_EQ(e->nDataLen, 3u);  // a source without data leaves the destination's
  EXPECT_EQ(e->nReplyCommand, 44u);
  EXPECT_EQ(e->dwReplySpare, 7u);
  EXPECT_EQ(fncCopyQueueElement(nullptr, e), 0u);
  EXPECT_EQ(fncCopyQueueElement(e, nullptr), 0u);
  EXPECT_EQ(fncInitQueueElement(nullptr), 0u);
  EXPECT_EQ(fncDestroyQueueElement(nullptr), 0u);
  EXPECT_EQ(fncDestroyQueueElement(empty), 1u);
  EXPECT_EQ(fncDestroyQueueElement(e), 1u);
}

TEST(QueueTableTest, DeleteKeepsTheLockWordAndInitAllIsAStartUpStep) {
  typQueue queue{};
  fncInitQueue(&queue);
  queue.bLocked = 1;
  EXPECT_EQ(fncDeleteQueue(&queue), 1u);
  EXPECT_EQ(queue.bLocked.load(), 1u);
  EXPECT_EQ(fncIfLocked(&queue), 1u);
  typQueueElement *e = fncCreateQueueElement();
  EXPECT_EQ(fncAppendQueueElement(&queue, e), 1u);
  fncDestroyQueueElement(e);
  fncDeleteQueue(&queue);
  fncInitAllQueues();
  for (const tagCOMPORTINFO &port : ComPortTable) EXPECT_EQ(port.pTransmitQueue, nullptr);
  for (unsigned int i = 0; i < kPortCount; ++i) ComPortTable[i].pTransmitQueue = &TransmitQueues[i];
}

TEST(QueueGuardTest, WorkerOnlyTriesAndTheWordHoldsItOff) {
  typQueue &queue = TransmitQueues[30];
  LockQueue(&queue);
  LockQueue(&queue);  // the holding thread takes it again without waiting
  bool taken = true;
  std::thread worker([&] { taken = TryTakeQueue(&queue); });
  worker.join();
  EXPECT_FALSE(taken);
  UnlockQueue(&queue);
  std::thread again([&] {
    taken = TryTakeQueue(&queue);
    if (taken) GiveQueue(&queue);
  });
  again.join();
  EXPECT_TRUE(taken);
  queue.bLocked = 1;  // a client writing the word through the table pointer
  std::thread held_off([&] { taken = TryTakeQueue(&queue); });
  held_off.join();
  EXPECT_FALSE(taken);
  queue.bLocked = 0;
}

}  // namespace
}  // namespace velmora
