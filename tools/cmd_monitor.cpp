// velmora monitor: every frame on the line as it goes by, until --duration or Ctrl-C.
#include <cstdio>

#include "commands.h"
#include "terminal.h"

namespace velmora::tool {

int RunMonitor(const CommonOptions &common, double duration_s) {
  unsigned int frames = 0;
  Line line;
  const bool opened = line.Open(common, [&](const MonitorFrame &frame) {
    ++frames;
    if (common.json) std::printf("%s\n", FrameJson(frame).dump().c_str());
    else std::printf("%s\n", FrameLine(frame).c_str());
    std::fflush(stdout);
  });
  if (!opened) return kExitUsage;
  if (!common.json) {
    std::fprintf(stderr, "listening on %s%s; Ctrl-C ends\n", line.Session().Device().c_str(),
                 common.pcap.empty() ? "" : (", capturing to " + common.pcap).c_str());
    std::printf("%-12s %6s %8s  %-9s %-4s  %-14s  %3s  %s\n", "TIME", "GAP ms", "FRAME ms", "FROM", "TYPE", "ADDRESS",
                "CMD", "DATA");
  }
  LineSession &session = line.Session();
  if (duration_s > 0) {
    session.Listen(std::chrono::milliseconds(static_cast<long long>(duration_s * 1000)));
  } else {
    while (!StopRequested() && !session.LineLost()) session.Listen(std::chrono::hours(1));
  }
  if (session.LineLost()) {
    PrintError("the line went away (device unplugged, or its far end closed)");
    return kExitDevice;
  }
  if (!common.json) std::fprintf(stderr, "%u frames\n", frames);
  return kExitOk;
}

}  // namespace velmora::tool
