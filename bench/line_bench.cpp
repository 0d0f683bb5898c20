// line_bench: what the library costs and how fast it turns a line around, measured against
// simulated HART field devices on pseudo-terminals.
//
// The devices run in a child process forked before the first library call, so this process's
// CPU time is the library's (and a thin client's). A device answers each request frame a
// turnaround after the request's last byte would have left a real line, and writes its reply
// one byte per character time. It records in shared memory when a request's first byte came in
// and when the reply's last byte went out; both processes read the same CLOCK_MONOTONIC.
//
// Usage: line_bench [--quick]. Prints the figures beside their bounds as a table; --quick takes
// fewer samples. The exit code is 0 unless the set-up fails: the bench reports, it does not gate.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "velmora.h"

namespace {

constexpr unsigned int kPorts = 32;
constexpr unsigned int kReplyMsg = 0x8100;
constexpr unsigned char kCommand = 19;                 // writes three bytes; the device echoes them
constexpr unsigned int kRequestBytes = 5 + 4 + 3 + 1;  // preambles, short header, data, checksum
constexpr unsigned int kReplyBytes = 5 + 4 + 2 + 3 + 1;

int64_t NowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}
void SleepMs(double ms) { std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(ms)); }

unsigned int BaudOf(unsigned int code) { return code == 1 ? 9600 : code == 2 ? 19200 : 1200; }
int64_t CharNs(unsigned int baud) { return 11LL * 1000000000 / baud; }  // start, 8 data, parity, stop
int64_t TurnaroundNs(unsigned int baud) { return baud <= 1200 ? 20000000 : 5000000; }

// The shortest cycle of back-to-back exchanges, in ms: both frames' line time, the device's
// turnaround, the master's lead-in and tail around its transmission, and its 100 ms hold-off.
double CycleBoundMs(unsigned int code) {
  const unsigned int baud = BaudOf(code);
  const double line_ms = static_cast<double>((kRequestBytes + kReplyBytes) * CharNs(baud)) / 1e6;
  return line_ms + static_cast<double>(TurnaroundNs(baud)) / 1e6 + (code == 0 ? 2 + 10 : 1 + 2) + 100;
}

// What the devices publish, per port and overall.
struct PortLog {
  std::atomic<int64_t> request_ns{0};  // first byte of the latest request read
  std::atomic<int64_t> reply_ns{0};    // last byte of the latest reply written
  std::atomic<uint32_t> requests{0}, replies{0};
};
struct Shared {
  PortLog ports[kPorts];
  std::atomic<int64_t> max_late_ns{0};    // the latest a device wrote a byte after it was due
  std::atomic<uint32_t> late_replies{0};  // replies with a byte over a character time late
};
static_assert(std::atomic<int64_t>::is_always_lock_free, "atomics must work across processes");

// ---- The simulated devices: child process, no library calls --------------------------------

struct Device {
  int fd = -1;
  bool listening = true;  // false while no master has the terminal open: it would poll HUP
  unsigned int preambles = 0;
  std::vector<uint8_t> frame;  // from the delimiter on
  int64_t start_ns = 0;        // first byte of the request being read
  int64_t line_free_ns = 0;    // when the last byte read would have ended on a real line
  unsigned int baud = 1200;
  std::vector<uint8_t> reply;
  size_t sent = 0;
  int64_t reply_start_ns = 0;
  bool late = false;  // a byte of this reply went out over a character time late
};

uint8_t Checksum(const uint8_t *bytes, size_t count) {
  uint8_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum ^= bytes[i];
  return sum;
}
size_t HeaderLength(const std::vector<uint8_t> &frame) { return (frame[0] & 0x80) ? 8 : 4; }
// The whole frame's length, delimiter to checksum, or 0 while its header is incomplete.
size_t FrameLength(const std::vector<uint8_t> &frame) {
  const size_t header = HeaderLength(frame);
  return frame.size() < header ? 0 : header + frame[header - 1] + 1;
}

// The reply to a request frame: same frame kind and address, status 0 0, the data echoed.
std::vector<uint8_t> BuildReply(const std::vector<uint8_t> &request) {
  const auto header = static_cast<std::ptrdiff_t>(HeaderLength(request));
  const uint8_t count = std::min<uint8_t>(request[header - 1], 253);
  std::vector<uint8_t> reply(5, 0xFF);
  reply.push_back(request[0] | 0x04);  // 0x02 -> 0x06, 0x82 -> 0x86
  reply.insert(reply.end(), request.begin() + 1, request.begin() + header - 1);
  reply.insert(reply.end(), {static_cast<uint8_t>(count + 2), 0, 0});
  reply.insert(reply.end(), request.begin() + header, request.begin() + header + count);
  reply.push_back(Checksum(reply.data() + 5, reply.size() - 5));
  return reply;
}

// On the master side of a pseudo-terminal these are the settings its far end made.
unsigned int LineBaud(int fd) {
  termios tio{};
  if (tcgetattr(fd, &tio) != 0) return 1200;
  const speed_t speed = cfgetospeed(&tio);
  return speed == B19200 ? 19200 : speed == B9600 ? 9600 : 1200;
}

// Takes bytes read at now_ns. They came as fast as the master wrote them; on a real line each
// takes a character time, so the request ends when its last byte would have.
void Receive(Device &d, PortLog &log, const uint8_t *bytes, size_t count, int64_t now_ns) {
  for (size_t i = 0; i < count; ++i) {
    const uint8_t b = bytes[i];
    if (d.frame.empty() && d.preambles == 0) {
      d.start_ns = now_ns;
      d.baud = LineBaud(d.fd);
    }
    d.line_free_ns = std::max(now_ns, d.line_free_ns) + CharNs(d.baud);
    if (d.frame.empty()) {
      if (b == 0xFF) {
        ++d.preambles;
        continue;
      }
      if (d.preambles >= 2 && (b == 0x02 || b == 0x82)) d.frame.push_back(b);
      d.preambles = 0;
      continue;
    }
    d.frame.push_back(b);
    const size_t length = FrameLength(d.frame);
    if (length == 0 || d.frame.size() < length) continue;
    // A device busy with its reply does not hear the line.
    if (Checksum(d.frame.data(), length - 1) == d.frame.back() && d.reply.empty()) {
      d.reply = BuildReply(d.frame);
      d.sent = 0;
      d.late = false;
      d.reply_start_ns = d.line_free_ns + TurnaroundNs(d.baud);
      log.request_ns.store(d.start_ns);
      log.requests.fetch_add(1, std::memory_order_release);
    }
    d.frame.clear();
  }
}

// One read per readiness: poll reports what is left, and a read of an empty master would wait
// for the terminal's pending input work.
void ReadAvailable(Device &d, PortLog &log, int64_t now_ns) {
  uint8_t buffer[256];
  const ssize_t got = read(d.fd, buffer, sizeof buffer);
  if (got > 0) {
    Receive(d, log, buffer, static_cast<size_t>(got), now_ns);
  } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
    // EIO: the master closed the terminal; forget what was under way.
    const int fd = d.fd;
    d = Device{};
    d.fd = fd;
    d.listening = false;
  }
}

// A reply byte goes out when its stop bit would have ended on a real line.
int64_t NextDueNs(const Device &d) { return d.reply_start_ns + static_cast<int64_t>(d.sent + 1) * CharNs(d.baud); }

void WriteDue(Device &d, PortLog &log, Shared &shared) {
  for (int64_t now = NowNs(); d.sent < d.reply.size() && NextDueNs(d) <= now; now = NowNs()) {
    const int64_t late = now - NextDueNs(d);
    if (late > shared.max_late_ns.load(std::memory_order_relaxed)) shared.max_late_ns.store(late);
    d.late |= late > CharNs(d.baud);
    if (write(d.fd, &d.reply[d.sent], 1) != 1) {
      d.reply.clear();  // the master is gone: the reply is lost, as on an open line
      return;
    }
    ++d.sent;
  }
  if (d.reply.empty() || d.sent < d.reply.size()) return;
  log.reply_ns.store(NowNs());
  log.replies.fetch_add(1, std::memory_order_release);
  if (d.late) shared.late_replies.fetch_add(1);
  d.reply.clear();
}

[[noreturn]] void RunDevices(const std::vector<int> &masters, int wake_fd, Shared *shared) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  prctl(PR_SET_TIMERSLACK, 1000UL);  // wake within a microsecond of a character time
  // A real device's UART is never late, so the devices go before the library's threads where
  // the system allows it; how late they were is reported either way.
  sched_param priority{};
  priority.sched_priority = 10;
  sched_setscheduler(0, SCHED_FIFO, &priority);
  std::vector<Device> devices(masters.size());
  for (size_t i = 0; i < masters.size(); ++i) devices[i].fd = masters[i];
  std::vector<pollfd> fds(masters.size() + 1);
  for (;;) {
    fds[0] = {wake_fd, POLLIN, 0};
    int64_t next_ns = INT64_MAX;
    for (size_t i = 0; i < devices.size(); ++i) {
      fds[i + 1] = {devices[i].listening ? devices[i].fd : -1, POLLIN, 0};
      if (!devices[i].reply.empty()) next_ns = std::min(next_ns, NextDueNs(devices[i]));
    }
    const int64_t left = std::max<int64_t>(0, next_ns - NowNs());
    const timespec timeout{static_cast<time_t>(left / 1000000000), static_cast<long>(left % 1000000000)};
    if (ppoll(fds.data(), fds.size(), next_ns == INT64_MAX ? nullptr : &timeout, nullptr) < 0 && errno != EINTR)
      _exit(1);
    const int64_t now_ns = NowNs();
    if (fds[0].revents & POLLIN) {  // the client (re)opened terminals: listen to all again
      uint64_t count = 0;
      if (read(wake_fd, &count, sizeof count) < 0) _exit(1);
      for (Device &d : devices) d.listening = true;
    }
    for (size_t i = 0; i < devices.size(); ++i) {
      if (fds[i + 1].revents) ReadAvailable(devices[i], shared->ports[i], now_ns);
      WriteDue(devices[i], shared->ports[i], *shared);
    }
  }
}

// ---- The client: this process, library calls only ------------------------------------------

struct Notice {
  int index = -1;  // the application the reply is for; -1: none came in time
  int64_t at_ns = 0;
  bool good = false;  // the reply was the one to the request
};

class Client {
 public:
  explicit Client(int wake_fd) : window_(CreateNoticeWindow()), wake_fd_(wake_fd) {}
  ~Client() {
    Close();
    DestroyNoticeWindow(window_);
  }

  // One application on each of ports 1..count at the rate.
  bool Open(unsigned int count, unsigned int baud_code) {
    for (unsigned int port = 1; port <= count; ++port) {
      tagHARTREGISTRATION registration{window_, port, baud_code, 0, kReplyMsg, 0, port};
      unsigned int app = VELMORA_NONE;
      if (!HART_RegisterDriver(&registration, &app)) {
        std::fprintf(stderr, "cannot register on port %u\n", port);
        return false;
      }
      // Primary master, 5 preambles, no retries: a missed exchange shows as a miss.
      tagHARTCONFIG config{1, 5, 0, baud_code, 0};
      HART_SetConfiguration(app, &config);
      apps_.push_back(app);
    }
    const uint64_t one = 1;
    return write(wake_fd_, &one, sizeof one) == sizeof one;
  }
  void Close() {
    for (unsigned int app : apps_) HART_UnRegisterDriver(app);
    apps_.clear();
  }

  // Queues command 19 on the index-th application's port; its data tags the exchange.
  bool Send(unsigned int index) {
    const uint32_t tag = ++tag_counter_ % 0xFFFFFF + 1;
    unsigned char data[3] = {static_cast<unsigned char>(tag >> 16), static_cast<unsigned char>(tag >> 8),
                             static_cast<unsigned char>(tag)};
    tagHARTREQUEST request{};
    request.nCommand = kCommand;
    request.pData = data;
    request.nDataCount = 3;
    const unsigned int service = HART_SendRequest(apps_[index], &request, index);
    if (service >= 1000) return false;
    pending_[service] = {index, tag};
    ++outstanding_;
    return true;
  }

  // Waits for the next reply notice and fetches its reply.
  Notice Wait(unsigned int timeout_ms) {
    MSG msg{};
    while (GetMessageTimeout(&msg, window_, timeout_ms)) {
      Notice notice;
      notice.at_ns = NowNs();
      const unsigned int service = static_cast<unsigned int>(msg.wParam);
      if (msg.message != kReplyMsg || service >= 1000 || pending_[service].tag == 0) continue;
      const Pending sent = pending_[service];
      pending_[service] = {};
      --outstanding_;
      unsigned char data[256];
      tagHARTREQUEST reply{};
      reply.pData = data;
      notice.index = static_cast<int>(sent.index);
      notice.good = HART_ReceiveRequest(apps_[sent.index], service, &reply, nullptr) == 1 && reply.nResponseCode == 0 &&
                    reply.nDataCount == 3 &&
                    static_cast<uint32_t>((data[0] << 16) | (data[1] << 8) | data[2]) == sent.tag;
      ++(notice.good ? good_ : bad_);
      return notice;
    }
    return {};
  }
  void Drain() {
    while (outstanding_ != 0 && Wait(2000).index >= 0) {
    }
  }
  unsigned int Good() const { return good_; }
  unsigned int Bad() const { return bad_; }

 private:
  struct Pending {
    unsigned int index = 0;
    uint32_t tag = 0;  // 0: no request under this service handle
  };
  HWND window_;
  int wake_fd_;
  std::vector<unsigned int> apps_;
  Pending pending_[1000] = {};
  uint32_t tag_counter_ = 0;
  unsigned int outstanding_ = 0, good_ = 0, bad_ = 0;
};

// ---- Measuring -------------------------------------------------------------------------------

bool g_quick = false;  // --quick: fewer samples
double Pick(double full, double quick) { return g_quick ? quick : full; }

template <typename... Args>
std::string Format(const char *format, Args... args) {
  char text[200];
  std::snprintf(text, sizeof text, format, args...);
  return text;
}

struct Row {
  std::string figure, bound, measured;
  double ratio = NAN;             // bound / measured
  double pass_at = 0;             // the ratio the figure must reach; 0: no bound
  const char *verdict = nullptr;  // in place of the ratio's verdict
};

// CPU of this process in percent of one core, and its voluntary context switches per second
// (the library's thread wake-ups), while fn runs.
struct Usage {
  double cpu_pct, switches_per_s;
};
template <typename Fn>
Usage Measure(Fn fn) {
  auto now = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto us = [](const timeval &tv) { return tv.tv_sec * 1000000.0 + static_cast<double>(tv.tv_usec); };
    return std::pair{us(usage.ru_utime) + us(usage.ru_stime), static_cast<double>(usage.ru_nvcsw)};
  };
  const auto [cpu, switches] = now();
  const int64_t wall = NowNs();
  fn();
  const auto [cpu_end, switches_end] = now();
  const double seconds = static_cast<double>(NowNs() - wall) / 1e9;
  return {(cpu_end - cpu) / 1e4 / seconds, (switches_end - switches) / seconds};
}

long RssKb() {
  std::ifstream status("/proc/self/status");
  std::string key;
  long value = 0;
  while (status >> key) {
    if (key == "VmRSS:" && status >> value) return value;
    status.ignore(LONG_MAX, '\n');
  }
  return -1;
}

double Percentile(std::vector<double> values, double p) {
  std::erase_if(values, [](double value) { return std::isnan(value); });
  if (values.empty()) return NAN;
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<size_t>(std::ceil(p * static_cast<double>(values.size())));
  return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
}

// The master side of a new pseudo-terminal in raw mode, or -1.
int OpenTerminal() {
  const int fd = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
  termios tio{};
  if (fd < 0 || grantpt(fd) != 0 || unlockpt(fd) != 0 || tcgetattr(fd, &tio) != 0) return -1;
  cfmakeraw(&tio);
  return tcsetattr(fd, TCSANOW, &tio) == 0 ? fd : -1;
}

// How late this machine wakes a sleeping thread of ordinary priority, and what one sleep and
// wake costs in CPU: the floor under every latency and every CPU figure the library can reach.
void TimerBaseline(std::vector<Row> &rows) {
  std::vector<double> late_ms;
  const auto samples = static_cast<int>(Pick(2000, 500));
  const Usage usage = Measure([&] {
    for (int i = 0; i < samples; ++i) {
      const int64_t start = NowNs();
      SleepMs(0.5);
      late_ms.push_back(static_cast<double>(NowNs() - start) / 1e6 - 0.5);
    }
  });
  const double seconds = 0.5e-3 * samples + std::accumulate(late_ms.begin(), late_ms.end(), 0.0) / 1e3;
  rows.push_back({"machine: thread wake-up lateness, and CPU per wake-up (no library)", "-",
                  Format("p50 %.3f, p99 %.3f, max %.3f ms; %.1f us", Percentile(late_ms, 0.5),
                         Percentile(late_ms, 0.99), Percentile(late_ms, 1.0),
                         usage.cpu_pct / 100 * seconds / samples * 1e6)});
}

// How long bytes written to a pseudo-terminal by another process take to wake a thread that
// waits for them on the far side: the floor under both latency figures, which cross a terminal
// from one process to the other once each. The writer sends its clock with each write.
void TerminalBaseline(std::vector<Row> &rows) {
  const int master = OpenTerminal();
  const int slave = master < 0 ? -1 : open(ptsname(master), O_RDWR | O_NOCTTY);
  termios tio{};
  if (slave < 0 || tcgetattr(master, &tio) != 0 || tcsetattr(slave, TCSANOW, &tio) != 0) return;
  const auto samples = static_cast<int>(Pick(1000, 300));
  const pid_t writer = fork();
  if (writer == 0) {
    for (int i = 0; i < samples; ++i) {
      SleepMs(3);  // the reader is asleep again
      const int64_t now = NowNs();
      if (write(slave, &now, sizeof now) != sizeof now) break;
    }
    _exit(0);
  }
  close(slave);
  std::vector<double> ms;
  int64_t sent = 0;
  size_t have = 0;
  for (pollfd fd{master, POLLIN, 0}; static_cast<int>(ms.size()) < samples && poll(&fd, 1, 2000) == 1;) {
    const int64_t now = NowNs();
    const ssize_t got = read(master, reinterpret_cast<char *>(&sent) + have, sizeof sent - have);
    if (got <= 0) break;
    if ((have += static_cast<size_t>(got)) < sizeof sent) continue;
    have = 0;
    ms.push_back(static_cast<double>(now - sent) / 1e6);
  }
  waitpid(writer, nullptr, 0);
  close(master);
  rows.push_back({Format("machine: pseudo-terminal, write in one process to reader awake in another (%zu, no library)",
                         ms.size()),
                  "-",
                  Format("p50 %.3f, p99 %.3f, max %.3f ms", Percentile(ms, 0.5), Percentile(ms, 0.99),
                         Percentile(ms, 1.0))});
}

void IdleCpu(Client &client, unsigned int ports, std::vector<Row> &rows) {
  if (!client.Open(ports, 2)) return;
  SleepMs(500);  // past the opening wait for a quiet line
  const Usage usage = Measure([&] { SleepMs(Pick(5000, 1000)); });
  client.Close();
  rows.push_back({Format("idle CPU, %u port(s) open", ports), "<= 1 % of a core",
                  Format("%.3f %% (%.0f wake-ups/s)", usage.cpu_pct, usage.switches_per_s), 1.0 / usage.cpu_pct, 1.0});
}

// Back-to-back exchanges on ports 1..ports at the rate: each port keeps one request outstanding
// and sends the next when the notice comes. Gives each port's mean cycle in ms after warm_ms
// (which covers the opening wait for a quiet line), and the usage over run_ms.
std::vector<double> Cycles(Client &client, unsigned int ports, unsigned int code, double warm_ms, double run_ms,
                           Usage *usage) {
  if (!client.Open(ports, code)) return {};
  std::vector<std::vector<int64_t>> notices(ports);
  auto run_until = [&](int64_t end_ns) {
    while (NowNs() < end_ns) {
      const Notice notice = client.Wait(50);
      if (notice.index < 0) continue;
      if (notice.good) notices[notice.index].push_back(notice.at_ns);
      client.Send(static_cast<unsigned int>(notice.index));
    }
  };
  for (unsigned int i = 0; i < ports; ++i) client.Send(i);
  run_until(NowNs() + static_cast<int64_t>(warm_ms * 1e6));
  for (auto &at : notices) at.clear();
  *usage = Measure([&] { run_until(NowNs() + static_cast<int64_t>(run_ms * 1e6)); });
  client.Drain();
  client.Close();
  std::vector<double> cycles;
  for (const auto &at : notices)
    cycles.push_back(at.size() < 2 ? NAN : static_cast<double>(at.back() - at.front()) / 1e6 / (at.size() - 1.0));
  return cycles;
}

void Busy(Client &client, std::vector<Row> &rows) {
  Usage usage{};
  const std::vector<double> cycles = Cycles(client, kPorts, 2, 1000, Pick(10000, 3000), &usage);
  if (cycles.empty()) return;
  double exchanges_per_s = 0;
  for (double cycle : cycles) exchanges_per_s += std::isnan(cycle) ? 0 : 1000 / cycle;
  rows.push_back({"busy CPU, 32 ports back-to-back at 19200", "< 5 % of a core",
                  Format("%.2f %% (%.0f wake-ups/s, %.1f per exchange)", usage.cpu_pct, usage.switches_per_s,
                         usage.switches_per_s / exchanges_per_s),
                  5.0 / usage.cpu_pct, 1.0});
  const double bound = CycleBoundMs(2);
  double worst = 0;  // the longest cycle; a port without two good exchanges counts as endless
  unsigned int ok = 0;
  for (double cycle : cycles) {
    worst = std::isnan(cycle) ? INFINITY : std::max(worst, cycle);
    ok += bound / cycle >= 0.98;
  }
  rows.push_back({"busy cycle, worst of 32 ports at 19200", Format("%.1f ms, ratio >= 98 %%", bound),
                  Format("%.1f ms (median %.1f ms; %u of 32 ports ok)", worst, Percentile(cycles, 0.5), ok),
                  bound / worst, 0.98});
}

void LatencyRow(const char *figure, const std::vector<double> &ms, double bound, std::vector<Row> &rows) {
  const double p99 = Percentile(ms, 0.99);
  rows.push_back({Format(figure, ms.size()), Format("p99 <= %.1f ms", bound),
                  Format("p50 %.3f, p99 %.3f, max %.3f ms", Percentile(ms, 0.5), p99, Percentile(ms, 1.0)), bound / p99,
                  1.0});
}

// Single exchanges on a free line at 19200: request handed in to its first byte on the line,
// and the reply's last byte on the line to its notice in hand.
void Latency(Client &client, PortLog &log, std::vector<Row> &rows) {
  if (!client.Open(1, 2)) return;
  std::vector<double> to_line, to_hand;
  client.Send(0);
  client.Wait(2000);  // the first exchange also waits for a quiet line
  for (int i = 0, samples = static_cast<int>(Pick(200, 50)); i < samples; ++i) {
    SleepMs(150);  // past the 100 ms hold-off, so the line is free
    const uint32_t requests = log.requests.load(), replies = log.replies.load();
    const int64_t sent_ns = NowNs();
    if (!client.Send(0)) continue;
    const Notice notice = client.Wait(1000);
    // The device publishes its times just after the byte, so the notice may overtake them.
    for (int spin = 0; spin < 10000 && log.replies.load(std::memory_order_acquire) == replies; ++spin) SleepMs(0.01);
    if (!notice.good || log.requests.load() != requests + 1 || log.replies.load() != replies + 1) continue;
    to_line.push_back(static_cast<double>(log.request_ns.load() - sent_ns) / 1e6);
    to_hand.push_back(static_cast<double>(notice.at_ns - log.reply_ns.load()) / 1e6);
  }
  client.Drain();
  client.Close();
  LatencyRow("request to first byte on the line (%zu exchanges)", to_line, 1.5, rows);
  LatencyRow("last reply byte to notice in hand (%zu exchanges)", to_hand, 0.3, rows);
}

void OnePortCycle(Client &client, unsigned int code, std::vector<Row> &rows) {
  Usage usage{};
  const double run_ms = code == 0 ? Pick(8000, 3000) : Pick(5000, 2000);
  const std::vector<double> cycles = Cycles(client, 1, code, code == 0 ? 800 : 500, run_ms, &usage);
  if (cycles.empty()) return;
  const double bound = CycleBoundMs(code);
  rows.push_back({Format("cycle, one port back-to-back at %u", BaudOf(code)), Format("%.1f ms, ratio >= 98 %%", bound),
                  Format("%.1f ms", cycles[0]), bound / cycles[0], 0.98});
}

// Resident memory before, with many requests queued, and after they have all come back; twice,
// since the allocator keeps what was freed: after the second round it should not have grown.
void Memory(Client &client, std::vector<Row> &rows) {
  constexpr unsigned int kApps = 10;  // one per port
  constexpr long kSlackKb = 16;       // four pages
  const auto per_app = static_cast<unsigned int>(Pick(100, 20));
  if (!client.Open(kApps, 2)) return;
  SleepMs(400);
  const long before = RssKb();
  unsigned int queued = 0;
  long in_flight = 0, after[2] = {};
  for (long &rss : after) {
    queued = 0;
    for (unsigned int app = 0; app < kApps; ++app)
      for (unsigned int i = 0; i < per_app; ++i) queued += client.Send(app);
    in_flight = std::max(in_flight, RssKb());
    client.Drain();
    rss = RssKb();
  }
  client.Close();
  rows.push_back({Format("resident memory, %u requests in flight, twice", queued), "flat after they complete",
                  Format("%ld / %ld / %ld / %ld kB (before / in flight / after 1st / after 2nd)", before, in_flight,
                         after[0], after[1]),
                  NAN, 0, after[1] - after[0] <= kSlackKb ? "ok" : "MISSED"});
}

const char *VerdictOf(const Row &row) {
  if (row.verdict) return row.verdict;
  if (row.pass_at == 0) return "info";
  return row.ratio >= row.pass_at ? "ok" : "MISSED";
}

std::string RatioOf(const Row &row) {
  if (std::isnan(row.ratio)) return "-";
  // Rounded down, so that a ratio just short of its mark never shows as reaching it.
  return row.ratio > 10 ? "> 1000 %" : Format("%.1f %%", std::floor(1000 * row.ratio) / 10);
}

void PrintTable(const std::vector<Row> &rows) {
  std::printf("| figure | bound | measured | ratio | verdict |\n|---|---|---|---|---|\n");
  for (const Row &row : rows)
    std::printf("| %s | %s | %s | %s | %s |\n", row.figure.c_str(), row.bound.c_str(), row.measured.c_str(),
                RatioOf(row).c_str(), VerdictOf(row));
}

}  // namespace

int main(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) g_quick |= std::strcmp(argv[i], "--quick") == 0;

  // The terminals, the shared log and the wake-up exist before the fork; the devices leave
  // this process before its first library call.
  std::vector<int> masters;
  std::vector<std::string> paths;
  for (unsigned int i = 0; i < kPorts; ++i) {
    masters.push_back(OpenTerminal());
    if (masters.back() < 0) {
      std::perror("pseudo-terminal");
      return 1;
    }
    paths.push_back(ptsname(masters.back()));
  }
  void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  const int wake_fd = eventfd(0, EFD_NONBLOCK);
  if (memory == MAP_FAILED || wake_fd < 0) {
    std::perror("shared memory");
    return 1;
  }
  Shared *shared = new (memory) Shared;
  const pid_t devices = fork();
  if (devices < 0) {
    std::perror("fork");
    return 1;
  }
  if (devices == 0) RunDevices(masters, wake_fd, shared);
  for (int fd : masters) close(fd);

  for (unsigned int port = 1; port <= kPorts; ++port) SetComPortDevice(port, paths[port - 1].c_str());
  std::vector<Row> rows;
  std::vector<std::string> notes;
  {
    Client client(wake_fd);
    // Runs one figure and notes what may have bent it: exchanges that failed, and replies the
    // devices wrote late (a real device never is; a late byte leaves a gap inside its reply).
    auto run = [&](const char *what, auto figure) {
      std::fprintf(stderr, "%s...\n", what);
      const unsigned int good = client.Good(), bad = client.Bad(), late = shared->late_replies.load();
      shared->max_late_ns.store(0);
      figure();
      const unsigned int failed = client.Bad() - bad, exchanges = client.Good() - good + failed;
      if (exchanges == 0) return;
      notes.push_back(
          Format("%s: %u exchanges, %u failed or wrong; %u replies with a byte over a character time "
                 "late (at most %.3f ms)",
                 what, exchanges, failed, shared->late_replies.load() - late,
                 static_cast<double>(shared->max_late_ns.load()) / 1e6));
    };
    run("timer baseline", [&] { TimerBaseline(rows); });
    run("terminal baseline", [&] { TerminalBaseline(rows); });
    for (unsigned int ports : {1u, 8u, 32u})
      run(Format("idle, %u port(s)", ports).c_str(), [&] { IdleCpu(client, ports, rows); });
    run("32 ports busy", [&] { Busy(client, rows); });
    run("single exchanges", [&] { Latency(client, shared->ports[0], rows); });
    for (unsigned int code : {0u, 2u})
      run(Format("one port at %u", BaudOf(code)).c_str(), [&] { OnePortCycle(client, code, rows); });
    run("memory", [&] { Memory(client, rows); });
  }
  kill(devices, SIGKILL);
  waitpid(devices, nullptr, 0);

  PrintTable(rows);
  std::printf("\n%s run. How faithful each run was:\n", g_quick ? "Quick" : "Full");
  for (const std::string &note : notes) std::printf("- %s\n", note.c_str());
  return rows.size() == 12 ? 0 : 1;
}
