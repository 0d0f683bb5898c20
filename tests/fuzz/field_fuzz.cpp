// Packed ASCII and plain strings read from a field at any index and length inside the buffer,
// and written back: a field read and written again is the same field.
//
// Input: index (two bytes), length (two bytes), both reduced to fit, then the buffer.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "velmora.h"

#define CHECK(condition) \
  if (!(condition)) std::abort()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 4) return 0;
  const unsigned int n = static_cast<unsigned int>(size - 4);
  const unsigned int index = (data[0] | data[1] << 8) % (n + 1);
  const unsigned int length = (data[2] | data[3] << 8) % (n - index + 1);
  // Exact copies, so that a touch past the end is caught.
  unsigned char *buffer = new unsigned char[n ? n : 1], *out = new unsigned char[n ? n : 1];
  std::memcpy(buffer, data + 4, n);

  CString packed = PickPackedASCII(buffer, length, static_cast<int>(index));
  CString plain = PickString(buffer, length, static_cast<int>(index));
  const unsigned int whole = length / 3 * 3;
  CHECK(packed.GetLength() == static_cast<int>(whole / 3 * 4));
  CHECK(plain.GetLength() == static_cast<int>(length));

  PutPackedASCII(packed, out, index, static_cast<int>(whole));
  CHECK(std::memcmp(out + index, buffer + index, whole) == 0);
  PutString(plain, out, index, static_cast<int>(length));
  for (unsigned int i = 0; i < length; ++i) CHECK(out[index + i] == (buffer[index + i] ? buffer[index + i] : ' '));
  // Any text written into a field of any size stays inside it.
  PutPackedASCII(plain, out, index, static_cast<int>(length));
  delete[] buffer;
  delete[] out;
  return 0;
}
