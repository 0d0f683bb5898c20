// velmora-sim: simulated HART field devices on a pseudo-terminal, for trying a master
// application without hardware. Prints the terminal's path as its first line, then serves the
// line until SIGINT or SIGTERM.
#include <signal.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "sim/sim_options.h"
#include "sim/sim_pty_runner.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;

void OnSignal(int) { g_stop = 1; }

void InstallSignals() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

}  // namespace

int main(int argc, char **argv) {
  using namespace velmora::sim;
  std::vector<std::string> args(argv + 1, argv + argc);
  SimOptions options;
  std::string error;
  if (!ParseOptions(args, &options, &error)) {
    std::fprintf(stderr, "velmora-sim: %s\n\n%s", error.c_str(), UsageText().c_str());
    return 2;
  }
  if (options.help) {
    std::fputs(UsageText().c_str(), stdout);
    return 0;
  }

  FILE *transcript = nullptr;
  if (options.transcript) {
    transcript = options.transcript_path.empty() ? stderr : std::fopen(options.transcript_path.c_str(), "w");
    if (!transcript) {
      std::fprintf(stderr, "velmora-sim: cannot write %s\n", options.transcript_path.c_str());
      return 1;
    }
  }

  // Signals first, so that a stop sent right after the path is printed is not lost.
  InstallSignals();
  PtyRunner runner(options.line);
  ApplyOptions(options, runner.Core());
  if (transcript) {
    runner.Core().Log().SetSink([transcript](const TranscriptEntry &entry) {
      std::fprintf(transcript, "%s\n", Transcript::FormatEntry(entry).c_str());
      std::fflush(transcript);
    });
  }
  if (!runner.Open(&error)) {
    std::fprintf(stderr, "velmora-sim: %s\n", error.c_str());
    return 1;
  }

  std::printf("velmora-sim: %s\n", runner.DevicePath().c_str());
  std::fflush(stdout);
  for (size_t i = 0; i < runner.Core().DeviceCount(); ++i) {
    const DeviceConfig &device = runner.Core().DeviceAt(i).Config();
    std::fprintf(stderr, "velmora-sim: device %zu polling address %u device id %06X tag %s%s\n", i,
                 device.polling_address, device.device_id, device.tag.c_str(), device.burst.enabled ? " (burst)" : "");
  }

  runner.RunUntil([] { return g_stop != 0; });
  runner.Close();

  const SimLine::Counters &stats = runner.Core().Stats();
  std::fprintf(stderr, "velmora-sim: stopped; %llu frames heard, %llu replies, %llu bursts, %llu bad checksums\n",
               static_cast<unsigned long long>(stats.frames_heard), static_cast<unsigned long long>(stats.replies),
               static_cast<unsigned long long>(stats.bursts), static_cast<unsigned long long>(stats.bad_checksums));
  if (transcript && transcript != stderr) std::fclose(transcript);
  return 0;
}
