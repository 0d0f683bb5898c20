// The state trace: one line per port of marks like "4:->K / 2:Tstr / 51:Tend / ->D", each with
// the milliseconds since the previous mark. Only the port's worker writes its line, so it needs
// no lock; it is bounded, and flushed into the history before it would overflow.
#include <cstdio>
#include <cstring>

#include "tables/tables.h"
#include "diag/history_store.h"
#include "platform/clock.h"

namespace velmora {
namespace {

char szStateTrace[kPortCount][kStateTraceSize];

char *LineOf(const tagCOMPORTINFO *port) {
  unsigned int id = port->nDriverId < kPortCount ? port->nDriverId : 0;
  return szStateTrace[id];
}

}  // namespace

void TraceState(tagCOMPORTINFO *pPort, const char *sMark) {
  char *line = LineOf(pPort);
  char text[kTraceLineSize];
  const uint32_t elapsed = platform::ElapsedMs(platform::NowMs(), pPort->tTraceBase);
  const bool empty = line[0] == '\0';
  if (elapsed == 0) {
    std::snprintf(text, sizeof text, empty ? "%s" : " / %s", sMark);
  } else {
    // The number comes from a second reading of the clock, as the mark is written.
    const int ms = static_cast<int>(platform::ElapsedMs(platform::NowMs(), pPort->tTraceBase));
    std::snprintf(text, sizeof text, empty ? "%d:%s" : " / %d:%s", ms, sMark);
  }
  size_t used = std::strlen(line);
  const char *add_text = text;
  size_t add = std::strlen(text);
  if (used + add + 1 > kStateTraceSize) {
    FlushStateTrace(pPort);
    used = 0;
    // The next line starts clean, without the separator.
    if (!empty) {
      add_text += 3;
      add -= 3;
    }
  }
  std::memcpy(line + used, add_text, add + 1);
  pPort->tTraceBase = platform::NowMs();
}

void FlushStateTrace(tagCOMPORTINFO *pPort) {
  char *line = LineOf(pPort);
  addHistStates(line);
  line[0] = '\0';
}

void ClearStateTrace(tagCOMPORTINFO *pPort) { LineOf(pPort)[0] = '\0'; }

const char *StateTraceOf(const tagCOMPORTINFO *pPort) { return LineOf(pPort); }

}  // namespace velmora
