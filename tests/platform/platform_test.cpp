// The platform layer: one serial-line contract for both backends (the in-memory line and the POSIX
// backend on a pseudo-terminal), the HART terminal settings flag by flag, the in-memory line's
// pacing on the virtual clock, and notice windows as a client uses them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/clock.h"
#include "platform/memory_line.h"
#include "platform/posix/termios_settings.h"
#include "velmora.h"

namespace velmora::platform {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr std::chrono::milliseconds kPoll{2};  // real-time waits poll 500 times: a generous second

TEST(SerialLineTest, BothBackendsKeepTheContract) {
  for (const bool pty : {false, true}) {
    SCOPED_TRACE(pty ? "pseudo-terminal" : "in-memory line");
    // The far end the test holds: the other end of an in-memory line, or the pseudo-terminal's master.
    std::shared_ptr<MemoryLine> memory = MemoryLine::Create("contract");
    std::unique_ptr<SerialLine> memory_end = memory->OpenEnd(MemoryLine::kFarEnd).line;
    const int fd = pty ? posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK) : -1;
    ASSERT_TRUE(!pty || (grantpt(fd) == 0 && unlockpt(fd) == 0));
    const std::string device = pty ? ptsname(fd) : "mem:contract";
    auto far_received = [&](size_t n) {  // up to n bytes, polling
      Bytes out;
      uint8_t chunk[256];
      for (int i = 0; i < 500 && out.size() < n; ++i, std::this_thread::sleep_for(kPoll))
        for (long got; (got = pty ? read(fd, chunk, 256) : memory_end->Read(chunk, 256)) > 0;)
          out.insert(out.end(), chunk, chunk + got);
      return out;
    };
    OpenedLine opened = OpenSerialLine(device);
    ASSERT_EQ(opened.status, LineStatus::kOk) << LineStatusText(opened.status);
    SerialLine &line = *opened.line;
    EXPECT_EQ(OpenSerialLine(device).status, LineStatus::kBusy);
    for (uint32_t baud : {9600u, 1200u, 19200u, 4800u}) EXPECT_EQ(line.SetBaud(baud), baud != 4800) << baud;
    uint8_t in[256];
    EXPECT_EQ(line.Read(in, sizeof in), 0);  // at once, with nothing waiting
    // Raw both ways: no line-end translation, no flow-control or signal characters, no echo.
    const Bytes frame = {0xFF, 0x02, 0x80, 0x0A, 0x0D, 0x11, 0x13, 0x03, 0x00, 0x7F};
    EXPECT_EQ(line.Write(frame.data(), 10), 10);
    for (int i = 0; i < 500 && line.DrainedByUs() > NowMicros(); ++i) std::this_thread::sleep_for(kPoll);
    EXPECT_EQ(far_received(10), frame);
    EXPECT_EQ(pty ? write(fd, frame.data(), 10) : memory_end->Write(frame.data(), 10), 10);
    for (int i = 0; i < 500 && line.BytesWaiting() < 10; ++i) std::this_thread::sleep_for(kPoll);
    EXPECT_EQ(line.Read(in, sizeof in), 10);
    EXPECT_EQ(Bytes(in, in + 10), frame);
    EXPECT_TRUE(far_received(0).empty());  // no echo
    EXPECT_EQ(pty ? write(fd, frame.data(), 3) : memory_end->Write(frame.data(), 3), 3);
    for (int i = 0; i < 500 && line.BytesWaiting() < 3; ++i) std::this_thread::sleep_for(kPoll);
    line.Purge();
    EXPECT_EQ(line.BytesWaiting(), 0u);
    opened.line.reset();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(OpenSerialLine(device).status, LineStatus::kOk) << i;
    if (pty) close(fd);
  }
  EXPECT_EQ(OpenSerialLine("/dev/velmora-no-such-port").status, LineStatus::kNotFound);
  EXPECT_EQ(OpenSerialLine("mem:no-such-line").status, LineStatus::kNotFound);
  EXPECT_EQ(OpenSerialLine("/dev/null").status, LineStatus::kNotSerial);
}

// From every bit set, a flag the settings forget to clear shows; from every bit clear, one they
// forget to set (even parity instead of odd).
TEST(SerialLineTest, HartLineSettingsFlagByFlag) {
  const auto c = &termios::c_cflag, i = &termios::c_iflag, o = &termios::c_oflag, l = &termios::c_lflag;
  const std::tuple<const char *, tcflag_t termios::*, tcflag_t, tcflag_t> flags[] = {
      {"CS8", c, CSIZE, CS8},     {"PARENB", c, PARENB, PARENB}, {"PARODD", c, PARODD, PARODD},
      {"CSTOPB", c, CSTOPB, 0},   {"CLOCAL", c, CLOCAL, CLOCAL}, {"CREAD", c, CREAD, CREAD},
      {"CRTSCTS", c, CRTSCTS, 0}, {"HUPCL", c, HUPCL, 0},        {"INPCK", i, INPCK, 0},
      {"PARMRK", i, PARMRK, 0},   {"IGNPAR", i, IGNPAR, 0},      {"ISTRIP", i, ISTRIP, 0},
      {"IXON", i, IXON, 0},       {"IXOFF", i, IXOFF, 0},        {"IXANY", i, IXANY, 0},
      {"OPOST", o, OPOST, 0},     {"ICANON", l, ICANON, 0},      {"ECHO", l, ECHO | ECHONL, 0},
      {"ISIG", l, ISIG | IEXTEN, 0}, {"raw input", i, ICRNL | INLCR | IGNCR | BRKINT | IGNBRK, 0}};
  const std::pair<uint32_t, speed_t> rows[] = {{1200, B1200}, {9600, B9600}, {19200, B19200}, {4800, B1200}};
  for (const auto &[baud, speed] : rows)
    for (const int fill : {0xFF, 0x00}) {
      SCOPED_TRACE(std::to_string(baud) + " baud from every bit " + (fill ? "set" : "clear"));
      termios tio;
      std::memset(&tio, fill, sizeof tio);
      os::MakeHartLineSettings(tio, baud);
      for (const auto &[name, field, mask, want] : flags) EXPECT_EQ(tio.*field & mask, want) << name;
      EXPECT_EQ(tio.c_cc[VMIN] + tio.c_cc[VTIME], 0) << "reads must never block";
      EXPECT_EQ(std::pair(cfgetispeed(&tio), cfgetospeed(&tio)), std::pair(speed, speed));
      EXPECT_EQ(os::SpeedOf(baud), speed);
    }
}

TEST(MemoryLineTest, PacesElevenBitsACharacterInVirtualTime) {
  VirtualClock clock(1000);
  std::shared_ptr<MemoryLine> line = MemoryLine::Create("paced");
  std::unique_ptr<SerialLine> master = std::move(OpenSerialLine("mem:paced").line);
  const uint64_t t0 = clock.NowMicros();
  const uint8_t frame[] = {0xFF, 0x02, 0x80};
  ASSERT_EQ(master->Write(frame, 3), 3);
  // At 1200 baud a character takes 11 / 1200 s: the third byte is in at 27.5 ms, not before.
  MemoryLine::TimedByte in[8];
  clock.AdvanceMs(27);
  EXPECT_EQ(line->ReadTimed(MemoryLine::kFarEnd, in, 8), 2u);
  clock.AdvanceMs(1);
  EXPECT_EQ(line->ReadTimed(MemoryLine::kFarEnd, in, 8), 1u);
  // A byte scheduled in the past waits for the sender to be free (27.5 ms): it is out at 36.7 ms;
  // the far end answers at 9600 baud, 1145.8 us a byte.
  line->WriteAt(MemoryLine::kMasterEnd, frame, 1, t0);
  line->SetEndBaud(MemoryLine::kFarEnd, 9600);
  line->WriteAt(MemoryLine::kFarEnd, frame, 2, t0 + 33000);
  EXPECT_EQ(line->SenderFreeAt(MemoryLine::kFarEnd) - t0, 35291u);
  EXPECT_EQ(master->DrainedByUs() - t0, 36666u);  // 27.5 ms and one more character
  clock.AdvanceMs(9);
  // A long stream comes out whole and in order, also after the line has dropped what was read.
  uint8_t chunk[300];
  while (master->Read(chunk, sizeof chunk) > 0) {}
  std::vector<uint8_t> stream(5000), got;
  for (size_t i = 0; i < stream.size(); ++i) stream[i] = static_cast<uint8_t>(i * 7);
  line->WriteAt(MemoryLine::kFarEnd, stream.data(), 5000, clock.NowMicros());
  clock.AdvanceMs(7000);
  for (int32_t n; (n = master->Read(chunk, sizeof chunk)) > 0;) got.insert(got.end(), chunk, chunk + n);
  EXPECT_EQ(got, stream);
}

// Notice windows as a client uses them.
class NoticeWindowTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(window_ = CreateNoticeWindow(), nullptr); }
  void TearDown() override { DestroyNoticeWindow(window_); }
  // Takes every notice that a peek with the filter finds, as "message/wParam ".
  std::string PeekAll(UINT min, UINT max) {
    std::string out;
    for (MSG msg{}; PeekMessageA(&msg, window_, min, max, PM_REMOVE);)
      out += std::to_string(msg.message) + "/" + std::to_string(msg.wParam) + " ";
    return out;
  }
  HWND window_ = nullptr;
};

// The window's descriptor polls readable exactly while notices wait.
TEST_F(NoticeWindowTest, FiltersLeaveTheRestInOrder) {
  pollfd waiter{GetNoticeWindowFd(window_), POLLIN, 0};
  EXPECT_EQ(poll(&waiter, 1, 0), 0);
  const UINT messages[] = {10, 20, 30, 25, 19, 26, 20};
  for (UINT i = 0; i < 7; ++i) ASSERT_EQ(PostMessageA(window_, messages[i], i, -1), 1);
  MSG msg{};
  ASSERT_EQ(PeekMessageA(&msg, window_, 20, 25, PM_NOREMOVE), 1);
  EXPECT_TRUE(msg.hwnd == window_ && msg.message == 20 && msg.lParam == -1);
  EXPECT_EQ(PeekAll(20, 25), "20/1 25/3 20/6 ");
  EXPECT_EQ(poll(&waiter, 1, 0), 1);
  EXPECT_EQ(PeekAll(0, 0), "10/0 30/2 19/4 26/5 ");
  EXPECT_EQ(poll(&waiter, 1, 0), 0);
}

TEST_F(NoticeWindowTest, WaitingReaderWakesOnAPost) {
  using Clock = std::chrono::steady_clock;
  MSG msg{};
  const auto start = Clock::now();
  EXPECT_EQ(GetMessageTimeout(&msg, window_, 50), 0);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(45));
  // A reader blocked with a 10 s time-out returns as soon as a notice comes, with it.
  auto reader = std::async(std::launch::async, [&] { return GetMessageTimeout(&msg, window_, 10000); });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // time to block first
  const auto posted = Clock::now();
  ASSERT_EQ(PostMessageA(window_, 7, 8, 9), 1);
  EXPECT_EQ(reader.get(), 1);
  EXPECT_LT(Clock::now() - posted, std::chrono::seconds(5));
  EXPECT_TRUE(msg.message == 7 && msg.wParam == 8);
}

TEST_F(NoticeWindowTest, BadWindowsFailAndBoxHoldsTenThousand) {
  HWND gone = CreateNoticeWindow();
  DestroyNoticeWindow(gone);
  DestroyNoticeWindow(gone);  // twice is harmless
  MSG msg{};
  for (HWND bad : {HWND{}, gone}) {
    EXPECT_EQ(PostMessageA(bad, 1, 0, 0), 0);
    EXPECT_EQ(PeekMessageA(&msg, bad, 0, 0, PM_REMOVE) + GetMessageTimeout(&msg, bad, 1) + msg.message, 0u);
  }
  for (int i = 0; i < 10000; ++i) ASSERT_EQ(PostMessageA(window_, 1, static_cast<WPARAM>(i), 0), 1);
  EXPECT_EQ(PostMessageA(window_, 1, 0, 0), 0);
  ASSERT_EQ(GetMessageTimeout(&msg, window_, 0), 1);
  EXPECT_EQ(msg.wParam, 0u);
  EXPECT_EQ(PostMessageA(window_, 1, 0, 0), 1);
}

TEST_F(NoticeWindowTest, PostsFromThreadsArriveOnceInOrder) {
  constexpr int kThreads = 8, kEach = 1000;
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t)
    posters.emplace_back([&, t] {
      for (WPARAM i = 0; i < kEach; ++i)
        while (!PostMessageA(window_, static_cast<UINT>(t), i, 0)) std::this_thread::yield();
    });
  std::vector<WPARAM> next(kThreads, 0);
  int received = 0, out_of_order = 0;
  for (MSG msg; received < kThreads * kEach && GetMessageTimeout(&msg, window_, 5000); ++received)
    out_of_order += msg.message >= next.size() || msg.wParam != next[msg.message]++;
  for (std::thread &poster : posters) poster.join();
  EXPECT_EQ(received, kThreads * kEach);
  EXPECT_EQ(out_of_order, 0);
}

}  // namespace
}  // namespace velmora::platform
