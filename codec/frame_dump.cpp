// The frame dump: a monitored frame (bytes, gap time, frame time) as display columns, walked
// field by field and stopped at the first field that fails, with the data shown raw or decoded
// by a syntax string per command ("label,FIELD,FIELD,...").
#include <cstdio>
#include <cstring>
#include <string>

#include "velmora.h"

namespace {

struct FrameKind {
  unsigned char delimiter;
  const char *name;
  unsigned int kind;  // 0 request, 1 burst frame, 2 response
};
constexpr FrameKind kKinds[] = {{0x01, "SBTX", 1}, {0x02, "SSTX", 0}, {0x06, "SACK", 2},
                                {0x81, "LBTX", 1}, {0x82, "LSTX", 0}, {0x86, "LACK", 2}};

std::string Hex2(unsigned char value) {
  char text[3];
  std::snprintf(text, sizeof text, "%02X", value);
  return text;
}

std::string Spaced(const unsigned char *bytes, size_t count) {
  return SimpleHexDump(const_cast<unsigned char *>(bytes), static_cast<unsigned int>(count)).str();
}

std::string Decimal(const char *format, long value) {
  char text[32];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

int32_t LittleEndian32(const unsigned char *at) {
  const uint32_t raw = at[0] | (static_cast<uint32_t>(at[1]) << 8) | (static_cast<uint32_t>(at[2]) << 16) |
                       (static_cast<uint32_t>(at[3]) << 24);
  return static_cast<int32_t>(raw);
}

std::string HexBytes(const unsigned char *bytes, unsigned int count, bool reverse) {
  std::string out = "0x";
  for (unsigned int i = 0; i < count; ++i) out += Hex2(bytes[reverse ? count - 1 - i : i]);
  return out;
}

// One field of a syntax string: its text and size, or false if it fails on what remains.
bool DecodeField(const CString &piece, unsigned char *bytes, unsigned int remaining, std::string &text,
                 unsigned int &size) {
  const std::string name = piece.str();
  struct Integer {
    const char *name;
    unsigned int size;
    bool low_first;
    bool hex;
  };
  static constexpr Integer kIntegers[] = {
      {"DEC16", 2, false, false}, {"LDEC16", 2, true, false}, {"HEX16", 2, false, true}, {"LHEX16", 2, true, true},
      {"DEC24", 3, false, false}, {"LDEC24", 3, true, false}, {"HEX24", 3, false, true}, {"LHEX24", 3, true, true},
      {"DEC32", 4, false, false}, {"LDEC32", 4, true, false}, {"HEX32", 4, false, true}, {"LHEX32", 4, true, true}};
  for (const Integer &integer : kIntegers) {
    if (name != integer.name) continue;
    if (remaining < integer.size) return false;
    size = integer.size;
    if (integer.hex) {
      text = HexBytes(bytes, size, integer.low_first);
    } else {
      const unsigned int value = size == 2   ? PickInt16(bytes, 0, integer.low_first)
                                 : size == 3 ? PickInt24(bytes, 0, integer.low_first)
                                             : PickInt32(bytes, 0, integer.low_first);
      // A 32-bit value with its top bit set shows as a negative number.
      text = Decimal("%ld", size == 4 ? static_cast<long>(static_cast<int32_t>(value)) : static_cast<long>(value));
    }
    return true;
  }
  if (name == "DEC8" || name == "BIN8" || name == "HEX8" || name == "UNIT") {
    if (remaining < 1) return false;
    size = 1;
    if (name == "DEC8") text = Decimal("%ld", bytes[0]);
    else if (name == "BIN8") text = IntToBin(bytes[0]).str() + "b";
    else if (name == "HEX8") text = "0x" + Hex2(bytes[0]);
    else text = GetHartUnit(bytes[0]).str();
    return true;
  }
  if (name == "FLOAT") {
    if (remaining < 4) return false;
    size = 4;
    char value[64];
    std::snprintf(value, sizeof value, "%g", PickFloat(bytes, 0));
    text = value;
    return true;
  }
  if (name == "DATE") {
    if (remaining < 3) return false;
    size = 3;
    char value[48];
    std::snprintf(value, sizeof value, "%d-%d-%d", bytes[0], bytes[1], bytes[2] + 1900);
    text = value;
    return true;
  }
  if (name.compare(0, 3, "PCA") == 0 || name.compare(0, 3, "STR") == 0) {
    const long n = std::strtol(name.c_str() + 3, nullptr, 10);
    if (n <= 0 || static_cast<unsigned long>(n) > remaining) return false;
    size = static_cast<unsigned int>(n);
    text = (name[0] == 'P' ? PickPackedASCII(bytes, size, 0) : PickString(bytes, size, 0)).str();
    return true;
  }
  return false;
}

void Decode(typFrameDumpStruct &dump, CString &syntax, unsigned char *bytes, unsigned int count) {
  std::string data;
  unsigned int at = 0;
  CString piece;
  while (!syntax.IsEmpty() && at < count) {
    CutPieceTrim(syntax, piece);
    if (!data.empty()) data += "/";
    std::string text;
    unsigned int size = 0;
    if (DecodeField(piece, bytes + at, count - at, text, size)) {
      data += text;
      at += size;
    } else {
      data += "???";
    }
  }
  if (at < count) {
    data += "//";
    for (unsigned int i = at; i < count; ++i) data += (i == at ? "0x" : " 0x") + Hex2(bytes[i]);
  }
  dump.sData = data.c_str();
}

void Fault(typFrameDumpStruct &dump, unsigned int number, const char *text) {
  dump.nError = number;
  dump.sError = text;
}

void Dump(const unsigned char *frame_in, unsigned int nLength, typFrameDumpStruct &dump, const CString *requests,
          const CString *responses) {
  dump.sPreamble.Empty();
  dump.sDelimiter.Empty();
  dump.sAddress.Empty();
  dump.sCommand.Empty();
  dump.sByteCount.Empty();
  dump.sData.Empty();
  dump.sChecksum.Empty();
  dump.sFrameType.Empty();
  dump.sRest.Empty();
  dump.sError.Empty();
  dump.sLinkEvent.Empty();
  dump.sGapTime.Empty();
  dump.sFrameTime.Empty();
  dump.sRemark.Empty();
  // A full status column's width, so that the columns line up when there is no status.
  dump.sStatus = CString(' ', (dump.bDecimal ? 6 : 5) + (dump.bStatusBinary ? 7 : 0));
  dump.nError = dump.nReserved = dump.nFrameKind = dump.bSecondaryMaster = 0;
  dump.nCommand = -1;
  dump.nMaster = -1;

  unsigned int size = 0;
  if (nLength >= 8 && frame_in) {
    size = nLength - 8;
    const int32_t gap = LittleEndian32(frame_in + size);
    const int32_t frame_time = LittleEndian32(frame_in + size + 4);
    dump.sGapTime = Decimal("%05ld", gap > 99999 ? 0 : gap).c_str();
    dump.sFrameTime = Decimal("%05ld", frame_time).c_str();
  } else {
    dump.sFrameTime = "?????";
  }
  if (size == 0) {
    dump.sGapTime.Empty();
    if (dump.nLinkEvent == 3) {
      dump.sLinkEvent = "Final Time Out!!!";
      dump.nError = 12;
    } else {
      dump.sLinkEvent = "Time Out!!!";
    }
    return;
  }
  if (dump.nLinkEvent == 2) dump.sLinkEvent = "Received Comm Error!";

  // The decoders take a writable pointer by their signatures; none of them writes.
  unsigned char *frame = const_cast<unsigned char *>(frame_in);

  unsigned int at = 0;
  bool preamble_seen = false;
  while (at < size && !(preamble_seen && frame[at] != 0xFF)) preamble_seen |= frame[at++] == 0xFF;
  if (!preamble_seen) {
    dump.sRest = Spaced(frame, at).c_str();
    return Fault(dump, 1, "No preamble detected!");
  }
  dump.sPreamble = Spaced(frame, at).c_str();

  if (at >= size) return Fault(dump, 2, "No delimiter!");
  const unsigned char delimiter = frame[at];
  dump.sDelimiter = Hex2(delimiter).c_str();
  const FrameKind *kind = nullptr;
  for (const FrameKind &k : kKinds)
    if (k.delimiter == delimiter) kind = &k;
  if (!kind) {
    dump.sFrameType = "?????";
    dump.sRest = Spaced(frame + at, size - at).c_str();
    return Fault(dump, 3, "Wrong delimiter!");
  }
  dump.sFrameType = kind->name;
  dump.nFrameKind = kind->kind;
  ++at;

  if (at >= size) return Fault(dump, 4, "No address!");
  if (frame[at] & 0x80) {
    dump.sFrameType += "P";
    dump.nMaster = 0;
  } else {
    dump.sFrameType += "S";
    dump.bSecondaryMaster = 1;
    dump.nMaster = 1;
  }
  if (delimiter & 0x80) {
    if (size - at < 5) {
      dump.sRest = Spaced(frame + at, size - at).c_str();
      return Fault(dump, 5, "Address length error!");
    }
    dump.sAddress = Spaced(frame + at, 5).c_str();
    at += 5;
  } else {
    dump.sAddress = (Hex2(frame[at]) + std::string(12, ' ')).c_str();
    ++at;
  }

  if (at >= size) return Fault(dump, 6, "No command!");
  const unsigned char command = frame[at++];
  dump.nCommand = command;
  CString syntax, label;
  if (dump.bUseSyntax || dump.bShowCommandName) {
    const CString *table = dump.nFrameKind != 0 ? responses : requests;
    if (table) syntax = table[command];
    if (!syntax.IsEmpty()) CutPiece(syntax, label);
  }
  if (!dump.bShowCommandName) {
    dump.sCommand = dump.bDecimal ? Decimal("%03ld", command).c_str() : Hex2(command).c_str();
  } else if (!label.IsEmpty()) {
    dump.sCommand = label;
  } else {
    dump.sCommand = dump.bDecimal ? (Decimal("%03ld", command) + "_________").c_str()
                                  : (Hex2(command) + "__________").c_str();
  }

  if (at >= size) return Fault(dump, 7, "No data length!");
  const unsigned int count = frame[at++];
  dump.sByteCount = dump.bDecimal ? Decimal("%03ld", count).c_str() : Hex2(static_cast<unsigned char>(count)).c_str();
  if (count > 0) {
    if (at >= size) return Fault(dump, 9, "Missing data!");
    if (count > size - at) {
      dump.sRest = Spaced(frame + at, size - at).c_str();
      return Fault(dump, 8, "Data length error!");
    }
    const bool raw = !dump.bUseSyntax || syntax.IsEmpty();
    if (raw) dump.bRawData = 1;
    unsigned int data_at = at;
    if (dump.nFrameKind != 0) {
      const unsigned char first = frame[at];
      if (first == 0x20) dump.sRemark = "-> Busy!";
      if (first == 0x40) dump.sRemark = "-> Command not implemented!";
      std::string status = dump.bDecimal ? Decimal("%03ld", first) : Hex2(first);
      if (count >= 2) {
        status += " ";
        status += dump.bStatusBinary ? IntToBin(frame[at + 1]).str() + "b" : Hex2(frame[at + 1]);
      } else {
        status += " ??";
      }
      dump.sStatus = status.c_str();
      data_at += count >= 2 ? 2 : 1;
    }
    const unsigned int data_count = at + count - data_at;
    if (raw) dump.sData = Spaced(frame + data_at, data_count).c_str();
    else if (data_count > 0) Decode(dump, syntax, frame + data_at, data_count);
    at += count;
  }

  if (at >= size) return Fault(dump, 10, "Missing checksum!");
  dump.sChecksum = Hex2(frame[at++]).c_str();
  if (at < size) dump.sRest = Spaced(frame + at, size - at).c_str();
}

}  // namespace

extern "C" void FrameDump(unsigned char *pFrame, unsigned int nLength, typFrameDumpStruct *pDump,
                          CString *asRequestSyntax, CString *asResponseSyntax) noexcept {
  if (!pDump) return;
  try {
    Dump(pFrame, nLength, *pDump, asRequestSyntax, asResponseSyntax);
  } catch (...) {
  }
}
