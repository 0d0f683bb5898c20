// Monitor notices: the bytes of a frame with its gap and frame time, freed by the receiver.
#include <gtest/gtest.h>

#include <vector>

#include "core/tables.h"
#include "platform/clock.h"

namespace velmora {
namespace {

struct Notice {
  unsigned int code;
  std::vector<unsigned char> bytes;
  int32_t gap;
  int32_t frame;
};

int32_t Le32(const unsigned char *at) {
  return static_cast<int32_t>(at[0] | (at[1] << 8) | (at[2] << 16) | (static_cast<uint32_t>(at[3]) << 24));
}

class MonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    window_ = CreateNoticeWindow();
    port().nMonitorMsg = 0x321;
    port().hMonitorWnd = window_;
    rx().nMonitorLen = 0;
  }
  void TearDown() override {
    Take();
    port().nMonitorMsg = 0;
    port().hMonitorWnd = nullptr;
    port().pActiveElement = nullptr;
    rx().nMonitorLen = 0;
    DestroyNoticeWindow(window_);
  }
  static tagCOMPORTINFO &port() { return ComPortTable[11]; }
  static typRxFrameStruct &rx() { return *port().pRxFrame; }
  char *arg() { return reinterpret_cast<char *>(&port()); }
  void Hold(std::vector<unsigned char> bytes) {
    for (unsigned char b : bytes) rx().abMonitor[rx().nMonitorLen++] = b;
  }
  // Every notice waiting, its array read and deleted as a receiver must.
  std::vector<Notice> Take() {
    std::vector<Notice> out;
    MSG msg;
    while (PeekMessageA(&msg, window_, 0, 0, PM_REMOVE)) {
      EXPECT_EQ(msg.message, 0x321u);
      auto *array = reinterpret_cast<CByteArray *>(msg.lParam);
      const int n = array->GetSize() - 8;
      out.push_back({static_cast<unsigned int>(msg.wParam), std::vector<unsigned char>(array->GetData(), array->GetData() + n),
                     Le32(array->GetData() + n), Le32(array->GetData() + n + 4)});
      delete array;
    }
    return out;
  }
  platform::VirtualClock clock_{700000};
  HWND window_ = nullptr;
};

TEST_F(MonitorTest, FrameNoticeCarriesBytesAndTimes) {
  port().tLastNotify = platform::NowMs();
  clock_.AdvanceMs(40);
  port().tFrameStart = platform::NowMs();
  Hold({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x06, 0x80, 0x00, 0x02, 0x00, 0x00, 0x84, 0x11});
  clock_.AdvanceMs(25);
  NotifyLLmonitor(arg());
  const auto notices = Take();
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].code, 0u);
  EXPECT_EQ(notices[0].bytes.size(), 13u);
  EXPECT_EQ(notices[0].gap, 40);
  EXPECT_EQ(notices[0].frame, 25);
  EXPECT_EQ(rx().nMonitorLen, 0u);
  EXPECT_EQ(port().tLastNotify, platform::NowMs());
  NotifyLLmonitor(arg());  // nothing held: no notice
  EXPECT_TRUE(Take().empty());
}

TEST_F(MonitorTest, TimeOutNoticeGoesOutEvenWithNothingHeld) {
  NotifyLLmonitorTimeOut(arg(), 3);
  const auto notices = Take();
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].code, 3u);
  EXPECT_TRUE(notices[0].bytes.empty());
}

TEST_F(MonitorTest, FullCaptureGivesA520ByteArray) {
  std::vector<unsigned char> bytes(512, 0x5A);
  Hold(bytes);
  NotifyLLmonitorTimeOut(arg(), 1);
  const auto notices = Take();
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].bytes.size(), 512u);
}

TEST_F(MonitorTest, TransmitNoticeRestartsTheGap) {
  unsigned char frame[] = {0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82};
  typQueueElement *active = fncCreateQueueElement();
  fncSetQueueElementData(active, frame, sizeof frame);
  port().pActiveElement = active;
  port().tFrameStart = platform::NowMs();
  clock_.AdvanceMs(9);
  NotifyLLmonitorTransmit(arg());
  EXPECT_EQ(port().tFrameStart, platform::NowMs());
  auto notices = Take();
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].bytes, std::vector<unsigned char>(frame, frame + sizeof frame));
  EXPECT_EQ(notices[0].frame, 9);
  fncDestroyQueueElement(active);
  port().pActiveElement = nullptr;
  Hold({1});
  NotifyLLmonitorTransmit(arg());  // no active element: no notice, the capture is dropped
  EXPECT_TRUE(Take().empty());
  EXPECT_EQ(rx().nMonitorLen, 0u);
}

TEST_F(MonitorTest, TimesAcrossTheClockWrap) {
  clock_.SetMs(0xFFFFFFF0ull);
  port().tLastNotify = platform::NowMs();
  clock_.AdvanceMs(0x20);
  port().tFrameStart = platform::NowMs();
  clock_.AdvanceMs(3);
  NotifyLLmonitorTimeOut(arg(), 1);
  const auto notices = Take();
  ASSERT_EQ(notices.size(), 1u);
  EXPECT_EQ(notices[0].gap, 0x20);
  EXPECT_EQ(notices[0].frame, 3);
}

TEST_F(MonitorTest, WithoutMonitorNothingIsPostedAndFailedPostsFreeTheirArray) {
  port().nMonitorMsg = 0;
  Hold({1, 2, 3});
  NotifyLLmonitor(arg());
  NotifyLLmonitorTimeOut(arg(), 1);
  EXPECT_TRUE(Take().empty());
  port().nMonitorMsg = 0x321;
  // A window that has gone: the post fails and the array is deleted (LeakSanitizer checks).
  HWND gone = CreateNoticeWindow();
  DestroyNoticeWindow(gone);
  port().hMonitorWnd = gone;
  Hold({1, 2, 3});
  NotifyLLmonitor(arg());
  EXPECT_EQ(rx().nMonitorLen, 0u);
  port().hMonitorWnd = window_;
}

}  // namespace
}  // namespace velmora
