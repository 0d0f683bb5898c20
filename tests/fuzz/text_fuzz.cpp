// The text toolbox on arbitrary text: byte selection from dump text, number lists, hex values,
// and the two round trips the toolbox promises (byte to hex text and back, dump rows and back).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "velmora.h"

#define CHECK(condition) \
  if (!(condition)) std::abort()

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);  // read up to its first NUL

  CByteArray selected;
  GetSelectedBuffer(CString(text.c_str()), &selected);

  // One byte per comma-separated piece, and a piece takes at least one character: the text's
  // length is room enough. Exactly that much, so that a write past it is caught.
  CString numbers(text.c_str());
  const size_t room = std::strlen(text.c_str());
  unsigned char *buffer = new unsigned char[room ? room : 1];
  unsigned int length = 0xFFFFFFFF;
  NumStrToBuffer(numbers, buffer, &length);
  delete[] buffer;
  CHECK(length <= room);

  CString hex(text.c_str());
  GetHexVal(hex);
  CHECK(hex == text.c_str());  // the text stays as it was
  GetBinVal(hex);

  for (size_t i = 0; i < size && i < 4; ++i) {
    CString two = HexToText(data[i]);
    CHECK(two.GetLength() == 2 && GetHexVal(two) == data[i]);
  }

  // The rows of a dump read back into the bytes dumped.
  if (size > 0) {
    unsigned char *bytes = new unsigned char[size];
    std::memcpy(bytes, data, size);
    const std::string dump = HexDump(bytes, static_cast<unsigned int>(size)).str();
    CByteArray back;
    GetSelectedBuffer(CString(dump.substr(dump.find("00_>")).c_str()), &back);
    CHECK(back.GetSize() == static_cast<int>(size) && std::memcmp(back.GetData(), bytes, size) == 0);
    delete[] bytes;
  }
  return 0;
}
