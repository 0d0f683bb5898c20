// soak: many applications on several ports against misbehaving simulated devices, for a set time.
//
// Each port has a velmora-sim process on a pseudo-terminal, reached through a symlink that this
// program re-points, so that a device can disappear (its simulator killed) and come back (a new
// one started with newly drawn faults). Application threads register on random ports, send
// requests, fetch replies, clear and unregister at random. As it runs it checks that every
// accepted request ends in one notice within its bound, that no notice names a request its
// application does not have, that closing a port is quick, that memory and descriptors stay flat,
// and at the end that every table row and queue is free again. Exit code 1 on any violation.
//
// Usage: soak [--seed N] [--seconds N] [--ports N] [--threads N] [--baud 1200|9600|19200]
//             [--sim PATH] [--margin MS] [--transcripts DIR] [--clear-port] [--verbose]
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "velmora.h"

namespace {

#ifndef __has_feature
#define __has_feature(x) 0
#endif
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
constexpr bool kTsan = true;
#else
constexpr bool kTsan = false;
#endif

constexpr unsigned int kReplyMsg = 0x8101;
constexpr unsigned int kLinkMsg = 0x8102;
constexpr unsigned int kRetries = 2;
constexpr unsigned int kPreambles = 5;
constexpr unsigned int kMaxOutstanding = 3;  // per application
constexpr int64_t kCloseBoundMs = 6000;
// What the library waits, at every rate (they are 100 ms or more, so the rate does not shorten
// them): the quiet that ends a reply wait, and the hold-off after an own exchange.
constexpr int64_t kReplyWaitMs = 305;
constexpr int64_t kHoldOffMs = 100;
constexpr long kRssSlackKb = 2048;
constexpr int kFdSlack = 8;

struct Options {
  uint64_t seed = 1;
  int seconds = 60, ports = 4, threads = 12;
  unsigned int baud = 9600;
  std::string sim;
  int64_t margin_ms = 1000;  // scheduling on a loaded machine, the quiet after a port opens
  bool clear_port = false, verbose = false;
  std::string transcripts;  // a folder: each simulator's transcript goes there, to explain a late
} opt;

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}
int64_t g_t0 = 0;
double Elapsed() { return static_cast<double>(NowMs() - g_t0) / 1000.0; }
unsigned int BaudCode() { return opt.baud == 19200 ? 2 : opt.baud == 9600 ? 1 : 0; }

// One attempt: lead-in and tail of the transmission, the request and the longest reply on the
// line (noise included), room for one foreign exchange (second master or burst) before our
// turn, the reply wait and the hold-off.
int64_t FrameMs(unsigned int chars) { return (chars * 11000 + opt.baud - 1) / opt.baud; }
int64_t AttemptMs() {
  const int64_t lead_tail = opt.baud == 1200 ? 12 : 3;
  return lead_tail + FrameMs(10 + 60) * 3 + kReplyWaitMs + kHoldOffMs;
}
int64_t RequestMs() { return (1 + kRetries) * AttemptMs(); }
// A request with `ahead` others of the port before it: the outstanding requests that nobody
// cleared, and one more for a request in service whose owner cleared it or left.
int64_t BoundMs(unsigned int ahead) { return (ahead + 2) * RequestMs() + opt.margin_ms; }

// ---- Violations and figures -----------------------------------------------------------------

enum Kind { kLate, kLateGone, kLateBusy, kStray, kLost, kWrongId, kReused, kSlowClose, kTables, kRss, kFds, kKinds };
const char *const kKindNames[kKinds] = {"late: no notice within bound (device present)",
                                        "late: no notice within bound (device was killed)",
                                        "late on a line kept busy by garbled bursts (no bound)",
                                        "stray notice (handle not outstanding)",
                                        "notice without result (ReceiveRequest 0)",
                                        "result with wrong application id",
                                        "handle given out while outstanding",
                                        "slow close (over bound)",
                                        "table rows or queues not free at end",
                                        "resident memory grew",
                                        "descriptors grew"};
std::atomic<int> g_violations[kKinds];
std::mutex g_log_mutex;
std::atomic<int> g_logged{0};

void Violation(Kind kind, const char *format, ...) {
  g_violations[kind].fetch_add(1);
  if (g_logged.fetch_add(1) >= 60 && !opt.verbose) return;
  std::lock_guard<std::mutex> lock(g_log_mutex);
  std::va_list args;
  va_start(args, format);
  std::fprintf(stderr, "[%7.2f] VIOLATION %s: ", Elapsed(), kKindNames[kind]);
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
  va_end(args);
}

std::atomic<uint64_t> g_sent{0}, g_refused{0}, g_replies{0}, g_failures{0}, g_cleared_late{0}, g_bursts{0};
std::atomic<uint64_t> g_registers{0}, g_register_fails{0}, g_unregisters{0}, g_closes{0}, g_clears{0};
std::atomic<uint64_t> g_restarts{0}, g_marked_cleared{0}, g_abandoned{0};
std::atomic<int64_t> g_max_latency{0}, g_max_latency_bound{0}, g_max_ratio_permille{0}, g_max_close{0},
    g_max_unregister{0};

void Max(std::atomic<int64_t> &into, int64_t value) {
  for (int64_t seen = into.load(); value > seen && !into.compare_exchange_weak(seen, value);) {
  }
}

// ---- Devices --------------------------------------------------------------------------------

std::string g_dir;
struct Device {
  pid_t pid = -1;
  int out = -1;  // the simulator's standard output, kept open so that it never writes to a closed pipe
  std::string faults;
  std::atomic<int64_t> killed_ms{0};  // when the device last disappeared
  // The last span in which the device sent bursts faster than the line's idle time-out with a
  // fault that garbles them: the line is never quiet for the master then.
  std::atomic<int64_t> busy_from_ms{INT64_MAX}, busy_until_ms{0};
};
std::vector<Device> g_devices(33);
std::mutex g_faults_mutex;  // guards Device::faults, which the watcher reads

std::string FaultsOf(unsigned int port) {
  std::lock_guard<std::mutex> lock(g_faults_mutex);
  return g_devices[port].faults.empty() ? "clean" : g_devices[port].faults;
}
std::vector<pid_t> g_pids(33, -1);  // for the signal handler

std::string LinkPath(int port) { return g_dir + "/port" + std::to_string(port); }

void PointLink(int port, const std::string &target) {
  const std::string temp = LinkPath(port) + ".new";
  unlink(temp.c_str());
  if (symlink(target.c_str(), temp.c_str()) != 0 || rename(temp.c_str(), LinkPath(port).c_str()) != 0)
    std::perror("soak: symlink");
}

// Random misbehaviour for one simulator's life.
std::vector<std::string> DrawFaults(std::mt19937_64 &rng) {
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<uint64_t>(n)); };
  std::vector<std::string> args;
  if (pick(4) == 0) return args;  // a clean device now and then
  for (int n = 1 + pick(3); n > 0; --n) {
    const std::string kinds[] = {"no-reply:device=" + std::to_string(pick(2)),
                                 "busy:device=0",
                                 "truncate:keep=" + std::to_string(3 + pick(10)),
                                 "bad-checksum:device=0",
                                 "noise-before:bytes=" + std::to_string(1 + pick(6)),
                                 "noise-inside:bytes=2,offset=" + std::to_string(2 + pick(6)),
                                 "delay:ms=" + std::to_string(20 + pick(400)),
                                 "comm-error:device=0",
                                 "split:offset=" + std::to_string(2 + pick(8)) + ",ms=" + std::to_string(pick(30))};
    const std::string scopes[] = {",times=" + std::to_string(1 + pick(20)), ",command=" + std::to_string(pick(4)),
                                  ",device=" + std::to_string(pick(2)), ""};
    const std::string &kind = kinds[pick(9)], &scope = scopes[pick(4)];
    const bool two_devices = kind.find("device=") != std::string::npos && scope.find("device=") != std::string::npos;
    args.insert(args.end(), {"--fault", kind + (two_devices ? "" : scope)});
  }
  if (pick(4) == 0)
    args.insert(args.end(), {"--second-master", "period=" + std::to_string(200 + pick(1500)) +
                                                    ",mode=" + (pick(2) ? "polite" : "cue") +
                                                    ",device=" + std::to_string(pick(2))});
  if (pick(5) == 0)  // a burst flood, or a slow one
    args.insert(args.end(), {"--burst", "command=1,target=alternate,device=0,period=" +
                                            std::to_string(pick(2) ? 50 + pick(100) : 300 + pick(700))});
  return args;
}

// Bursts every 50-150 ms (faster than the idle time-out) that a fault garbles for good: a fault
// for every frame of device 0, the burst device, not limited to a few frames.
bool KeepsLineBusy(const std::vector<std::string> &args) {
  const auto flood = std::find_if(args.begin(), args.end(), [](const std::string &arg) {
    const size_t at = arg.find("period=");
    return arg.rfind("command=1,target", 0) == 0 && at != std::string::npos && std::stoi(arg.substr(at + 7)) < 300;
  });
  if (flood == args.end()) return false;
  for (const std::string &arg : args) {
    const bool garbles = arg.rfind("noise-inside", 0) == 0 || arg.rfind("bad-checksum", 0) == 0 ||
                         arg.rfind("truncate", 0) == 0 || arg.rfind("split", 0) == 0;
    const bool for_good = arg.find("times=") == std::string::npos && arg.find("device=1") == std::string::npos &&
                          (arg.find("command=") == std::string::npos || arg.find("command=1") != std::string::npos);
    if (garbles && for_good) return true;
  }
  return false;
}

// Starts a simulator for the port and points its link at the new terminal.
bool StartDevice(int port, std::mt19937_64 &rng) {
  std::vector<std::string> args = {opt.sim,  "--devices",
                                   "2",      "--short-all",
                                   "--baud", std::to_string(opt.baud),
                                   "--seed", std::to_string(rng() & 0xFFFFFF)};
  std::vector<std::string> faults = DrawFaults(rng);
  args.insert(args.end(), faults.begin(), faults.end());
  if (!opt.transcripts.empty()) {
    static std::atomic<unsigned int> started{0};
    args.push_back("--transcript=" + opt.transcripts + "/port" + std::to_string(port) + "-" +
                   std::to_string(started.fetch_add(1)) + ".txt");
  }
  std::vector<char *> argv;
  for (std::string &arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return false;
  const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls here: the parent has many threads.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    dup2(pipe_fds[1], 1);
    dup2(null_fd, 2);
    syscall(SYS_close_range, 3u, ~0u, 0u);  // none of the library's descriptors may live on in here
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(pipe_fds[1]);
  if (null_fd >= 0) close(null_fd);
  if (pid < 0) {
    close(pipe_fds[0]);
    return false;
  }
  // The first line names the terminal.
  std::string line;
  for (int64_t until = NowMs() + 5000; line.find('\n') == std::string::npos && NowMs() < until;) {
    pollfd p{pipe_fds[0], POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    char buffer[256];
    const ssize_t got = read(pipe_fds[0], buffer, sizeof buffer);
    if (got <= 0) break;
    line.append(buffer, static_cast<size_t>(got));
  }
  const std::string prefix = "velmora-sim: ";
  if (line.rfind(prefix, 0) != 0 || line.find('\n') == std::string::npos) {
    std::fprintf(stderr, "soak: %s did not name its terminal\n", opt.sim.c_str());
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(pipe_fds[0]);
    return false;
  }
  Device &device = g_devices[port];
  if (KeepsLineBusy(faults)) {
    device.busy_until_ms = INT64_MAX;
    device.busy_from_ms = NowMs();
  }
  device.pid = g_pids[port] = pid;
  device.out = pipe_fds[0];
  {
    std::lock_guard<std::mutex> lock(g_faults_mutex);
    device.faults.clear();
    for (const std::string &fault : faults) device.faults += fault + " ";
  }
  PointLink(port, line.substr(prefix.size(), line.find('\n') - prefix.size()));
  return true;
}

void StopDevice(int port) {
  Device &device = g_devices[port];
  if (device.pid <= 0) return;
  device.killed_ms = NowMs();
  if (device.busy_until_ms.load() == INT64_MAX) device.busy_until_ms = NowMs();
  PointLink(port, g_dir + "/gone");  // a new terminal may get the old number: never open that
  g_pids[port] = -1;
  kill(device.pid, SIGKILL);
  waitpid(device.pid, nullptr, 0);
  close(device.out);
  device.pid = -1;
  device.out = -1;
}

void OnSignal(int) {
  for (pid_t pid : g_pids)
    if (pid > 0) kill(pid, SIGKILL);
  _exit(2);
}

// ---- Applications ---------------------------------------------------------------------------

struct Request {
  int64_t accept_ms, deadline_ms;
  unsigned int port, app_id, ahead;
  bool cleared, late;
  bool counted = true;  // in the port's in_flight
};
struct App {
  std::mutex mutex;  // guards out: the monitor scans it
  std::map<unsigned int, Request> out;
};
std::vector<App> g_apps(64);
struct PortBook {
  std::mutex registration;  // knows whether an unregistration closes the port
  int registered = 0;
  std::shared_mutex clearing;  // a port-wide clearing sees every request handed in before it
  std::atomic<unsigned int> in_flight{0};
  std::atomic<tagCOMPORTINFO *> info{nullptr};
};
std::vector<PortBook> g_books(33);
std::atomic<bool> g_stop_sending{false};

void Uncount(Request &request) {
  if (request.counted) g_books[request.port].in_flight.fetch_sub(1);
  request.counted = false;
}

void Forget(App &app, std::map<unsigned int, Request>::iterator it) {
  Uncount(it->second);
  app.out.erase(it);
}

bool WasKilledDuring(unsigned int port, const Request &request) {
  return g_devices[port].killed_ms.load() >= request.accept_ms - RequestMs();
}
bool LineKeptBusy(unsigned int port, const Request &request) {
  const Device &device = g_devices[port];
  return device.busy_from_ms.load() <= request.deadline_ms && device.busy_until_ms.load() >= request.accept_ms;
}
Kind LateKind(unsigned int port, const Request &request) {
  return WasKilledDuring(port, request) ? kLateGone : LineKeptBusy(port, request) ? kLateBusy : kLate;
}

void TakeNotice(unsigned int index, unsigned int hApp, const MSG &msg) {
  App &app = g_apps[index];
  if (msg.message != kReplyMsg) return;  // link events
  const auto hServ = static_cast<unsigned int>(msg.wParam);
  if (hServ == VELMORA_BURST_SERVICE) {
    g_bursts.fetch_add(1);
    return;
  }
  std::lock_guard<std::mutex> lock(app.mutex);
  auto it = app.out.find(hServ);
  if (it == app.out.end()) {
    Violation(kStray, "app %u (hApp %u) got a notice for hServ %u, lParam 0x%lx", index, hApp, hServ,
              static_cast<unsigned long>(msg.lParam));
    return;
  }
  Request &request = it->second;
  unsigned char data[256];
  tagHARTREQUEST reply{};
  reply.pData = data;
  unsigned int app_id = 0;
  const unsigned int got = HART_ReceiveRequest(hApp, hServ, &reply, &app_id);
  const int64_t latency = NowMs() - request.accept_ms;
  if (request.cleared) {
    g_cleared_late.fetch_add(1);
  } else if (!got) {
    Violation(kLost, "app %u port %u hServ %u: notice, but no result to fetch", index, request.port, hServ);
  } else {
    ((static_cast<unsigned int>(msg.lParam) & 0xFFFF) == 0xFFFF ? g_failures : g_replies).fetch_add(1);
    if (app_id != request.app_id)
      Violation(kWrongId, "app %u hServ %u: id %u, sent %u", index, hServ, app_id, request.app_id);
    const int64_t bound = BoundMs(request.ahead);
    Max(g_max_latency, latency);
    Max(g_max_latency_bound, bound);
    Max(g_max_ratio_permille, latency * 1000 / bound);
    if (latency > bound && !request.late)
      Violation(LateKind(request.port, request),
                "app %u port %u hServ %u: notice after %lld ms, bound %lld ms (%u ahead), accepted at %lld ms; "
                "device: %s",
                index, request.port, hServ, static_cast<long long>(latency), static_cast<long long>(bound),
                request.ahead, static_cast<long long>(request.accept_ms), FaultsOf(request.port).c_str());
  }
  Forget(app, it);
}

void Drain(unsigned int index, unsigned int hApp, HWND window, unsigned int wait_ms) {
  MSG msg;
  while (GetMessageTimeout(&msg, window, wait_ms)) {
    TakeNotice(index, hApp, msg);
    wait_ms = 0;
  }
}

// False when the request was refused.
bool Send(unsigned int index, unsigned int hApp, unsigned int port, std::mt19937_64 &rng) {
  static const unsigned char kCommands[] = {0, 1, 2, 3, 7, 8, 12, 13, 14, 15, 16, 20};
  tagHARTREQUEST request{};
  request.nCommand = kCommands[rng() % sizeof kCommands];
  const unsigned int where = static_cast<unsigned int>(rng() % 10);
  request.nPollingAddress = static_cast<unsigned char>(where < 6 ? 0 : where < 9 ? 1 : 9);  // 9: nobody
  const auto app_id = static_cast<unsigned int>(rng());
  PortBook &book = g_books[port];
  std::shared_lock<std::shared_mutex> clearing(book.clearing);
  App &app = g_apps[index];
  std::lock_guard<std::mutex> lock(app.mutex);
  const unsigned int hServ = HART_SendRequest(hApp, &request, app_id);
  if (hServ == VELMORA_NONE) {
    g_refused.fetch_add(1);
    return false;
  }
  g_sent.fetch_add(1);
  const unsigned int ahead = book.in_flight.fetch_add(1);
  const int64_t now = NowMs();
  auto it = app.out.find(hServ);
  if (it != app.out.end()) {
    // A cleared request's row may come back; one still running must not.
    if (!it->second.cleared)
      Violation(kReused, "app %u port %u: hServ %u again, outstanding since %lld ms", index, port, hServ,
                static_cast<long long>(now - it->second.accept_ms));
    Forget(app, it);
  }
  app.out[hServ] = Request{now, now + BoundMs(ahead), port, app_id, ahead, false, false, true};
  return true;
}

void MarkCleared(App &app, unsigned int port) {
  std::lock_guard<std::mutex> lock(app.mutex);
  for (auto &[hServ, request] : app.out)
    if (request.port == port && !request.cleared) {
      g_marked_cleared.fetch_add(1);
      request.cleared = true;
      Uncount(request);
    }
}

void Unregister(unsigned int index, unsigned int hApp, unsigned int port, HWND window) {
  if (tagAPPINFO *info = GetAppInfo(hApp)) info->nBurstAppKey = 0;
  PortBook &book = g_books[port];
  {
    std::lock_guard<std::mutex> lock(book.registration);
    const bool closes = --book.registered == 0;
    const int64_t start = NowMs();
    HART_UnRegisterDriver(hApp);
    const int64_t took = NowMs() - start;
    Max(g_max_unregister, took);
    if (closes) {
      g_closes.fetch_add(1);
      Max(g_max_close, took);
      if (took > kCloseBoundMs) Violation(kSlowClose, "port %u closed in %lld ms", port, static_cast<long long>(took));
    }
  }
  g_unregisters.fetch_add(1);
  App &app = g_apps[index];
  {
    std::lock_guard<std::mutex> lock(app.mutex);
    for (const auto &[hServ, request] : app.out) g_abandoned += request.cleared ? 0 : 1;
    while (!app.out.empty()) Forget(app, app.out.begin());
  }
  DestroyNoticeWindow(window);
}

void RunApp(unsigned int index) {
  std::mt19937_64 rng(opt.seed * 1000003 + index);
  auto chance = [&](unsigned int percent) { return rng() % 100 < percent; };
  while (true) {
    if (g_stop_sending.load()) return;
    const auto port = static_cast<unsigned int>(1 + rng() % static_cast<unsigned int>(opt.ports));
    HWND window = CreateNoticeWindow();
    tagHARTREGISTRATION reg{window, port, BaudCode(), chance(30) ? kLinkMsg : 0, kReplyMsg, 0, 100 + index};
    unsigned int hApp = VELMORA_NONE;
    PortBook &book = g_books[port];
    bool registered;
    {
      std::lock_guard<std::mutex> lock(book.registration);
      registered = HART_RegisterDriver(&reg, &hApp) != 0;
      if (registered) ++book.registered;
    }
    if (!registered) {
      g_register_fails.fetch_add(1);
      DestroyNoticeWindow(window);
      std::this_thread::sleep_for(std::chrono::milliseconds(50 + rng() % 200));
      continue;
    }
    g_registers.fetch_add(1);
    book.info = GetComPortInfo(hApp);
    tagHARTCONFIG config{1, kPreambles, kRetries, BaudCode(), 0};
    HART_SetConfiguration(hApp, &config);
    if (chance(20)) GetAppInfo(hApp)->nBurstAppKey = 0x5000 + index;
    App &app = g_apps[index];
    for (bool stay = true; stay;) {
      const auto roll = static_cast<unsigned int>(rng() % 1000);
      size_t outstanding;
      {
        std::lock_guard<std::mutex> lock(app.mutex);
        outstanding = app.out.size();
      }
      if (g_stop_sending.load()) {
        // Winding down: wait for what is under way (each until its bound), then leave.
        int64_t last = 0;
        {
          std::lock_guard<std::mutex> lock(app.mutex);
          for (auto &[hServ, request] : app.out)
            if (!request.cleared && !request.late) last = std::max(last, request.deadline_ms);
        }
        if (last == 0 || NowMs() > last + 500)
          stay = false;
        else
          Drain(index, hApp, window, 50);
      } else if (roll < 500) {
        // A refusal (a port whose line has gone) sends the application away now and then.
        if (outstanding < kMaxOutstanding && !Send(index, hApp, port, rng) && chance(10)) stay = false;
        Drain(index, hApp, window, static_cast<unsigned int>(rng() % 30));
      } else if (roll < 985) {
        Drain(index, hApp, window, static_cast<unsigned int>(rng() % 60));
      } else if (roll < 988) {
        // Clear this application's requests and results, after a while without fetching, so that
        // results are waiting too.
        std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 300));
        std::shared_lock<std::shared_mutex> clearing(book.clearing);
        MarkCleared(app, port);
        fncClearQueuesOfApp(GetDriverId(hApp), hApp);
        // The cleared results' handles are free again: their notices still waiting go now,
        // before a new request can be given one of those handles.
        Drain(index, hApp, window, 0);
        g_clears.fetch_add(1);
      } else if (roll < 990) {
        fncClearBurstQueue(hApp);
      } else if (roll < 991 && opt.clear_port) {
        // Clear the whole port: every application's requests on it.
        std::unique_lock<std::shared_mutex> clearing(book.clearing);
        for (App &other : g_apps) MarkCleared(other, port);
        fncClearQueuesOfCom(port - 1);
        g_clears.fetch_add(1);
      } else if (roll >= 995) {
        stay = false;
      }
    }
    Drain(index, hApp, window, 0);
    Unregister(index, hApp, port, window);
    if (!g_stop_sending.load()) std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 150));
  }
}

// ---- Watching -------------------------------------------------------------------------------

long RssKb() {
  FILE *status = std::fopen("/proc/self/status", "r");
  if (!status) return -1;
  char line[256];
  long kb = -1;
  while (std::fgets(line, sizeof line, status))
    if (std::sscanf(line, "VmRSS: %ld", &kb) == 1) break;
  std::fclose(status);
  return kb;
}
int FdCount() {
  DIR *dir = opendir("/proc/self/fd");
  if (!dir) return -1;
  int count = 0;
  while (readdir(dir)) ++count;
  closedir(dir);
  return count - 3;  // ".", ".." and the directory's own descriptor
}

struct Sample {
  double t;
  long rss;
  int fds;
};

// Flags requests past their bound; samples memory and descriptors once a second.
void Watch(std::atomic<bool> &done, std::vector<Sample> &samples) {
  for (int tick = 0; !done.load(); ++tick) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const int64_t now = NowMs();
    for (unsigned int index = 0; index < static_cast<unsigned int>(opt.threads); ++index) {
      App &app = g_apps[index];
      std::lock_guard<std::mutex> lock(app.mutex);
      for (auto &[hServ, request] : app.out) {
        if (request.cleared || request.late || now <= request.deadline_ms) continue;
        request.late = true;
        Violation(LateKind(request.port, request),
                  "app %u port %u hServ %u: no notice %lld ms after acceptance, bound %lld ms (%u ahead); device: %s",
                  index, request.port, hServ, static_cast<long long>(now - request.accept_ms),
                  static_cast<long long>(request.deadline_ms - request.accept_ms), request.ahead,
                  FaultsOf(request.port).c_str());
      }
    }
    if (tick % 10 == 0 && !g_stop_sending.load()) samples.push_back({Elapsed(), RssKb(), FdCount()});
  }
}

// Every row and queue free once every application has gone and every port has closed.
int CheckTables() {
  int bad = 0;
  for (unsigned int hServ = 0; hServ < 1000; ++hServ)
    if (const tagSERVICEINFO *row = GetServiceInfo(hServ); row->nServiceState.load() != 0 && ++bad <= 10)
      std::fprintf(stderr, "  service row %u: state %u, hApp %u\n", hServ, row->nServiceState.load(),
                   row->nAppHandle.load());
  for (unsigned int hApp = 0; hApp < 100; ++hApp)
    if (GetAppInfo(hApp)->bInUse.load() != 0 || GetAppReceiveQueue(hApp)->nCount != 0)
      std::fprintf(stderr, "  application row %u: in use %u, receive queue %u (%d)\n", hApp,
                   GetAppInfo(hApp)->bInUse.load(), GetAppReceiveQueue(hApp)->nCount, ++bad);
  for (int port = 1; port <= opt.ports; ++port) {
    const tagCOMPORTINFO *info = g_books[port].info.load();
    const unsigned int queued = info && info->pTransmitQueue ? info->pTransmitQueue->nCount : 0;
    if (info && (queued || info->pActiveElement || info->nOpenCount || info->hComPort.load() != VELMORA_INVALID_HANDLE))
      std::fprintf(stderr, "  port %d: transmit queue %u, element in service %p, open count %u, open %d (%d)\n", port,
                   queued, static_cast<void *>(info->pActiveElement), info->nOpenCount,
                   info->hComPort.load() != VELMORA_INVALID_HANDLE, ++bad);
  }
  return bad;
}

bool ParseArgs(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--clear-port" || arg == "--verbose") {
      (arg == "--verbose" ? opt.verbose : opt.clear_port) = true;
      continue;
    }
    if (i + 1 >= argc) return false;
    const char *value = argv[++i];
    const long long number = std::atoll(value);
    if (arg == "--seed")
      opt.seed = std::strtoull(value, nullptr, 0);
    else if (arg == "--seconds")
      opt.seconds = static_cast<int>(number);
    else if (arg == "--ports")
      opt.ports = static_cast<int>(std::clamp(number, 1LL, 32LL));
    else if (arg == "--threads")
      opt.threads = static_cast<int>(std::clamp(number, 1LL, 64LL));
    else if (arg == "--baud")
      opt.baud = static_cast<unsigned int>(number);
    else if (arg == "--margin")
      opt.margin_ms = number;
    else if (arg == "--sim")
      opt.sim = value;
    else if (arg == "--transcripts")
      opt.transcripts = value;
    else
      return false;
  }
  return opt.seconds > 0 && (opt.baud == 1200 || opt.baud == 9600 || opt.baud == 19200);
}

}  // namespace

int main(int argc, char **argv) {
  if (!ParseArgs(argc, argv)) {
    std::fprintf(stderr,
                 "usage: soak [--seed N] [--seconds N] [--ports N] [--threads N] [--baud 1200|9600|19200]\n"
                 "            [--sim PATH] [--margin MS] [--transcripts DIR] [--clear-port] [--verbose]\n");
    return 2;
  }
  if (opt.sim.empty()) {
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) > 0) {
      std::string dir = self;
      opt.sim = dir.substr(0, dir.rfind('/')) + "/../sim/velmora-sim";
    }
  }
  signal(SIGPIPE, SIG_IGN);
  signal(SIGINT, OnSignal);
  signal(SIGTERM, OnSignal);
  g_dir = "/tmp/velmora-soak." + std::to_string(getpid());
  mkdir(g_dir.c_str(), 0700);
  g_t0 = NowMs();
  const long rss_before = RssKb();
  const int fds_before = FdCount();
  const size_t heap_before = mallinfo2().uordblks;

  // The devices: all are started, forked and killed by one thread, which lives to the end, as a
  // child's death signal follows the thread that forked it.
  std::atomic<bool> devices_up{false}, finish{false};
  std::thread devices([&] {
    std::mt19937_64 rng(opt.seed);
    bool ok = true;
    for (int port = 1; port <= opt.ports; ++port) {
      ok = StartDevice(port, rng) && ok;
      SetComPortDevice(static_cast<unsigned int>(port), LinkPath(port).c_str());
    }
    if (!ok) {
      OnSignal(0);
    }
    devices_up = true;
    while (!g_stop_sending.load()) {
      // A device disappears now and then, stays away a while, and comes back misbehaving anew.
      const int64_t wake = NowMs() + 1500 + static_cast<int64_t>(rng() % 4500);
      while (NowMs() < wake && !g_stop_sending.load()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
      if (g_stop_sending.load()) break;
      const int port = 1 + static_cast<int>(rng() % static_cast<uint64_t>(opt.ports));
      StopDevice(port);
      std::this_thread::sleep_for(std::chrono::milliseconds(rng() % 1500));
      if (!StartDevice(port, rng)) OnSignal(0);
      g_restarts.fetch_add(1);
    }
    while (!finish.load()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (int port = 1; port <= opt.ports; ++port) StopDevice(port);
  });
  while (!devices_up.load()) std::this_thread::sleep_for(std::chrono::milliseconds(10));

  std::atomic<bool> watch_done{false};
  std::vector<Sample> samples;
  std::thread watcher([&] { Watch(watch_done, samples); });
  std::vector<std::thread> apps;
  for (int i = 0; i < opt.threads; ++i) apps.emplace_back(RunApp, static_cast<unsigned int>(i));
  std::this_thread::sleep_for(std::chrono::seconds(opt.seconds));
  g_stop_sending = true;
  const int64_t wind_down = NowMs();
  for (std::thread &app : apps) app.join();
  const int64_t wind_down_ms = NowMs() - wind_down;
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  watch_done = true;
  watcher.join();
  std::fprintf(stderr, "table check after all unregistered:\n");
  const int bad_rows = CheckTables();
  if (bad_rows) Violation(kTables, "%d rows or queues not free", bad_rows);
  const size_t heap_after = mallinfo2().uordblks;
  finish = true;
  devices.join();

  // Flat: the largest figure of the last quarter against the largest of the first.
  long rss_first = 0, rss_last = 0;
  int fd_first = 0, fd_last = 0;
  for (const Sample &s : samples) {
    if (s.t <= opt.seconds / 4.0) rss_first = std::max(rss_first, s.rss), fd_first = std::max(fd_first, s.fds);
    if (s.t >= opt.seconds * 3 / 4.0) rss_last = std::max(rss_last, s.rss), fd_last = std::max(fd_last, s.fds);
  }
  // Under ThreadSanitizer resident memory holds its shadow and per-thread history, which grow with
  // every worker thread started: the figure is printed, not judged.
  if (!kTsan && rss_last > rss_first + kRssSlackKb)
    Violation(kRss, "%ld kB in the first quarter, %ld kB in the last", rss_first, rss_last);
  if (fd_last > fd_first + kFdSlack) Violation(kFds, "%d in the first quarter, %d in the last", fd_first, fd_last);

  int total = 0;
  // A line that garbled bursts never leave quiet gives the master no turn: no bound holds there,
  // so such lates are shown but are not violations; the request must still end.
  for (int kind = 0; kind < kKinds; ++kind) total += kind == kLateBusy ? 0 : g_violations[kind].load();
  auto n = [](const auto &value) { return static_cast<long long>(value.load()); };
  std::printf("soak: seed %llu, %d s, %d ports, %d application threads, %u baud%s\n",
              static_cast<unsigned long long>(opt.seed), opt.seconds, opt.ports, opt.threads, opt.baud,
              kTsan ? ", ThreadSanitizer" : "");
  std::printf(
      "bound per request: (ahead + 2) x (1 + %u retries) x %lld ms + %lld ms margin; one attempt = reply "
      "wait %lld + hold-off %lld + lead-in/tail %d + 3 x %lld ms (request and longest reply, 70 characters, "
      "once ours, twice a foreign exchange)\n",
      kRetries, static_cast<long long>(AttemptMs()), static_cast<long long>(opt.margin_ms),
      static_cast<long long>(kReplyWaitMs), static_cast<long long>(kHoldOffMs), opt.baud == 1200 ? 12 : 3,
      static_cast<long long>(FrameMs(70)));
  std::printf(
      "requests accepted %lld, refused %lld; replies %lld, failures %lld; cleared by their application %lld "
      "(notified anyway %lld); outstanding at unregistration %lld; burst notices %lld\n",
      n(g_sent), n(g_refused), n(g_replies), n(g_failures), n(g_marked_cleared), n(g_cleared_late), n(g_abandoned),
      n(g_bursts));
  std::printf(
      "registrations %lld (%lld refused), unregistrations %lld, port closes %lld, clearings %lld, device "
      "restarts %lld\n",
      n(g_registers), n(g_register_fails), n(g_unregisters), n(g_closes), n(g_clears), n(g_restarts));
  std::printf("max latency %lld ms (largest bound %lld ms); max latency/bound %.2f\n", n(g_max_latency),
              n(g_max_latency_bound), static_cast<double>(n(g_max_ratio_permille)) / 1000.0);
  std::printf("max close %lld ms (bound %lld ms); max unregistration %lld ms; wind-down %lld ms\n", n(g_max_close),
              static_cast<long long>(kCloseBoundMs), n(g_max_unregister), static_cast<long long>(wind_down_ms));
  std::printf(
      "RSS kB: before %ld, first quarter max %ld, last quarter max %ld (slack %ld%s); fds: before %d, first "
      "quarter max %d, last quarter max %d (slack %d)\n",
      rss_before, rss_first, rss_last, kRssSlackKb, kTsan ? ", not judged under ThreadSanitizer" : "", fds_before,
      fd_first, fd_last, kFdSlack);
  std::printf("heap in use (malloc): before %zu, after all closed %zu bytes\n", heap_before, heap_after);
  std::printf("violations: %d\n", total);
  for (int kind = 0; kind < kKinds; ++kind)
    if (g_violations[kind].load()) std::printf("  %-55s %d\n", kKindNames[kind], g_violations[kind].load());
  for (int port = 1; port <= opt.ports; ++port) unlink(LinkPath(port).c_str());
  rmdir(g_dir.c_str());
  return total ? 1 : 0;
}
