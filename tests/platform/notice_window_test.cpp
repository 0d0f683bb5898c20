// Notice windows: post, peek, wait with time-out, the pollable descriptor, destroyed windows,
// the 10,000 limit and posts from several threads at once.
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <thread>
#include <vector>

#include "velmora.h"

namespace {

bool Readable(int fd) {
  pollfd waiter{fd, POLLIN, 0};
  return poll(&waiter, 1, 0) == 1 && (waiter.revents & POLLIN);
}

class NoticeWindowTest : public ::testing::Test {
 protected:
  void SetUp() override { window_ = CreateNoticeWindow(); }
  void TearDown() override { DestroyNoticeWindow(window_); }
  HWND window_ = nullptr;
};

TEST_F(NoticeWindowTest, PostThenPeekInOrderWithFilters) {
  ASSERT_NE(window_, nullptr);
  EXPECT_EQ(PostMessageA(window_, 10, 1, 2), 1);
  EXPECT_EQ(PostMessageA(window_, 20, 3, 4), 1);
  MSG msg{};
  EXPECT_EQ(PeekMessageA(&msg, window_, 20, 25, PM_NOREMOVE), 1);
  EXPECT_EQ(msg.message, 20u);
  EXPECT_EQ(PeekMessageA(&msg, window_, 20, 25, PM_REMOVE), 1);
  EXPECT_EQ(msg.wParam, 3u);
  EXPECT_EQ(msg.lParam, 4);
  EXPECT_EQ(msg.hwnd, window_);
  EXPECT_EQ(PeekMessageA(&msg, window_, 20, 25, PM_REMOVE), 0);
  EXPECT_EQ(PeekMessageA(&msg, window_, 0, 0, PM_REMOVE), 1);
  EXPECT_EQ(msg.message, 10u);
  EXPECT_EQ(PeekMessageA(&msg, window_, 0, 0, PM_REMOVE), 0);
}

TEST_F(NoticeWindowTest, GetMessageTimesOut) {
  MSG msg{};
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(GetMessageTimeout(&msg, window_, 50), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
  std::thread poster([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    PostMessageA(window_, 7, 8, 9);
  });
  EXPECT_EQ(GetMessageTimeout(&msg, window_, 5000), 1);
  EXPECT_EQ(msg.message, 7u);
  poster.join();
}

TEST_F(NoticeWindowTest, DescriptorIsReadableWhileNoticesWait) {
  const int fd = GetNoticeWindowFd(window_);
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(Readable(fd));
  PostMessageA(window_, 1, 0, 0);
  PostMessageA(window_, 2, 0, 0);
  EXPECT_TRUE(Readable(fd));
  MSG msg;
  PeekMessageA(&msg, window_, 0, 0, PM_REMOVE);
  EXPECT_TRUE(Readable(fd));
  PeekMessageA(&msg, window_, 0, 0, PM_NOREMOVE);
  EXPECT_TRUE(Readable(fd));
  PeekMessageA(&msg, window_, 0, 0, PM_REMOVE);
  EXPECT_FALSE(Readable(fd));
}

TEST_F(NoticeWindowTest, NullAndDestroyedWindowsFailCleanly) {
  MSG msg;
  msg.message = 0xABCD;
  EXPECT_EQ(PostMessageA(nullptr, 1, 0, 0), 0);
  EXPECT_EQ(PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE), 0);
  EXPECT_EQ(GetMessageTimeout(&msg, nullptr, 1), 0);
  EXPECT_EQ(GetNoticeWindowFd(nullptr), -1);
  HWND gone = CreateNoticeWindow();
  PostMessageA(gone, 1, 0, 0);
  DestroyNoticeWindow(gone);
  EXPECT_EQ(PostMessageA(gone, 1, 0, 0), 0);
  EXPECT_EQ(PeekMessageA(&msg, gone, 0, 0, PM_REMOVE), 0);
  EXPECT_EQ(GetMessageTimeout(&msg, gone, 1), 0);
  EXPECT_EQ(msg.message, 0xABCDu);  // nothing written
  DestroyNoticeWindow(gone);          // twice is harmless
}

TEST_F(NoticeWindowTest, MailboxHoldsTenThousand) {
  for (int i = 0; i < 10000; ++i) ASSERT_EQ(PostMessageA(window_, 1, static_cast<WPARAM>(i), 0), 1);
  EXPECT_EQ(PostMessageA(window_, 1, 0, 0), 0);
  MSG msg;
  PeekMessageA(&msg, window_, 0, 0, PM_REMOVE);
  EXPECT_EQ(msg.wParam, 0u);
  EXPECT_EQ(PostMessageA(window_, 1, 0, 0), 1);
}

TEST_F(NoticeWindowTest, PostsFromSeveralThreadsArriveOnceEachInOrder) {
  constexpr int kThreads = 8, kEach = 1000;
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t)
    posters.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i)
        while (!PostMessageA(window_, static_cast<UINT>(100 + t), static_cast<WPARAM>(i), 0)) std::this_thread::yield();
    });
  std::vector<int> next(kThreads, 0);
  MSG msg;
  int received = 0;
  while (received < kThreads * kEach && GetMessageTimeout(&msg, window_, 5000)) {
    const int t = static_cast<int>(msg.message) - 100;
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    ASSERT_EQ(static_cast<int>(msg.wParam), next[t]) << "thread " << t;
    ++next[t];
    ++received;
  }
  for (std::thread &poster : posters) poster.join();
  EXPECT_EQ(received, kThreads * kEach);
}

}  // namespace
