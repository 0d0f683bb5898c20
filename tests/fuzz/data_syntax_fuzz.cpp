// The data syntax language: a line of fields and values from the input, behind an address head
// whose long address (of any length, or none) and polling address come from the input too.
//
// Input: a head byte (address length in three bits, bit 3: no address), the polling address,
// the address bytes, then the line.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "velmora.h"

#define CHECK(condition) \
  if (!(condition)) std::abort()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const size_t address_len = std::min<size_t>(data[0] & 7, size - 2);
  CByteArray address;
  for (size_t i = 0; i < address_len; ++i) address.Add(data[2 + i]);
  const size_t line_at = 2 + address_len;
  const std::string line(reinterpret_cast<const char *>(data + line_at), size - line_at);
  CString syntax(line.c_str()), result("unchanged");
  DataSyntaxToBuffer(syntax, (data[0] & 8) ? nullptr : &address, data[1], result);
  CHECK(syntax == line.c_str());
  if (syntax.IsEmpty()) {
    CHECK(result.IsEmpty());
    return 0;
  }
  if (result == "not valid !") return 0;
  // "0xHH,0xHH,...", at most 256 bytes, which read back as as many bytes.
  const int count = (result.GetLength() + 1) / 5;
  CHECK(count >= 1 && count <= 256 && result.GetLength() == count * 5 - 1);
  CByteArray back;
  GetSelectedBuffer(result, &back);
  CHECK(back.GetSize() == count);
  return 0;
}
