// A capture of the line that Wireshark and tshark decode with their HART-IP dissector: each
// frame becomes a HART-IP token-passing PDU (message id 3) in a UDP datagram to or from port
// 5094, inside a raw-IP capture (link type 101). The IP addresses are made up and only name the
// parties: the primary master, the secondary master, the field devices.
#ifndef VELMORA_TOOLS_HART_IP_CAPTURE_H
#define VELMORA_TOOLS_HART_IP_CAPTURE_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "frame_view.h"

namespace velmora::tool {

inline constexpr uint16_t kHartIpPort = 5094;

// The IPv4 packet for one frame. pdu is the frame from its delimiter on; sequence pairs a
// request with its response.
std::vector<uint8_t> HartIpPacket(const HartFrame &frame, const std::vector<uint8_t> &pdu, uint16_t sequence);

// A capture file written through libpcap. Frames are stamped with the time their first byte
// went over the line.
class CaptureFile {
 public:
  CaptureFile();
  CaptureFile(const CaptureFile &) = delete;
  CaptureFile &operator=(const CaptureFile &) = delete;
  ~CaptureFile();
  // False with a reason in error when the file cannot be written.
  bool Open(const std::string &path, std::string &error);
  // Writes a frame off the monitor (preambles included); bytes that hold no frame are left out.
  void Write(const uint8_t *bytes, size_t count, std::chrono::system_clock::time_point start);
  unsigned int Written() const { return written_; }

 private:
  struct Handles;
  std::unique_ptr<Handles> handles_;
  uint16_t sequence_ = 0;
  unsigned int written_ = 0;
};

}  // namespace velmora::tool

#endif
