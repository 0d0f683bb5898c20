// The frame receiver, one byte at a time through an explicit state. Indices into the frame
// arrays are 8 bits wide and a byte count that would not fit makes the frame bad, so nothing
// is written outside abFrame and abRxFrame whatever arrives.
#include "link/frame_parser.h"

#include <cstdio>

#include "link/link_counters.h"
#include "link/mac.h"
#include "platform/clock.h"
#include "tables/tables.h"

namespace velmora {
namespace {

struct Parser {
  tagCOMPORTINFO *port;
  typRxFrameStruct &rx;

  bool TraceReceive() const { return TraceOn(*port, kTraceReceive); }
  void Detail(const char *line) const { addHistReceiveDetails(const_cast<char *>(line)); }

  void CountPreamble() {
    ++rx.nPreambleCount;
    SetRspPAs(rx.nPreambleCount);
  }

  void MarkFrameBad() { rx.nMsgType = kMsgBad; }

  // Drops the frame: the bytes that follow are ignored until the gap rule or a reset.
  void Discard() {
    MarkFrameBad();
    rx.nRxState = kRxDiscarding;
    port->nTxRequest = 0;
    CountersOf(*port).frames_discarded.fetch_add(1, std::memory_order_relaxed);
  }

  bool AcceptDelimiter(unsigned char byte) {
    const unsigned char kind = byte & 0x7F;
    if (kind == 2) rx.nMsgType = kMsgRequestOpen;
    else if (kind == 6 || kind == 1) rx.nMsgType = kMsgResponseOpen;
    else return false;
    return true;
  }

  void StartFrame(unsigned char delimiter) {
    rx.abFrame[0] = delimiter;
    rx.bChecksum = delimiter;
    rx.nFrameLen = 1;
    rx.nExpectedLen = 255;
    rx.nHeaderLen = (delimiter & 0x80) ? 8 : 4;
  }

  void ClassifyAddressByte(unsigned char byte) {
    const unsigned int master_bit = (byte & 0x80) ? 1 : 0;
    const bool own_role = master_bit == rx.bRxRolePrimary;
    if (rx.nMsgType == kMsgRequestOpen) {
      rx.nMsgType = master_bit ? kMsgPrimaryRequest : kMsgSecondaryRequest;
      // A request with the other master's bit opens a new history record.
      if (!own_role) StartHistory();
    } else if (rx.nMsgType == kMsgResponseOpen) {
      const bool burst = (rx.abFrame[0] & 0x7F) == 1;
      rx.nMsgType = burst ? (own_role ? kMsgBurstOwn : kMsgBurstOther) : (own_role ? kMsgResponseOwn : kMsgResponseOther);
    }
    if (TraceReceive()) {
      char line[32];
      std::snprintf(line, sizeof line, "\tMsgType: %u", rx.nMsgType);
      Detail(line);
    }
  }

  // Returns false when the byte count can't fit the frame: the frame is then discarded.
  bool StoreFrameByte(unsigned char byte) {
    rx.abFrame[rx.nFrameLen] = byte;
    port->abRxFrame[rx.nFrameLen] = byte;
    rx.nFrameLen = static_cast<unsigned char>(rx.nFrameLen + 1);
    port->nRxFrameLen = rx.nFrameLen;
    rx.bChecksum ^= byte;
    if (rx.nFrameLen == rx.nHeaderLen) {
      const unsigned int expected = rx.nFrameLen + static_cast<unsigned int>(byte) + 1;
      // The frame's end could no longer be told from an 8-bit length.
      if (expected > 255) return false;
      rx.nExpectedLen = static_cast<unsigned char>(expected);
    }
    return true;
  }

  bool IsLastByte() const { return rx.nFrameLen == rx.nExpectedLen - 1; }

  bool CheckChecksum(unsigned char byte) {
    const bool match = byte == rx.bChecksum;
    if (TraceReceive()) Detail(match ? "\tValid !" : "\tInValid !!!");
    return match;
  }

  void StoreChecksumByte(unsigned char byte) {
    rx.abFrame[rx.nFrameLen] = byte;
    port->abRxFrame[rx.nFrameLen] = byte;
    port->nRxFrameLen = rx.nFrameLen + 1u;
  }

  void FinishFrame() {
    if (HistoryOn(*port)) {
      if (rx.nMsgType == kMsgPrimaryRequest || rx.nMsgType == kMsgSecondaryRequest)
        putHistRequest(rx.abFrame, rx.nFrameLen + 1u);
      else if (rx.nMsgType == kMsgBad)
        putHistResponse(rx.abFrame, rx.nFrameLen);
      else
        putHistResponse(rx.abFrame, rx.nFrameLen + 1u);
    }
    MacEvent(port, evFrameDone);
    // Overrides the hunting state that a reset during the event may have set.
    rx.nRxState = kRxBetweenFrames;
    rx.nBytesThisCycle = 0;
    port->nTxRequest = 0;
  }

  void Byte(unsigned char byte, unsigned int index, unsigned int count) {
    if (rx.nBytesThisCycle == 0) {
      port->tFrameStart = platform::NowMs();
      MacEvent(port, evFirstByte);
    }
    if (port->nMonitorMsg.load() != 0 && port->hMonitorWnd.load() != nullptr) {
      if (rx.nMonitorLen < kMonitorCapacity) rx.abMonitor[rx.nMonitorLen++] = byte;
    } else {
      rx.nMonitorLen = 0;
    }
    ++rx.nBytesThisCycle;
    if (TraceReceive()) {
      if (rx.nRxState == kRxBetweenFrames) rx.nFrameLen = 0;
      char line[48];
      std::snprintf(line, sizeof line, "%u, %u, %u, %2.2X", index, static_cast<unsigned int>(rx.nRxState),
                    static_cast<unsigned int>(rx.nFrameLen), static_cast<unsigned int>(byte));
      Detail(line);
    }

    switch (rx.nRxState) {
      case kRxBetweenFrames:
        rx.bFrameValid = 0;
        rx.nMsgType = kMsgBad;
        rx.nPreambleCount = 0;
        rx.nRxState = kRxHunting;
        rx.nFrameLen = 0;
        rx.nBytesThisCycle = 1;
        port->nNonPreambleBytes = 0;
        [[fallthrough]];
      case kRxHunting:
        if (byte == 0xFF) {
          CountPreamble();
          rx.nRxState = kRxPreambles;
          OnReceiveStart(port, count - index);
        } else if (++port->nNonPreambleBytes == kNoiseLimit) {
          Discard();
        }
        break;
      case kRxPreambles:
        if (byte == 0xFF) {
          CountPreamble();
        } else if (AcceptDelimiter(byte)) {
          StartFrame(byte);
          rx.nRxState = kRxInFrame;
        } else {
          Discard();
        }
        break;
      case kRxInFrame:
        if (rx.nFrameLen == 1) {
          ClassifyAddressByte(byte);
          StoreFrameByte(byte);
        } else if (IsLastByte()) {
          if (CheckChecksum(byte)) {
            rx.bFrameValid = 1;
          } else {
            MarkFrameBad();
            CountersOf(*port).frames_bad_checksum.fetch_add(1, std::memory_order_relaxed);
          }
          StoreChecksumByte(byte);
          FinishFrame();
        } else if (!StoreFrameByte(byte)) {
          Discard();
        }
        break;
      default:
        break;  // discarding: the byte was counted above and is dropped
    }
  }
};

}  // namespace

void ProcessReceivedBytes(tagCOMPORTINFO *pPort, const unsigned char *pBytes, unsigned int nCount) {
  if (nCount == 0 || !pBytes) return;
  Parser parser{pPort, *pPort->pRxFrame};
  for (unsigned int i = 0; i < nCount; ++i) parser.Byte(pBytes[i], i, nCount);
}

}  // namespace velmora
