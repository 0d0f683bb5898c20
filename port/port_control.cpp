// Ports as platform objects: open the device for HART (8 data bits, odd parity, 1 stop bit, RTS
// and DTR by hand), start the worker and wait for its start-up, change the rate, and close
// again with a bounded wait for the worker.
#include "port/port_control.h"

#include "link/transaction.h"
#include "platform/clock.h"
#include "platform/port_names.h"
#include "port/frame_handover.h"
#include "port/port_runtime.h"
#include "port/worker.h"
#include "tables/port_wake.h"
#include "tables/tables.h"

namespace velmora {
namespace {

constexpr unsigned int kRateChangeBoundMs = 1000;

HANDLE HandleOf(const platform::SerialLine *line) {
  return reinterpret_cast<HANDLE>(const_cast<platform::SerialLine *>(line));
}

// Waits in real time (workers run in real time) until word is non-zero, at most bound_ms.
template <typename Word>
bool WaitFor(const Word &word, unsigned int bound_ms) {
  const uint64_t end = platform::os::MonotonicMicros() + static_cast<uint64_t>(bound_ms) * 1000;
  while (!word.load()) {
    if (platform::os::MonotonicMicros() >= end) return false;
    platform::os::SleepMicros(1000);
  }
  return true;
}

void CloseLine(PortRuntime &runtime, tagCOMPORTINFO &port) {
  runtime.line.reset();
  port.hComPort = NoHandle();
}

// Stops the worker and waits for it, within its bound. Every wait of the worker ends on the
// port's wakeup, so it comes back at once unless something outside it hangs.
void StopWorker(tagCOMPORTINFO &port, PortRuntime &runtime, unsigned int row) {
  if (port.bThreadRun.load() != 0) {
    port.bThreadRun = 0;
    WakePort(row);
    if (!WaitFor(port.bThreadDone, kWorkerStopBoundMs) && runtime.thread) {
      // A worker that did not come back in time keeps its line object: freeing it under the
      // worker would be worse than the leak. The port is closed regardless.
      runtime.thread->Detach();
      runtime.thread.reset();
      (void)runtime.line.release();
    }
  }
  if (runtime.thread) runtime.thread->Join();
  runtime.thread.reset();
  port.bThreadDone = 0;
  port.pThread = nullptr;
}

}  // namespace

unsigned int BaudRateOf(unsigned int nBaudCode) { return nBaudCode == 1 ? 9600 : nBaudCode == 2 ? 19200 : 1200; }

HANDLE OpenPort(unsigned int nPort, unsigned int nBaudCode, unsigned int nDataBits, unsigned int nParity,
                unsigned int nStopBits, HWND hHistoryWnd, unsigned int nHistoryMsg, bool start_worker) {
  if (nPort < 1 || nPort > kPortCount) return NoHandle();
  tagCOMPORTINFO &port = ComPortTable[nPort - 1];
  PortRuntime &runtime = RuntimeOf(nPort - 1);
  if (port.hComPort.load() != NoHandle()) {
    ++port.nOpenCount;
    if (nHistoryMsg != 0) {
      port.hHistoryWnd = hHistoryWnd;
      port.nHistoryMsg = nHistoryMsg;
    }
    return port.hComPort.load();
  }
  // The only line this driver speaks: 8 data bits, odd parity (code 1), one stop bit (code 0).
  if (nDataBits != 8 || nParity != 1 || nStopBits != 0) return NoHandle();
  // A worker whose line went away may still be there: it goes before a new line comes.
  if (PortHasRemains(nPort - 1)) ClosePortRow(nPort - 1);
  platform::OpenedLine opened = platform::OpenSerialLine(platform::PortDeviceName(nPort));
  if (!opened.line) return NoHandle();
  runtime.line = std::move(opened.line);
  // A worker stopped in the middle of a step leaves it behind; the new line starts listening.
  runtime.step = WorkerStep::kListen;
  runtime.held_count = 0;
  runtime.lost = false;
  runtime.lost_again = false;
  runtime.rate_changed = false;
  platform::SerialLine *line = runtime.line.get();
  line->Purge();
  port.pTimer->nBaudCode = nBaudCode;
  if (!line->SetBaud(BaudRateOf(nBaudCode))) {
    CloseLine(runtime, port);
    return NoHandle();
  }
  port.hComPort = HandleOf(line);
  port.bPortInUse = 1;
  port.adwReserved[3] = 1;
  port.nDriverId = nPort - 1;
  port.hHistoryWnd = hHistoryWnd;
  port.nHistoryMsg = nHistoryMsg;
  port.tLastNotify = platform::NowMs();
  port.tFrameStart = port.tLastNotify;
  // The line rests with RTS off and DTR on; set before the worker can transmit.
  line->SetRts(false);
  line->SetDtr(true);
  port.dwDebugFlags = 15;
  if (start_worker && port.bThreadRun.load() == 0) {
    port.bThreadRun = 1;
    port.bThreadDone = 0;
    runtime.started = false;
    runtime.thread = platform::StartThread(ComPortThread, &port);
    port.pThread = reinterpret_cast<CWinThread *>(runtime.thread.get());
    // A worker that cannot start turns into a failed open rather than a port nobody serves.
    if (!runtime.thread || !WaitFor(runtime.started, kWorkerStartBoundMs)) {
      port.bThreadRun = 0;
      if (runtime.thread) {
        WaitFor(port.bThreadDone, kWorkerStopBoundMs) ? runtime.thread->Join() : runtime.thread->Detach();
        runtime.thread.reset();
      }
      port.pThread = nullptr;
      CloseLine(runtime, port);
      return NoHandle();
    }
  }
  port.nOpenCount = 1;
  return port.hComPort.load();
}

void ClosePortRow(unsigned int nDriverId) {
  if (!ValidDriver(nDriverId)) return;
  tagCOMPORTINFO &port = ComPortTable[nDriverId];
  PortRuntime &runtime = RuntimeOf(nDriverId);
  StopWorker(port, runtime, nDriverId);
  CloseLine(runtime, port);
  port.nTxRequest = 0;
  port.nOpenCount = 0;
  runtime.lost = false;
}

bool PortHasRemains(unsigned int nDriverId) {
  if (!ValidDriver(nDriverId)) return false;
  const PortRuntime &runtime = RuntimeOf(nDriverId);
  return runtime.thread || runtime.line;
}

void StopAllPorts() {
  std::lock_guard<std::mutex> lock(RegistrationMutex());
  for (unsigned int row = 0; row < kPortCount; ++row)
    if (ComPortTable[row].hComPort.load() != NoHandle() || PortHasRemains(row)) ClosePortRow(row);
}

}  // namespace velmora

using namespace velmora;

extern "C" {

HANDLE OpenComPort(unsigned int nPort, unsigned int nBaudCode, unsigned int nDataBits, unsigned int nParity,
                   unsigned int nStopBits, HWND hHistoryWnd, unsigned int nHistoryMsg) noexcept {
  try {
    std::lock_guard<std::mutex> lock(RegistrationMutex());
    return OpenPort(nPort, nBaudCode, nDataBits, nParity, nStopBits, hHistoryWnd, nHistoryMsg, true);
  } catch (...) {
    return NoHandle();
  }
}

unsigned int CloseComPort(HANDLE hComPort) noexcept {
  if (hComPort == NoHandle()) return 0;
  std::lock_guard<std::mutex> lock(RegistrationMutex());
  const int row = FindComPort(hComPort);
  if (row < 0) return 0;
  ClosePortRow(static_cast<unsigned int>(row));
  // Nobody serves the port now: what its applications still wait for ends with a failure notice
  // (the transmit queue may be held a moment by an application thread).
  for (int tries = 0; tries < 1000 && !FailAllRequests(&ComPortTable[row]); ++tries) platform::os::SleepMicros(100);
  return 1;
}

unsigned int ComSetBaudRate(tagCOMPORTINFO *pPort) noexcept {
  if (!pPort) return 0;
  pPort->pTimer->nBaudCode = pPort->nBaudCode.load();
  if (pPort < &ComPortTable[0] || pPort >= &ComPortTable[kPortCount]) return 1;
  const auto row = static_cast<unsigned int>(pPort - &ComPortTable[0]);
  std::lock_guard<std::mutex> lock(RegistrationMutex());
  // The line belongs to its worker: the worker changes the rate when it wakes. Without one (a
  // port opened for a test that runs the passes itself) it is changed here.
  if (pPort->bThreadRun.load() != 0) {
    // The rate is in effect when this returns: the worker takes the order at once.
    PortRuntime &runtime = RuntimeOf(row);
    runtime.rate_changed = true;
    WakePort(row);
    const uint64_t end = platform::os::MonotonicMicros() + kRateChangeBoundMs * 1000u;
    while (runtime.rate_changed.load() && platform::os::MonotonicMicros() < end) platform::os::SleepMicros(100);
  } else if (platform::SerialLine *line = LineOf(*pPort)) {
    const unsigned int rate = BaudRateOf(pPort->nBaudCode.load());
    if (line->Baud() != rate) line->SetBaud(rate);
  }
  return 1;
}

}  // extern "C"
