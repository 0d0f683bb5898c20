// The history store: 100 records of exchanges, written by the link layer, read as text.
#ifndef VELMORA_DIAG_HISTORY_STORE_H
#define VELMORA_DIAG_HISTORY_STORE_H

#include <functional>
#include <mutex>

#include "velmora.h"

namespace velmora {

constexpr unsigned int kHistoryRecords = 100;
constexpr unsigned int kStateTraceSize = 3568;  // the state trace line, terminator included
constexpr unsigned int kTraceLineSize = 200;    // a formatted trace line

// Runs fn with the store held: the records and the open index. Readers copy what they need
// inside and render outside, so that writers on worker threads wait only for a copy.
void WithHistory(const std::function<void(typHistoryRecord *records, unsigned int open_index)> &fn);

// The state trace of one port: marks with the milliseconds between them.
void TraceState(tagCOMPORTINFO *pPort, const char *sMark);
void FlushStateTrace(tagCOMPORTINFO *pPort);
void ClearStateTrace(tagCOMPORTINFO *pPort);
// The state trace line of a port as it stands; for tests.
const char *StateTraceOf(const tagCOMPORTINFO *pPort);

}  // namespace velmora

#endif
