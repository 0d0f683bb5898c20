// The history store as text for a viewer: each closed record's service details, request line,
// state trace, receive details and response line, frames in plain or decoded form.
#include <cstdio>
#include <string>
#include <vector>

#include "diag/history_store.h"

namespace velmora {
namespace {

constexpr unsigned int kShowReceive = 2;
constexpr unsigned int kShowStates = 4;
constexpr unsigned int kShowService = 8;
constexpr unsigned int kDecoded = 16;

// A closed record, copied out of the store so that rendering needs no lock.
struct RecordCopy {
  unsigned int rsp_preambles = 0;
  bool has_request = false, has_response = false;
  std::vector<unsigned char> request, response;
  std::string request_time, response_time, receive, states, service;
};

std::string Text(const CString *text) { return text ? text->str() : std::string(); }
std::vector<unsigned char> Bytes(const CByteArray *bytes) {
  if (!bytes || bytes->GetSize() == 0) return {};
  return std::vector<unsigned char>(bytes->GetData(), bytes->GetData() + bytes->GetSize());
}

std::vector<RecordCopy> CopyClosedRecords() {
  std::vector<RecordCopy> out;
  WithHistory([&](typHistoryRecord *records, unsigned int open_index) {
    out.reserve(open_index);
    for (unsigned int i = 0; i < open_index && i < kHistoryRecords; ++i) {
      const typHistoryRecord &record = records[i];
      RecordCopy copy;
      copy.rsp_preambles = record.nRspPreambles;
      copy.has_request = record.pRequestBytes != nullptr;
      copy.has_response = record.pResponseBytes != nullptr;
      copy.request = Bytes(record.pRequestBytes);
      copy.response = Bytes(record.pResponseBytes);
      copy.request_time = Text(record.psRequestTime);
      copy.response_time = Text(record.psResponseTime);
      copy.receive = Text(record.psReceiveDetails);
      copy.states = Text(record.psStates);
      copy.service = Text(record.psServiceDetails);
      out.push_back(std::move(copy));
    }
  });
  return out;
}

// Joining: nothing for an empty piece; a text of under 2 characters is replaced; a line end
// is put between unless the text already ends in one.
void Join(std::string &text, const std::string &piece) {
  if (piece.empty()) return;
  if (text.size() < 2) {
    text = piece;
  } else if (text.compare(text.size() - 2, 2, "\r\n") == 0) {
    text += piece;
  } else {
    text += "\r\n";
    text += piece;
  }
}

const char *DelimiterWord(unsigned char delimiter) {
  switch (delimiter) {
    case 1: return "BST, ";
    case 2: return "STX, ";
    case 6: return "ACK, ";
    case 129: return "EXT_BRT, ";
    case 130: return "EXT_STX, ";
    case 134: return "EXT_ACK, ";
    default: return "INVALID, ";
  }
}

std::string Dump(const unsigned char *bytes, size_t count) {
  return HexDump(const_cast<unsigned char *>(bytes), static_cast<unsigned int>(count)).str();
}

std::string Format(const char *format, unsigned int value) {
  char line[64];
  std::snprintf(line, sizeof line, format, value);
  return line;
}

std::string RequestLine(const RecordCopy &record, unsigned int flags) {
  const std::vector<unsigned char> &bytes = record.request;
  const size_t n = bytes.size();
  size_t p = 0;
  while (p < n && bytes[p] == 0xFF) ++p;
  std::string head = n ? Format("Preambles %u, ", static_cast<unsigned int>(p)) : std::string();
  if (n <= p) return head + "No Request Frame ?";
  const bool long_frame = (bytes[p] & 0x80) != 0;
  head += DelimiterWord(bytes[p]);
  const size_t command_at = p + (long_frame ? 6 : 2);
  head += command_at < n ? Format("CMD %u, ", bytes[command_at]) : std::string("CMD ?, ");
  if (flags & kDecoded) {
    const size_t data_at = p + (long_frame ? 8 : 4);
    if (n > data_at + 1) return record.request_time + "Request, " + head + "Data " + Dump(&bytes[data_at], n - data_at - 1);
    return record.request_time + "Request, " + head + "Data Length: 0";
  }
  return record.request_time + "Request, " + head + Dump(&bytes[p], n - p);
}

std::string ResponseLine(const RecordCopy &record, unsigned int flags) {
  const std::vector<unsigned char> &bytes = record.response;
  const size_t m = bytes.size();
  if (m == 0) return record.response_time + "No Response or Error!\r\n";
  if (!(flags & kDecoded))
    return record.response_time + Format("Response, Preambles %u, ", record.rsp_preambles) + DelimiterWord(bytes[0]) +
           Dump(bytes.data(), m);
  const bool long_frame = (bytes[0] & 0x80) != 0;
  const size_t c1 = long_frame ? 8 : 4, c2 = c1 + 1, d = c1 + 2;
  std::string text;
  if (m <= c1) {
    text = record.response_time + "No Response Codes !";
  } else {
    // A first status byte above 127 reports a communication error: shown in hexadecimal.
    const std::string r1 =
        bytes[c1] > 127 ? Format("Rsp Code 1: 0x%02X", bytes[c1]) : Format("Rsp Code 1: %02u", bytes[c1]);
    if (m > c2) text = record.response_time + r1 + ", Rsp Code 2: " + IntToBin(bytes[c2]).str();
    else text = record.response_time + r1 + ", No Rsp Code 2 !";
  }
  if (m > d + 1) return text + ", Data " + Dump(&bytes[d], m - d - 1);
  return text + ", No Response Data";
}

std::string Render(unsigned int flags) {
  std::string text;
  for (const RecordCopy &record : CopyClosedRecords()) {
    if (text.size() > 1) text += "\r\n";
    if (flags & kShowService) Join(text, record.service);
    if (record.has_request) Join(text, RequestLine(record, flags));
    if (flags & kShowStates) Join(text, record.states);
    if (flags & kShowReceive) Join(text, record.receive);
    if (record.has_response) Join(text, ResponseLine(record, flags));
  }
  return text;
}

}  // namespace
}  // namespace velmora

extern "C" CString GetHistory(unsigned int nFlags) noexcept {
  try {
    return CString(velmora::Render(nFlags));
  } catch (...) {
    return CString();
  }
}
