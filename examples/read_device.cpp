// Reads a HART field device through the public interface only: registers a notice window on a
// port, asks for the device's identity (command 0) and its dynamic variables (command 3), and
// prints the replies.
//
// Usage: read_device DEVICE [POLLING_ADDRESS]
//   DEVICE: a serial device or pseudo-terminal, e.g. the path that velmora-sim prints.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "velmora.h"

namespace {

constexpr unsigned int kPort = 1;
constexpr unsigned int kReplyMsg = 0x8001;

// Sends one request and waits for its reply notice; fills *reply. False on time-out or failure.
// With a long address the request goes in a long frame, else to the polling address.
bool Transact(unsigned int hApp, HWND window, unsigned char address, const unsigned char *long_address,
              unsigned char command, tagHARTREQUEST *reply) {
  tagHARTREQUEST request{};
  request.nCommand = command;
  request.nPollingAddress = address;
  if (long_address) {
    request.nAddressFormat = 2;
    for (int i = 0; i < 5; ++i) request.abLongAddress[i] = long_address[i];
  }
  const unsigned int hServ = HART_SendRequest(hApp, &request, command);
  if (hServ == VELMORA_NONE) {
    std::fprintf(stderr, "command %u: not queued\n", command);
    return false;
  }
  MSG msg;
  while (GetMessageTimeout(&msg, window, 5000)) {
    if (msg.message != kReplyMsg || msg.wParam != hServ) continue;
    unsigned int app_id = 0;
    if (!HART_ReceiveRequest(hApp, hServ, reply, &app_id)) return false;
    if ((static_cast<unsigned int>(msg.lParam) & 0xFFFF) == 0xFFFF) {
      std::printf("command %u: no answer from the device (response code %u)\n", command, reply->nResponseCode);
      return false;
    }
    return true;
  }
  std::fprintf(stderr, "command %u: no notice within 5 s\n", command);
  return false;
}

// Unit names are code page 1252 bytes; a terminal wants UTF-8 for the degree sign and the
// superscript three.
std::string Utf8(const CString &text) {
  std::string out;
  for (int i = 0; i < text.GetLength(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text.GetAt(i));
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

void PrintVariable(const char *name, unsigned char *data) {
  std::printf("  %-3s %12g %s\n", name, PickFloat(data, 1), Utf8(GetHartUnit(data[0])).c_str());
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s DEVICE [POLLING_ADDRESS]\n", argv[0]);
    return 2;
  }
  const unsigned char address = static_cast<unsigned char>(argc > 2 ? std::atoi(argv[2]) : 0);
  SetComPortDevice(kPort, argv[1]);
  HWND window = CreateNoticeWindow();
  tagHARTREGISTRATION registration{window, kPort, 0, 0, kReplyMsg, 0, 1};
  unsigned int hApp = VELMORA_NONE;
  if (!HART_RegisterDriver(&registration, &hApp)) {
    std::fprintf(stderr, "cannot open %s\n", argv[1]);
    return 1;
  }
  tagHARTCONFIG config{1, 5, 2, 0, 0};
  HART_SetConfiguration(hApp, &config);

  int status = 1;
  unsigned char data[256];
  tagHARTREQUEST reply{};
  reply.pData = data;
  if (Transact(hApp, window, address, nullptr, 0, &reply) && reply.nDataCount >= 12) {
    std::printf("Device at polling address %u (status %02X %02X)\n", address, reply.nResponseCode,
                reply.nDeviceStatus);
    const unsigned int manufacturer = reply.nDataCount >= 19 ? PickInt16(data, 17, 0) : data[1];
    std::printf("  manufacturer %u (%s), device type %02X%02X, device id %06X\n", manufacturer,
                GetHartVendor(manufacturer).GetString(), data[1], data[2], PickInt24(data, 9, 0));
    std::printf("  universal revision %u, device revision %u, software revision %u, %u preambles\n", data[4],
                data[5], data[6], data[3]);
    // Devices answer other commands in long frames, at the unique address command 0 gave.
    const unsigned char long_address[5] = {static_cast<unsigned char>(data[1] & 0x3F), data[2], data[9], data[10],
                                           data[11]};
    reply = tagHARTREQUEST{};
    reply.pData = data;
    if (Transact(hApp, window, address, long_address, 3, &reply) && reply.nDataCount >= 9) {
      std::printf("Dynamic variables:\n  loop current %g mA\n", PickFloat(data, 0));
      static const char *const kNames[] = {"PV", "SV", "TV", "QV"};
      for (unsigned int i = 0; i < 4 && 4 + i * 5 + 5 <= reply.nDataCount; ++i) PrintVariable(kNames[i], data + 4 + i * 5);
      status = 0;
    }
  }
  HART_UnRegisterDriver(hApp);
  DestroyNoticeWindow(window);
  return status;
}
