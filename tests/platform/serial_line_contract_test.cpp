// One contract for every serial backend: the in-memory line and the POSIX backend on a
// pseudo-terminal, each with a far end that the test holds.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/memory_line.h"
#include "platform/serial_line.h"

namespace velmora::platform {
namespace {

// The far end of a line as the test sees it.
class FarEnd {
 public:
  virtual ~FarEnd() = default;
  virtual std::string Device() = 0;
  virtual void Send(const std::vector<uint8_t> &bytes) = 0;
  virtual std::vector<uint8_t> Received() = 0;
};

class MemoryFar final : public FarEnd {
 public:
  MemoryFar() {
    static int counter = 0;
    name_ = "contract-" + std::to_string(++counter);
    line_ = MemoryLine::Create(name_);
  }
  std::string Device() override { return "mem:" + name_; }
  void Send(const std::vector<uint8_t> &bytes) override {
    line_->WriteAt(MemoryLine::kFarEnd, bytes.data(), static_cast<uint32_t>(bytes.size()), NowMicros());
  }
  std::vector<uint8_t> Received() override {
    MemoryLine::TimedByte bytes[256];
    std::vector<uint8_t> out;
    uint32_t got;
    while ((got = line_->ReadTimed(MemoryLine::kFarEnd, bytes, 256)) > 0)
      for (uint32_t i = 0; i < got; ++i) out.push_back(bytes[i].value);
    return out;
  }

 private:
  std::string name_;
  std::shared_ptr<MemoryLine> line_;
};

class PtyFar final : public FarEnd {
 public:
  PtyFar() {
    fd_ = posix_openpt(O_RDWR | O_NOCTTY);
    grantpt(fd_);
    unlockpt(fd_);
    path_ = ptsname(fd_);
    termios tio{};
    tcgetattr(fd_, &tio);
    cfmakeraw(&tio);
    tcsetattr(fd_, TCSANOW, &tio);
    fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
  }
  ~PtyFar() override { close(fd_); }
  std::string Device() override { return path_; }
  void Send(const std::vector<uint8_t> &bytes) override { ASSERT_EQ(write(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size())); }
  std::vector<uint8_t> Received() override {
    std::vector<uint8_t> out;
    uint8_t chunk[256];
    ssize_t got;
    while ((got = read(fd_, chunk, sizeof chunk)) > 0) out.insert(out.end(), chunk, chunk + got);
    return out;
  }

 private:
  int fd_ = -1;
  std::string path_;
};

using FarFactory = std::unique_ptr<FarEnd> (*)();

class SerialLineContract : public ::testing::TestWithParam<FarFactory> {
 protected:
  void SetUp() override {
    far_ = GetParam()();
    OpenedLine opened = OpenSerialLine(far_->Device());
    ASSERT_EQ(opened.status, LineStatus::kOk) << LineStatusText(opened.status);
    line_ = std::move(opened.line);
  }
  // Waits (real time, generously) until n bytes wait at the line, or gives up.
  uint32_t AwaitWaiting(uint32_t n) {
    for (int i = 0; i < 500 && line_->BytesWaiting() < n; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return line_->BytesWaiting();
  }
  std::unique_ptr<FarEnd> far_;
  std::unique_ptr<SerialLine> line_;
};

TEST_P(SerialLineContract, SecondOpenIsRefused) {
  OpenedLine again = OpenSerialLine(far_->Device());
  EXPECT_EQ(again.line, nullptr);
  EXPECT_EQ(again.status, LineStatus::kBusy);
}

TEST_P(SerialLineContract, BytesGoBothWays) {
  ASSERT_TRUE(line_->SetBaud(19200));
  const std::vector<uint8_t> out = {0xFF, 0xFF, 0x02, 0x80, 0x00, 0x00, 0x82};
  EXPECT_EQ(line_->Write(out.data(), static_cast<uint32_t>(out.size())), 7);
  EXPECT_TRUE(line_->WaitDrained(1000));
  std::vector<uint8_t> seen;
  for (int i = 0; i < 500 && seen.size() < out.size(); ++i) {
    auto got = far_->Received();
    seen.insert(seen.end(), got.begin(), got.end());
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_EQ(seen, out);
  far_->Send({0x06, 0x80, 0xFF});
  EXPECT_EQ(AwaitWaiting(3), 3u);
  uint8_t in[256];
  EXPECT_EQ(line_->Read(in, 256), 3);
  EXPECT_EQ(in[2], 0xFF);
}

TEST_P(SerialLineContract, ReopensAfterClose) {
  line_.reset();
  for (int i = 0; i < 3; ++i) {
    OpenedLine again = OpenSerialLine(far_->Device());
    ASSERT_EQ(again.status, LineStatus::kOk) << LineStatusText(again.status) << " errno " << again.os_error;
  }
}

TEST_P(SerialLineContract, EmptyReadReturnsAtOnce) {
  uint8_t in[16];
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(line_->Read(in, sizeof in), 0);
  EXPECT_EQ(line_->BytesWaiting(), 0u);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

TEST_P(SerialLineContract, PurgeDropsUnreadInput) {
  far_->Send({1, 2, 3});
  AwaitWaiting(3);
  line_->Purge();
  EXPECT_EQ(line_->BytesWaiting(), 0u);
}

TEST_P(SerialLineContract, BaudRatesAndControlLines) {
  for (uint32_t baud : {1200u, 9600u, 19200u}) {
    EXPECT_TRUE(line_->SetBaud(baud));
    EXPECT_EQ(line_->Baud(), baud);
  }
  EXPECT_FALSE(line_->SetBaud(4800));
  EXPECT_EQ(line_->Baud(), 19200u);
  // A pseudo-terminal may refuse these; the calls must come back either way.
  line_->SetRts(true);
  line_->SetDtr(false);
  line_->SetRts(false);
  line_->SetDtr(true);
}

INSTANTIATE_TEST_SUITE_P(Backends, SerialLineContract,
                         ::testing::Values(+[]() -> std::unique_ptr<FarEnd> { return std::make_unique<MemoryFar>(); },
                                           +[]() -> std::unique_ptr<FarEnd> { return std::make_unique<PtyFar>(); }));

TEST(SerialLineOpenTest, MissingDevicesFailWithoutHanging) {
  EXPECT_EQ(OpenSerialLine("/dev/velmora-no-such-port").status, LineStatus::kNotFound);
  EXPECT_EQ(OpenSerialLine("mem:no-such-line").status, LineStatus::kNotFound);
  EXPECT_EQ(OpenSerialLine("/dev/null").status, LineStatus::kNotSerial);
}

}  // namespace
}  // namespace velmora::platform
