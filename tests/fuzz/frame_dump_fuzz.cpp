// The frame dump of a monitor notice's array, raw and decoded, with syntax texts from the input.
//
// Input: a flags byte (use syntax, command names, decimal, binary status, link event in two
// bits, no request table, no response table), a length byte, that many bytes of syntax text
// given to every command, then the array: frame bytes, gap time and frame time.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "velmora.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const uint8_t flags = data[0];
  const size_t syntax_len = std::min<size_t>(data[1], size - 2);
  const std::string syntax(reinterpret_cast<const char *>(data + 2), syntax_len);
  static CString requests[256], responses[256];
  for (int i = 0; i < 256; ++i) requests[i] = responses[i] = syntax.c_str();
  // An exact copy, so that a read past the array's end is caught.
  const size_t length = size - 2 - syntax_len;
  unsigned char *bytes = new unsigned char[length ? length : 1];
  std::memcpy(bytes, data + 2 + syntax_len, length);
  typFrameDumpStruct dump{};
  dump.bUseSyntax = flags & 1;
  dump.bShowCommandName = (flags >> 1) & 1;
  dump.bDecimal = (flags >> 2) & 1;
  dump.bStatusBinary = (flags >> 3) & 1;
  dump.nLinkEvent = (flags >> 4) & 3;
  FrameDump(bytes, static_cast<unsigned int>(length), &dump, (flags & 0x40) ? nullptr : requests,
            (flags & 0x80) ? nullptr : responses);
  delete[] bytes;
  if (dump.nError > 12) std::abort();
  return 0;
}
