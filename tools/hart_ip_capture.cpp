// HART-IP packets for the line's frames, and the capture file they go to.
#include "hart_ip_capture.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <optional>

namespace velmora::tool {
namespace {

constexpr uint8_t kHartIpVersion = 1;
constexpr uint8_t kMsgRequest = 0, kMsgResponse = 1, kMsgPublish = 2;
constexpr uint8_t kMsgIdTokenPassingPdu = 3;
constexpr size_t kIpHeader = 20, kUdpHeader = 8, kHartIpHeader = 8;

// Documentation addresses (192.0.2.0/24): nothing outside the file uses them.
constexpr uint8_t kPrimaryMaster[4] = {192, 0, 2, 1};
constexpr uint8_t kSecondaryMaster[4] = {192, 0, 2, 2};
constexpr uint8_t kFieldDevices[4] = {192, 0, 2, 100};
constexpr uint16_t kPrimaryPort = 49152, kSecondaryPort = 49153;

void Put16(std::vector<uint8_t> &out, size_t at, uint16_t value) {
  out[at] = static_cast<uint8_t>(value >> 8);
  out[at + 1] = static_cast<uint8_t>(value);
}

uint16_t IpChecksum(const uint8_t *header) {
  uint32_t sum = 0;
  for (size_t i = 0; i < kIpHeader; i += 2) sum += static_cast<uint32_t>(header[i] << 8 | header[i + 1]);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

}  // namespace

std::vector<uint8_t> HartIpPacket(const HartFrame &frame, const std::vector<uint8_t> &pdu, uint16_t sequence) {
  const bool to_device = frame.kind == FrameKind::kRequest;
  const uint8_t *master = frame.from_primary ? kPrimaryMaster : kSecondaryMaster;
  const uint16_t master_port = frame.from_primary ? kPrimaryPort : kSecondaryPort;
  const size_t hart_ip_length = kHartIpHeader + pdu.size();
  const size_t udp_length = kUdpHeader + hart_ip_length;
  std::vector<uint8_t> packet(kIpHeader + udp_length);

  // IPv4: no options, don't fragment, UDP.
  packet[0] = 0x45;
  Put16(packet, 2, static_cast<uint16_t>(packet.size()));
  Put16(packet, 4, sequence);
  packet[6] = 0x40;
  packet[8] = 64;
  packet[9] = 17;
  for (int i = 0; i < 4; ++i) {
    packet[12 + i] = to_device ? master[i] : kFieldDevices[i];
    packet[16 + i] = to_device ? kFieldDevices[i] : master[i];
  }
  Put16(packet, 10, IpChecksum(packet.data()));

  // UDP, checksum 0 (none), which IPv4 allows.
  Put16(packet, kIpHeader, to_device ? master_port : kHartIpPort);
  Put16(packet, kIpHeader + 2, to_device ? kHartIpPort : master_port);
  Put16(packet, kIpHeader + 4, static_cast<uint16_t>(udp_length));

  const size_t h = kIpHeader + kUdpHeader;
  packet[h] = kHartIpVersion;
  packet[h + 1] = frame.kind == FrameKind::kRequest ? kMsgRequest
                  : frame.kind == FrameKind::kResponse ? kMsgResponse
                                                       : kMsgPublish;
  packet[h + 2] = kMsgIdTokenPassingPdu;
  packet[h + 3] = 0;  // status
  Put16(packet, h + 4, sequence);
  Put16(packet, h + 6, static_cast<uint16_t>(hart_ip_length));
  std::copy(pdu.begin(), pdu.end(), packet.begin() + static_cast<std::ptrdiff_t>(h + kHartIpHeader));
  return packet;
}

struct CaptureFile::Handles {
  pcap_t *pcap = nullptr;
  pcap_dumper_t *dumper = nullptr;
  ~Handles() {
    if (dumper) pcap_dump_close(dumper);
    if (pcap) pcap_close(pcap);
  }
};

CaptureFile::CaptureFile() = default;
CaptureFile::~CaptureFile() = default;

bool CaptureFile::Open(const std::string &path, std::string &error) {
  auto handles = std::make_unique<Handles>();
  handles->pcap = pcap_open_dead(DLT_RAW, 65535);
  if (!handles->pcap) {
    error = "cannot start a capture (libpcap)";
    return false;
  }
  handles->dumper = pcap_dump_open(handles->pcap, path.c_str());
  if (!handles->dumper) {
    error = "cannot write the capture " + path + ": " + pcap_geterr(handles->pcap);
    return false;
  }
  handles_ = std::move(handles);
  return true;
}

void CaptureFile::Write(const uint8_t *bytes, size_t count, std::chrono::system_clock::time_point start) {
  if (!handles_) return;
  const std::optional<HartFrame> frame = ParseFrame(bytes, count);
  if (!frame) return;
  // A request opens a new exchange; its response and any burst frame carry its number.
  if (frame->kind != FrameKind::kResponse) ++sequence_;
  const std::vector<uint8_t> packet = HartIpPacket(*frame, frame->Pdu(bytes, count), sequence_);
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(start.time_since_epoch()).count();
  pcap_pkthdr header{};
  header.ts.tv_sec = static_cast<time_t>(us / 1000000);
  header.ts.tv_usec = static_cast<suseconds_t>(us % 1000000);
  header.caplen = header.len = static_cast<bpf_u_int32>(packet.size());
  pcap_dump(reinterpret_cast<u_char *>(handles_->dumper), &header, packet.data());
  pcap_dump_flush(handles_->dumper);
  ++written_;
}

}  // namespace velmora::tool
