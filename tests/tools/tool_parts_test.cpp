// The velmora tool's parts that need no line: frames off the monitor split into fields, the
// HART-IP packets of a capture, the data syntax as users type it, and replies decoded.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "device_reads.h"
#include "frame_view.h"
#include "hart_ip_capture.h"

namespace velmora::tool {
namespace {

using Bytes = std::vector<uint8_t>;

// A frame as on the line: preambles, the fields, and the checksum over them.
Bytes Framed(Bytes fields, size_t preambles = 5) {
  uint8_t sum = 0;
  for (uint8_t b : fields) sum ^= b;
  fields.push_back(sum);
  fields.insert(fields.begin(), preambles, 0xFF);
  return fields;
}

// Two bytes of noise, then the frame.
Bytes AfterNoise(const Bytes &frame) {
  Bytes out = {0x12, 0x34};
  for (uint8_t b : frame) out.push_back(b);
  return out;
}

TEST(FrameViewTest, SplitsFramesOffTheLine) {
  struct Row {
    const char *name;
    Bytes bytes;
    bool parsed;
    FrameKind kind;
    size_t address_size;
    bool from_primary;
    uint8_t command;
    Bytes data;
    bool complete, checksum_ok;
  };
  Bytes bad = Framed({0x06, 0x80, 0x00, 0x02, 0x00, 0x00});
  bad.back() ^= 0x01;
  Bytes cut = Framed({0x86, 0xA6, 0x1A, 0x5A, 0x00, 0x01, 0x03, 0x05, 0x00, 0x00, 0x41, 0x80, 0x00});
  cut.resize(cut.size() - 3);
  const Row rows[] = {
      {"short request", Framed({0x02, 0x80, 0x00, 0x00}), true, FrameKind::kRequest, 1, true, 0, {}, true, true},
      {"long response", Framed({0x86, 0x26, 0x1A, 0x5A, 0x00, 0x01, 0x01, 0x07, 0x00, 0x40, 0x0C, 0x42, 0xC8, 0x00, 0x00}),
       true, FrameKind::kResponse, 5, false, 1, {0x0C, 0x42, 0xC8, 0x00, 0x00}, true, true},
      {"burst with noise before", AfterNoise(Framed({0x81, 0xE6, 0x1A, 0x5A, 0x00, 0x01, 0x01, 0x02, 0x00, 0x00})),
       true, FrameKind::kBurst, 5, true, 1, {}, true, true},
      {"bad checksum", bad, true, FrameKind::kResponse, 1, true, 0, {}, true, false},
      {"cut off inside the data", cut, true, FrameKind::kResponse, 5, true, 3, {0x41}, false, false},
      {"no preamble", Bytes{0x02, 0x80, 0x00, 0x00, 0x82}, false, FrameKind::kRequest, 0, false, 0, {}, false, false},
      {"unknown delimiter", Framed({0x07, 0x80, 0x00, 0x00}), false, FrameKind::kRequest, 0, false, 0, {}, false, false},
      {"preambles only", Bytes(6, 0xFF), false, FrameKind::kRequest, 0, false, 0, {}, false, false},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    const std::optional<HartFrame> frame = ParseFrame(row.bytes.data(), row.bytes.size());
    ASSERT_EQ(frame.has_value(), row.parsed);
    if (!frame) continue;
    EXPECT_EQ(frame->kind, row.kind);
    EXPECT_EQ(frame->address.size(), row.address_size);
    EXPECT_EQ(frame->from_primary, row.from_primary);
    EXPECT_EQ(frame->command, row.command);
    EXPECT_EQ(frame->Data(), row.data);
    EXPECT_EQ(frame->complete, row.complete);
    EXPECT_EQ(frame->checksum_ok, row.checksum_ok);
    // The PDU starts at the delimiter and never reaches past the bytes.
    const Bytes pdu = frame->Pdu(row.bytes.data(), row.bytes.size());
    ASSERT_FALSE(pdu.empty());
    EXPECT_EQ(pdu.front(), frame->delimiter);
    EXPECT_LE(frame->start + pdu.size(), row.bytes.size());
  }
}

uint16_t Word(const Bytes &packet, size_t at) { return static_cast<uint16_t>(packet[at] << 8 | packet[at + 1]); }

TEST(HartIpCaptureTest, PacketsNameTheirPartiesAndCarryThePdu) {
  struct Row {
    const char *name;
    Bytes frame;
    uint8_t message_type;
    uint16_t source_port, destination_port;
    uint8_t source_last, destination_last;  // last byte of the IPv4 addresses
  };
  const Row rows[] = {
      {"primary's request", Framed({0x02, 0x80, 0x00, 0x00}), 0, 49152, 5094, 1, 100},
      {"secondary's request", Framed({0x82, 0x26, 0x1A, 0x5A, 0x00, 0x01, 0x0D, 0x00}), 0, 49153, 5094, 2, 100},
      {"reply to the primary", Framed({0x06, 0x80, 0x00, 0x02, 0x00, 0x00}), 1, 5094, 49152, 100, 1},
      {"burst to the secondary", Framed({0x81, 0x66, 0x1A, 0x5A, 0x00, 0x01, 0x01, 0x02, 0x00, 0x00}), 2, 5094, 49153, 100, 2},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    const std::optional<HartFrame> frame = ParseFrame(row.frame.data(), row.frame.size());
    ASSERT_TRUE(frame);
    const Bytes pdu = frame->Pdu(row.frame.data(), row.frame.size());
    const Bytes packet = HartIpPacket(*frame, pdu, 0x1234);
    ASSERT_EQ(packet.size(), 20u + 8u + 8u + pdu.size());
    EXPECT_EQ(packet[0], 0x45);
    EXPECT_EQ(Word(packet, 2), packet.size());
    EXPECT_EQ(packet[9], 17);  // UDP
    uint32_t sum = 0;          // the header checksum makes the header sum to all ones
    for (size_t i = 0; i < 20; i += 2) sum += Word(packet, i);
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    EXPECT_EQ(sum, 0xFFFFu);
    EXPECT_EQ(packet[15], row.source_last);
    EXPECT_EQ(packet[19], row.destination_last);
    EXPECT_EQ(Word(packet, 20), row.source_port);
    EXPECT_EQ(Word(packet, 22), row.destination_port);
    EXPECT_EQ(Word(packet, 24), packet.size() - 20);
    // HART-IP: version 1, message type, token-passing PDU, status 0, sequence, length.
    EXPECT_EQ(packet[28], 1);
    EXPECT_EQ(packet[29], row.message_type);
    EXPECT_EQ(packet[30], 3);
    EXPECT_EQ(packet[31], 0);
    EXPECT_EQ(Word(packet, 32), 0x1234);
    EXPECT_EQ(Word(packet, 34), 8 + pdu.size());
    EXPECT_EQ(Bytes(packet.begin() + 36, packet.end()), pdu);
  }
}

TEST(DataSyntaxInputTest, KeywordsInAnyCaseTextAsTyped) {
  struct Row {
    const char *text;
    Bytes bytes;
    bool error;
  };
  const Row rows[] = {
      {"", {}, false},
      {"3", {3}, false},
      {"dec8,4, 0x1f", {4, 0x1F}, false},
      {"hex16,beef,2*7", {0xBE, 0xEF, 7, 7}, false},
      {"str4,aB", {'a', 'B', ' ', ' '}, false},
      {"pca3,ab", {0x04, 0x28, 0x20}, false},
      {"float,1.5", {0x3F, 0xC0, 0x00, 0x00}, false},
      {"DATE,1", {}, true},
      {"dec8", {}, true},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    std::string error;
    const Bytes bytes = DataFromSyntax(row.text, error);
    EXPECT_EQ(!error.empty(), row.error) << error;
    if (!row.error) {
      EXPECT_EQ(bytes, row.bytes);
    }
  }
}

TEST(DeviceReadsTest, RepliesDecodedAndShortOnesRefused) {
  // Command 0 of a newer device: expanded type 0x601A, device id 0x5A0001, manufacturer 0x0060.
  const Bytes identity = {0xFE, 0x60, 0x1A, 0x05, 0x07, 0x02, 0x03, 0x21, 0x00, 0x5A, 0x00,
                          0x01, 0x05, 0x03, 0x00, 0x00, 0x00, 0x00, 0x60, 0x00, 0x60, 0x01};
  const std::optional<Identity> id = DecodeIdentity(identity);
  ASSERT_TRUE(id);
  EXPECT_EQ(id->manufacturer, 0x60u);
  EXPECT_EQ(id->device_type, 0x601A);
  EXPECT_EQ(id->device_id, 0x5A0001u);
  EXPECT_EQ(id->universal_revision, 7u);
  EXPECT_EQ(id->device_revision, 2u);
  EXPECT_EQ(id->software_revision, 3u);
  EXPECT_EQ(id->hardware_revision, 4u);
  EXPECT_EQ(LongAddressText(id->long_address), "201A5A0001");
  // An older device names its manufacturer in byte 1.
  const std::optional<Identity> old = DecodeIdentity(Bytes(identity.begin(), identity.begin() + 12));
  ASSERT_TRUE(old);
  EXPECT_EQ(old->manufacturer, 0x60u);

  Bytes tag_reply = PackedTag("TT-101");
  CString descriptor("LOOP ONE        ");
  tag_reply.resize(18);
  PutPackedASCII(descriptor, tag_reply.data(), 6, 12);
  tag_reply.insert(tag_reply.end(), {24, 12, 125});
  const std::optional<TagInfo> tag = DecodeTag(tag_reply);
  ASSERT_TRUE(tag);
  EXPECT_EQ(tag->tag, "TT-101");
  EXPECT_EQ(tag->descriptor, "LOOP ONE");
  EXPECT_EQ(tag->year, 2025u);
  EXPECT_EQ(tag->month, 12u);
  EXPECT_EQ(tag->day, 24u);

  const Bytes vars = {0x41, 0x80, 0x00, 0x00, 12, 0x42, 0xC8, 0x00, 0x00, 32, 0x41, 0xA0, 0x00, 0x00};
  const std::optional<DynamicVariables> dynamic = DecodeDynamicVariables(vars);
  ASSERT_TRUE(dynamic);
  EXPECT_FLOAT_EQ(dynamic->loop_current_ma, 16.0f);
  ASSERT_EQ(dynamic->variables.size(), 2u);  // a variable is there only when all its 5 bytes are
  EXPECT_EQ(dynamic->variables[1].name, "SV");
  EXPECT_FLOAT_EQ(dynamic->variables[1].value, 20.0f);
  EXPECT_EQ(dynamic->variables[1].unit_name, "\xC2\xB0" "C");

  EXPECT_FALSE(DecodeIdentity(Bytes(11, 0)));
  EXPECT_FALSE(DecodeTag(Bytes(20, 0)));
  EXPECT_FALSE(DecodeDynamicVariables(Bytes(8, 0)));
  EXPECT_FALSE(DecodePrimaryVariable(Bytes(4, 0)));
  EXPECT_FALSE(DecodeCurrentAndPercent(Bytes(7, 0)));

  std::array<uint8_t, 5> address{};
  EXPECT_TRUE(ParseLongAddress("26 1a:5a-00 01", address));
  EXPECT_EQ(LongAddressText(address), "261A5A0001");
  EXPECT_FALSE(ParseLongAddress("261A5A00", address));
  EXPECT_FALSE(ParseLongAddress("261A5A0001x", address));
}

}  // namespace
}  // namespace velmora::tool
