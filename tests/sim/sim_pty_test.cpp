// The simulator on a pseudo-terminal in real time, reached through the library's POSIX serial
// backend: in-process through PtyRunner, and as the program velmora-sim started as a child with
// a readiness handshake (the terminal's path on its first line) and stopped with SIGTERM.
// Real time: the bounds on timing are generous.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/clock.h"
#include "platform/serial_line.h"
#include "raw_peer.h"
#include "sim/sim_data.h"
#include "sim/sim_pty_runner.h"

extern char **environ;

namespace velmora::sim::testing {
namespace {

using platform::NowMicros;
using platform::OpenSerialLine;
using platform::SerialLine;

struct Timed {
  Bytes bytes;
  std::vector<uint64_t> times_us;  // when each byte was read
};

// Reads from the line until `count` bytes came or the time is up.
Timed ReadBytes(SerialLine &line, size_t count, uint32_t timeout_ms) {
  Timed got;
  uint64_t deadline = NowMicros() + static_cast<uint64_t>(timeout_ms) * 1000;
  while (got.bytes.size() < count && NowMicros() < deadline) {
    uint8_t buffer[256];
    int32_t n = line.Read(buffer, sizeof buffer);
    for (int32_t i = 0; i < n; ++i) {
      got.bytes.push_back(buffer[i]);
      got.times_us.push_back(NowMicros());
    }
    if (n <= 0) platform::os::SleepMicros(500);
  }
  return got;
}

// Reads until one whole frame has come (or the time is up) and parses it.
std::optional<RxFrame> ReadFrame(SerialLine &line, uint32_t timeout_ms, Timed *timed = nullptr) {
  Timed got;
  uint64_t deadline = NowMicros() + static_cast<uint64_t>(timeout_ms) * 1000;
  while (NowMicros() < deadline) {
    Timed more = ReadBytes(line, 1, 5);
    got.bytes.insert(got.bytes.end(), more.bytes.begin(), more.bytes.end());
    got.times_us.insert(got.times_us.end(), more.times_us.begin(), more.times_us.end());
    if (std::optional<RxFrame> frame = ParseFrame(got.bytes)) {
      if (timed) *timed = got;
      return frame;
    }
  }
  if (timed) *timed = got;
  return std::nullopt;
}

std::unique_ptr<SerialLine> Open(const std::string &path, uint32_t baud = 1200) {
  platform::OpenedLine opened = OpenSerialLine(path);
  EXPECT_EQ(opened.status, platform::LineStatus::kOk) << path << ": " << platform::LineStatusText(opened.status);
  if (opened.line) opened.line->SetBaud(baud);
  return std::move(opened.line);
}

void Write(SerialLine &line, const Bytes &bytes) {
  ASSERT_EQ(line.Write(bytes.data(), static_cast<uint32_t>(bytes.size())), static_cast<int32_t>(bytes.size()));
}

TEST(SimPty, RunnerServesAPseudoTerminalThroughTheSerialBackend) {
  PtyRunner runner;
  runner.Core().AddDevice(DefaultDevice(0));
  std::string error;
  ASSERT_TRUE(runner.Open(&error)) << error;
  ASSERT_FALSE(runner.DevicePath().empty());
  runner.Start();
  std::unique_ptr<SerialLine> line = Open(runner.DevicePath());
  ASSERT_TRUE(line);

  Write(*line, ShortRequest(0, 0));
  std::optional<RxFrame> frame = ReadFrame(*line, 3000);
  runner.Stop();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->delimiter, 0x06);
  EXPECT_TRUE(frame->checksum_ok);
  EXPECT_EQ(frame->Payload().size(), 22u);
}

TEST(SimPty, RunnerKeepsServingWhenTheMasterReopens) {
  PtyRunner runner;
  runner.Core().AddDevice(DefaultDevice(0));
  std::string error;
  ASSERT_TRUE(runner.Open(&error)) << error;
  runner.Start();
  for (int round = 0; round < 2; ++round) {
    std::unique_ptr<SerialLine> line = Open(runner.DevicePath());
    ASSERT_TRUE(line);
    Write(*line, ShortRequest(0, 0));
    EXPECT_TRUE(ReadFrame(*line, 3000)) << "round " << round;
  }
  runner.Stop();
}

// velmora-sim as a child process.
class SimProgram : public ::testing::Test {
 protected:
  static std::string Binary() {
    std::error_code ec;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return {};
    return (self.parent_path() / ".." / "sim" / "velmora-sim").lexically_normal().string();
  }

  void SetUp() override {
    binary_ = Binary();
    if (binary_.empty() || access(binary_.c_str(), X_OK) != 0) GTEST_SKIP() << "velmora-sim not built at " << binary_;
    stderr_path_ = ::testing::TempDir() + "velmora_sim_stderr_" + std::to_string(getpid()) + ".txt";
  }

  void TearDown() override {
    if (pid_ > 0) Stop();
    if (stdout_fd_ >= 0) close(stdout_fd_);
    std::filesystem::remove(stderr_path_);
  }

  // Starts the program and waits for its first line; the terminal's path, or empty.
  std::string Start(std::vector<std::string> args) {
    int out[2];
    if (pipe(out) != 0) return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    posix_spawn_file_actions_addopen(&actions, 2, stderr_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    args.insert(args.begin(), binary_);
    std::vector<char *> argv;
    for (std::string &arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int rc = posix_spawn(&pid_, binary_.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    stdout_fd_ = out[0];
    if (rc != 0) {
      pid_ = -1;
      return {};
    }
    first_line_ = ReadLine(10000);
    const std::string prefix = "velmora-sim: ";
    if (first_line_.rfind(prefix, 0) != 0) return {};
    return first_line_.substr(prefix.size());
  }

  std::string ReadLine(int timeout_ms) {
    std::string line;
    uint64_t deadline = NowMicros() + static_cast<uint64_t>(timeout_ms) * 1000;
    while (NowMicros() < deadline) {
      pollfd p{stdout_fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      char c;
      if (read(stdout_fd_, &c, 1) != 1) break;
      if (c == '\n') return line;
      line.push_back(c);
    }
    return line;
  }

  // Sends SIGTERM and waits (bounded) for the exit; the exit status, or -1.
  int Stop(int signal_number = SIGTERM) {
    kill(pid_, signal_number);
    int status = 0;
    uint64_t deadline = NowMicros() + 5000000;
    while (NowMicros() < deadline) {
      pid_t done = waitpid(pid_, &status, WNOHANG);
      if (done == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      platform::os::SleepMicros(5000);
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return -1;
  }

  int Wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::string Stderr() const {
    std::ifstream in(stderr_path_);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string binary_;
  std::string stderr_path_;
  std::string first_line_;
  pid_t pid_ = -1;
  int stdout_fd_ = -1;
};

TEST_F(SimProgram, PrintsItsTerminalAndAnswersThroughTheSerialBackend) {
  std::string path = Start({"--devices", "2"});
  ASSERT_FALSE(path.empty()) << "first line: '" << first_line_ << "'";
  EXPECT_EQ(path.rfind("/dev/", 0), 0u) << path;
  std::unique_ptr<SerialLine> line = Open(path);
  ASSERT_TRUE(line);

  Bytes request = ShortRequest(1, 0);
  uint64_t sent = NowMicros();
  Write(*line, request);
  Timed timed;
  std::optional<RxFrame> identity = ReadFrame(*line, 3000, &timed);
  ASSERT_TRUE(identity) << Stderr();
  EXPECT_EQ(identity->address, Bytes{0x81});
  EXPECT_TRUE(identity->checksum_ok);
  Bytes p = identity->Payload();
  ASSERT_EQ(p.size(), 22u);

  // Paced at 1200 baud: 20 ms turnaround, then about 9.2 ms a byte.
  EXPECT_GE(timed.times_us.front() - sent, 20000u);
  EXPECT_LE(timed.times_us.front() - sent, 2000000u);
  uint64_t spread = timed.times_us.back() - timed.times_us.front();
  uint64_t expected = MemoryLine::CharMicros(1200, static_cast<uint32_t>(timed.bytes.size() - 1));
  EXPECT_GE(spread, expected * 8 / 10) << "bytes were not paced";
  EXPECT_LE(spread, expected * 3);

  // The long address from the identity reaches the same device.
  Address5 address{static_cast<uint8_t>(p[1] & 0x3F), p[2], p[9], p[10], p[11]};
  Write(*line, LongRequest(address, 13));
  std::optional<RxFrame> tag = ReadFrame(*line, 3000);
  ASSERT_TRUE(tag);
  EXPECT_EQ(UnpackAscii(tag->Payload().data(), 6), "SIM1    ");

  line.reset();
  EXPECT_EQ(Stop(), 0);
  EXPECT_NE(Stderr().find("stopped"), std::string::npos) << Stderr();
}

TEST_F(SimProgram, EchoesAtTheChosenBaudRate) {
  std::string path = Start({"--baud", "9600", "--echo", "--turnaround", "5"});
  ASSERT_FALSE(path.empty());
  std::unique_ptr<SerialLine> line = Open(path, 9600);
  ASSERT_TRUE(line);
  Bytes request = ShortRequest(0, 0);
  Write(*line, request);
  Timed echo = ReadBytes(*line, request.size(), 3000);
  EXPECT_EQ(echo.bytes, request);
  std::optional<RxFrame> reply = ReadFrame(*line, 3000);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->delimiter, 0x06);
  EXPECT_EQ(Stop(SIGINT), 0);
}

TEST_F(SimProgram, FaultsAndTranscriptFromTheCommandLine) {
  std::string transcript = ::testing::TempDir() + "velmora_sim_transcript_" + std::to_string(getpid()) + ".txt";
  std::string path = Start({"--fault", "busy:times=1", "--fault=no-reply:command=2", "--transcript=" + transcript});
  ASSERT_FALSE(path.empty());
  std::unique_ptr<SerialLine> line = Open(path);
  ASSERT_TRUE(line);
  Write(*line, ShortRequest(0, 0));
  std::optional<RxFrame> busy = ReadFrame(*line, 3000);
  ASSERT_TRUE(busy);
  EXPECT_EQ(busy->ResponseCode(), kBusy);
  Write(*line, ShortRequest(0, 0));
  std::optional<RxFrame> fine = ReadFrame(*line, 3000);
  ASSERT_TRUE(fine);
  EXPECT_EQ(fine->ResponseCode(), 0);
  Bytes p = fine->Payload();
  Address5 address{static_cast<uint8_t>(p[1] & 0x3F), p[2], p[9], p[10], p[11]};
  Write(*line, LongRequest(address, 2));
  EXPECT_FALSE(ReadFrame(*line, 800)) << "command 2 gets no reply";
  EXPECT_EQ(Stop(), 0);

  std::ifstream in(transcript);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_NE(text.str().find("heard"), std::string::npos);
  EXPECT_NE(text.str().find("faults busy"), std::string::npos) << text.str();
  EXPECT_NE(text.str().find("no reply (fault)"), std::string::npos) << text.str();
  std::filesystem::remove(transcript);
}

TEST_F(SimProgram, BurstFramesFromTheCommandLine) {
  std::string path = Start({"--burst", "command=1,period=300,target=primary"});
  ASSERT_FALSE(path.empty());
  std::unique_ptr<SerialLine> line = Open(path);
  ASSERT_TRUE(line);
  Timed got = ReadBytes(*line, 100000, 1500);
  std::vector<RxFrame> frames = AllFrames(got.bytes);
  ASSERT_GE(frames.size(), 3u);
  for (const RxFrame &frame : frames) {
    EXPECT_EQ(frame.delimiter, 0x81);
    EXPECT_EQ(frame.address[0] & 0xC0, 0xC0);
    EXPECT_TRUE(frame.checksum_ok);
  }
  EXPECT_EQ(Stop(), 0);
}

TEST_F(SimProgram, RefusesABadCommandLine) {
  EXPECT_TRUE(Start({"--devices", "99"}).empty());
  EXPECT_EQ(Wait(), 2);
  EXPECT_NE(Stderr().find("--devices"), std::string::npos) << Stderr();
}

TEST_F(SimProgram, HelpListsTheOptions) {
  Start({"--help"});
  EXPECT_EQ(first_line_.rfind("usage: velmora-sim", 0), 0u) << first_line_;
  EXPECT_EQ(Wait(), 0);
}

}  // namespace
}  // namespace velmora::sim::testing
