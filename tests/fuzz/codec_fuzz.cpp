// Fuzzes the toolbox functions that read arbitrary bytes and texts.
#include <cstdint>
#include <string>
#include <vector>

#include "velmora.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<unsigned char> bytes(data, data + size);
  typFrameDumpStruct dump{};
  static CString syntax[256];
  syntax[1] = "l,UNIT,FLOAT,PCA6,STR3,DATE,LDEC24,HEX32";
  dump.bUseSyntax = dump.bShowCommandName = 1;
  FrameDump(bytes.data(), static_cast<unsigned int>(bytes.size()), &dump, syntax, syntax);
  const std::string text(reinterpret_cast<const char *>(data), size);
  CByteArray selected;
  GetSelectedBuffer(CString(text.c_str()), &selected);
  CString line(text.c_str()), result;
  CByteArray address;
  address.Add(0x11);
  DataSyntaxToBuffer(line, &address, 3, result);
  std::vector<unsigned char> buffer(size + 1);
  unsigned int length = 0;
  CString numbers(text.c_str());
  NumStrToBuffer(numbers, buffer.data(), &length);
  CString hex(text.c_str());
  GetHexVal(hex);
  if (size) PickPackedASCII(bytes.data(), static_cast<unsigned int>(size), 0);
  return 0;
}
