// The line monitor: every frame received or sent and every time-out goes to the port's monitor
// window as a byte array with two times, gap and frame time, least significant byte first.
#include <cstring>
#include <new>

#include "tables/tables.h"
#include "platform/clock.h"

namespace velmora {
namespace {

bool MonitorSet(const tagCOMPORTINFO &port) {
  return port.nMonitorMsg.load() != 0 && port.hMonitorWnd.load() != nullptr;
}

void PutLittleEndian(unsigned char *at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<unsigned char>(value >> (8 * i));
}

// Builds and posts one notice; with transmit set, the next gap runs from this notice's end.
void Notify(tagCOMPORTINFO &port, const unsigned char *bytes, unsigned int count, unsigned int code, bool transmit) {
  CByteArray *array = new (std::nothrow) CByteArray;
  if (array) {
    try {
      array->SetSize(static_cast<int>(count + 8));
    } catch (...) {
      delete array;
      array = nullptr;
    }
  }
  // The times are whole differences of the wrapping clock, carried in signed fields.
  const uint32_t gap = platform::ElapsedMs(port.tFrameStart, port.tLastNotify);
  const uint32_t frame = platform::ElapsedMs(platform::NowMs(), port.tFrameStart);
  port.tLastNotify = platform::NowMs();
  if (transmit) port.tFrameStart = platform::NowMs();
  if (!array) return;  // no memory: the notice is dropped, as diagnostics may be
  unsigned char *data = array->GetData();
  if (count) std::memcpy(data, bytes, count);
  PutLittleEndian(data + count, gap);
  PutLittleEndian(data + count + 4, frame);
  if (!PostMessageA(port.hMonitorWnd.load(), port.nMonitorMsg.load(), code, reinterpret_cast<LPARAM>(array)))
    delete array;  // nobody else holds it
}

tagCOMPORTINFO *PortOf(char *pPort) { return reinterpret_cast<tagCOMPORTINFO *>(pPort); }

}  // namespace
}  // namespace velmora

using namespace velmora;

extern "C" {

void NotifyLLmonitor(char *pPort) noexcept {
  tagCOMPORTINFO *port = PortOf(pPort);
  if (!port) return;
  typRxFrameStruct &rx = *port->pRxFrame;
  if (!MonitorSet(*port) || rx.nMonitorLen == 0) return;
  const unsigned int count = rx.nMonitorLen > sizeof rx.abMonitor ? sizeof rx.abMonitor : rx.nMonitorLen;
  Notify(*port, rx.abMonitor, count, 0, false);
  rx.nMonitorLen = 0;
}

void NotifyLLmonitorTimeOut(char *pPort, unsigned int nCode) noexcept {
  tagCOMPORTINFO *port = PortOf(pPort);
  if (!port) return;
  typRxFrameStruct &rx = *port->pRxFrame;
  if (!MonitorSet(*port)) return;
  const unsigned int count = rx.nMonitorLen > sizeof rx.abMonitor ? sizeof rx.abMonitor : rx.nMonitorLen;
  Notify(*port, rx.abMonitor, count, nCode, false);
  rx.nMonitorLen = 0;
}

void NotifyLLmonitorTransmit(char *pPort) noexcept {
  tagCOMPORTINFO *port = PortOf(pPort);
  if (!port) return;
  const typQueueElement *active = port->pActiveElement;
  if (MonitorSet(*port) && active && active->nDataLen != 0 && active->pData)
    Notify(*port, active->pData, active->nDataLen, 0, true);
  port->pRxFrame->nMonitorLen = 0;
}

}  // extern "C"
