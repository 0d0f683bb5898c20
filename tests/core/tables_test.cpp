// The tables as the library leaves them after load, and the accessors.
#include <gtest/gtest.h>

#include "core/tables.h"

namespace velmora {
namespace {

TEST(TablesTest, StartValuesAfterLoad) {
  for (unsigned int i = 0; i < kPortCount; ++i) {
    const tagCOMPORTINFO &port = ComPortTable[i];
    EXPECT_EQ(port.nDriverId, i);
    EXPECT_EQ(port.pTransmitQueue, &TransmitQueues[i]);
    EXPECT_EQ(port.pRxFrame, &RxFrameTable[i]);
    EXPECT_EQ(port.pTimer, &TimerTable[i]);
    EXPECT_EQ(TimerTable[i].nDriverId, i);
    EXPECT_EQ(RxFrameTable[i].bRxRolePrimary, 1u);
    if (port.hComPort.load() != NoHandle()) continue;  // a test before this one opened it
    EXPECT_EQ(port.adwReserved[3], 1u);
    EXPECT_EQ(TransmitQueues[i].nMaxCount, 1000u);
  }
  EXPECT_EQ(ReceivePendingQueue.nMaxCount, 1000u);
  for (const typQueue &queue : AppReceiveQueues) EXPECT_EQ(queue.nMaxCount, 1000u);
}

TEST(TablesTest, UnconfiguredPortIsAPrimaryMasterWithFivePreambles) {
  const tagCOMPORTINFO &port = ComPortTable[31];
  EXPECT_EQ(port.nPreambles.load(), 5u);
  EXPECT_EQ(port.bPrimaryMaster.load(), 1u);
  EXPECT_EQ(port.nRetries.load(), 0u);
  EXPECT_EQ(port.nExtraRtsDelay.load(), 0u);
  EXPECT_EQ(port.hComPort.load(), NoHandle());
}

TEST(AccessorTest, HandlesAndOutOfRangeRows) {
  for (unsigned int hApp = 0; hApp < kAppCount; ++hApp) {
    if (!AppTable[hApp].bInUse.load()) {
      EXPECT_EQ(GetComPortHandle(hApp), NoHandle());
    }
  }
  EXPECT_EQ(GetComPortHandle(kNone), NoHandle());
  EXPECT_EQ(GetServiceInfo(kNone), nullptr);
  EXPECT_EQ(GetServiceInfo(999), &ServiceTable[999]);
  EXPECT_EQ(GetServiceInfo(1000), nullptr);
  EXPECT_EQ(GetAppInfo(100), nullptr);
  EXPECT_EQ(GetAppReceiveQueue(100), nullptr);
  EXPECT_EQ(GetComPortInfo(kNone), nullptr);
  EXPECT_EQ(GetAppKey(kNone), 0u);
  EXPECT_EQ(GetApphWnd(kNone), nullptr);
  EXPECT_EQ(GetDriverId(kNone), kNone);
  EXPECT_EQ(GetAppReceiveQueue(3), &AppReceiveQueues[3]);
}

TEST(AccessorTest, RowsAnswerFromWhatTheyHold) {
  tagAPPINFO &app = AppTable[42];
  const unsigned int driver = app.nDriverId.load();
  app.nDriverId = 7;
  app.nAppKey = 11;
  app.nBurstAppKey = 12;
  app.bRepeatIfBusy = 1;
  EXPECT_EQ(GetAppInfo(42), &app);
  EXPECT_EQ(GetComPortInfo(42), &ComPortTable[7]);
  EXPECT_EQ(GetDriverId(42), 7u);
  EXPECT_EQ(GetAppKey(42), 11u);
  EXPECT_EQ(GetBurstAppKey(42), 12u);
  EXPECT_EQ(GetRepeatIfBusy(42), 1u);
  app.nDriverId = 5000;  // a row that names no port reads as port 0
  EXPECT_EQ(GetComPortInfo(42), &ComPortTable[0]);
  app.nDriverId = driver;
  app.nAppKey = app.nBurstAppKey = app.bRepeatIfBusy = 0;
}

}  // namespace
}  // namespace velmora
