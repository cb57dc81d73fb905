#include "capture/PacketDecoder.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "FrameBuilder.h"

namespace pelka {
namespace {

using test::Bytes;
using test::Segment;

Segment Smtp(std::string payload = "HELO x\r\n") {
  Segment s;
  s.payload = std::move(payload);
  return s;
}

Segment SmtpV6() {
  Segment s = Smtp();
  s.source = test::V6(1);
  s.destination = test::V6(2);
  return s;
}

Bytes With(Bytes frame, std::function<void(Bytes&)> change) {
  change(frame);
  return frame;
}

Bytes Cut(Bytes frame, size_t length) {
  frame.resize(length);
  return frame;
}

// An options header of (units + 1) x 8 bytes.
Bytes Hop(uint8_t units) {
  Bytes header((units + 1) * 8, 0);
  header[1] = units;
  return header;
}

// An authentication header of 12 bytes (its length counts 4-byte units, minus 2).
Bytes Ah() {
  Bytes header(12, 0);
  header[1] = 1;
  return header;
}

struct DecodeCase {
  const char* name;
  int link_type;
  Bytes frame;
  DecodeStatus status;
  uint32_t payload_length = 0;
  uint32_t segment_length = 0;
  uint32_t tcp_offset = 0;
};

// Addresses and MACs are checked through HostServicesTest's exact records.
std::vector<DecodeCase> Cases() {
  using test::Ethernet, test::Ipv4Packet, test::Ipv6Packet, test::Null;
  const Bytes v4 = Ipv4Packet(Smtp());
  const Bytes v6 = Ipv6Packet(SmtpV6());
  Segment with_options = Smtp();
  with_options.ip_options = Bytes(8, 1);  // NOPs
  with_options.tcp_options = {2, 4, 5, 180, 1, 1, 4, 2, 1, 1, 1, 0};
  const size_t eth = 14;
  const auto tcp = DecodeStatus::kTcp, not_tcp = DecodeStatus::kNotTcp, fragment = DecodeStatus::kFragment,
             truncated = DecodeStatus::kTruncated, malformed = DecodeStatus::kMalformed;
  const auto ipv4_patched = [&](size_t at, uint8_t value, size_t at2 = 0, uint8_t value2 = 0) {
    return With(Ethernet(v4), [=](Bytes& f) { f[eth + at] = value; if (at2) f[eth + at2] = value2; });
  };
  return {
      {"ethernet ipv4", kLinkEthernet, Ethernet(v4), tcp, 8, 8, 34},
      {"ethernet padding after payload", kLinkEthernet, With(Ethernet(v4), [](Bytes& f) { f.resize(f.size() + 6); }),
       tcp, 8, 8, 34},
      {"QinQ", kLinkEthernet, Ethernet(v4, {0x88A8, 0x8100}), tcp, 8, 8, 42},
      {"older QinQ tag types", kLinkEthernet, Ethernet(v4, {0x9100, 0x9200}), tcp, 8, 8, 42},
      {"nine VLAN tags", kLinkEthernet, Ethernet(v4, {0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100,
                                                      0x8100}), tcp, 8, 8, 70},
      {"VLAN tag cut", kLinkEthernet, Cut(Ethernet(v4, {0x8100}), 16), truncated},
      {"ARP", kLinkEthernet, With(Ethernet(v4), [](Bytes& f) { f[12] = 0x08; f[13] = 0x06; }), not_tcp},
      {"ethernet header cut", kLinkEthernet, Bytes(13, 0), truncated},
      {"empty frame", kLinkEthernet, Bytes{}, truncated},
      {"ipv4 and tcp options", kLinkEthernet, Ethernet(Ipv4Packet(with_options)), tcp, 8, 8, 42},
      {"udp", kLinkEthernet, Ethernet(Ipv4Packet(Smtp(), 0x4000, 17)), not_tcp},
      {"more fragments", kLinkEthernet, Ethernet(Ipv4Packet(Smtp(), 0x2000)), fragment},
      {"fragment offset", kLinkEthernet, Ethernet(Ipv4Packet(Smtp(), 0x0010)), fragment},
      {"ipv4 header length beyond frame", kLinkEthernet,
       With(Ethernet(Ipv4Packet(Smtp(""))), [&](Bytes& f) { f[eth] = 0x4F; f[eth + 3] = 100; f.resize(eth + 40); }),
       truncated},
      {"ipv4 header length below 20", kLinkEthernet, ipv4_patched(0, 0x44), malformed},
      {"ipv4 total length below header", kLinkEthernet, ipv4_patched(2, 0, 3, 12), malformed},
      {"ipv4 total length ends inside tcp header", kLinkEthernet, ipv4_patched(2, 0, 3, 30), malformed},
      {"wrong ip version", kLinkEthernet, ipv4_patched(0, 0x55), malformed},
      {"payload cut by snap length", kLinkEthernet, Cut(Ethernet(v4), 14 + 20 + 20 + 3), tcp, 3, 8, 34},
      {"snap length at tcp header end", kLinkEthernet, Cut(Ethernet(v4), 54), tcp, 0, 8, 34},
      {"tcp header cut", kLinkEthernet, Cut(Ethernet(v4), 50), truncated},
      {"tcp data offset below 5", kLinkEthernet, ipv4_patched(32, 0x40), malformed},
      {"tcp data offset beyond packet", kLinkEthernet, ipv4_patched(32, 0xF0), malformed},
      {"zero total length takes the frame", kLinkEthernet, ipv4_patched(2, 0, 3, 0), tcp, 8, 8, 34},
      {"sll", kLinkLinuxSll, test::Sll(v4), tcp, 8, 8, 36},
      {"sll cut", kLinkLinuxSll, Cut(test::Sll(v4), 15), truncated},
      {"sll2 ipv6", kLinkLinuxSll2, test::Sll2(v6), tcp, 8, 8, 60},
      {"raw ipv4", kLinkRaw, v4, tcp, 8, 8, 20},
      {"raw ipv6 (linktype 101)", kLinkRawLinktype, v6, tcp, 8, 8, 40},
      {"raw neither version", kLinkRaw, With(v4, [](Bytes& f) { f[0] = 0x15; }), not_tcp},
      {"ipv4 link type", kLinkIpv4, v4, tcp, 8, 8, 20},
      {"ipv6 link type", kLinkIpv6, v6, tcp, 8, 8, 40},
      {"null little-endian inet", kLinkNull, Null(v4, 2), tcp, 8, 8, 24},
      {"null big-endian inet", kLinkNull, Null(v4, 2, true), tcp, 8, 8, 24},
      {"null inet6 of macOS", kLinkNull, Null(v6, 30), tcp, 8, 8, 44},
      {"null inet6 of Linux", kLinkNull, Null(v6, 10), tcp, 8, 8, 44},
      {"loop inet", kLinkLoop, Null(v4, 2, true), tcp, 8, 8, 24},
      {"null other family", kLinkNull, Null(v4, 7), not_tcp},
      {"null cut", kLinkNull, Bytes{2, 0, 0}, truncated},
      {"ipv6 over ethernet", kLinkEthernet, Ethernet(v6), tcp, 8, 8, 54},
      {"ipv6 extension chain", kLinkRaw, Ipv6Packet(SmtpV6(), {{0, Hop(0)}, {60, Hop(1)}, {51, Ah()}}), tcp, 8, 8, 76},
      {"ipv6 atomic fragment", kLinkRaw, Ipv6Packet(SmtpV6(), {{44, Bytes(8, 0)}}), tcp, 8, 8, 48},
      {"ipv6 fragment", kLinkRaw, With(Ipv6Packet(SmtpV6(), {{44, Bytes(8, 0)}}), [](Bytes& f) { f[43] = 1; }),
       fragment},
      {"ipv6 no next header", kLinkRaw, Ipv6Packet(SmtpV6(), {}, 59), not_tcp},
      {"ipv6 extension length beyond packet", kLinkRaw,
       With(Ipv6Packet(SmtpV6(), {{0, Hop(0)}}), [](Bytes& f) { f[41] = 40; }), malformed},
      {"ipv6 extension cut", kLinkRaw, Cut(Ipv6Packet(SmtpV6(), {{0, Hop(2)}}), 50), truncated},
      {"ipv6 payload length beyond frame", kLinkRaw, With(v6, [](Bytes& f) { f[4] = 0x10; f[5] = 0x14; }), tcp, 8,
       0x1000, 40},
      {"ipv6 header cut", kLinkRaw, Cut(v6, 39), truncated},
      {"unknown link type", 147, v4, DecodeStatus::kUnsupportedLink},
  };
}

// Each frame lives in a heap buffer of exactly its size, so that a read past
// it is caught by the address sanitizer. The last frame's buffer stays alive
// for the payload pointer.
DecodeStatus DecodeExact(PacketDecoder& decoder, int link_type, const Bytes& frame, DecodedPacket* out) {
  static std::unique_ptr<uint8_t[]> copy;
  copy = std::make_unique<uint8_t[]>(frame.size());
  std::copy(frame.begin(), frame.end(), copy.get());
  return decoder.Decode(link_type, frame.empty() ? nullptr : copy.get(), frame.size(), out);
}

// Frames cut anywhere are left to the cut rows and fuzz/capture_decoder.cpp;
// the counters behind the run's warnings are MalformedCaptureTest's.
TEST(PacketDecoderTest, DecodesEachLinkTypeAndRejectsLyingHeaders) {
  PacketDecoder decoder;
  // One packet for all rows, as the reading loop reuses it: nothing of one
  // link type's frame may stay for the next.
  DecodedPacket packet;
  for (const DecodeCase& c : Cases()) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(DecodeExact(decoder, c.link_type, c.frame, &packet), c.status);
    if (c.status != DecodeStatus::kTcp) continue;
    EXPECT_EQ(packet.has_destination_mac, c.link_type == kLinkEthernet);
    EXPECT_EQ(packet.payload_length, c.payload_length);
    EXPECT_EQ(packet.segment_length, c.segment_length);
    EXPECT_EQ(packet.tcp_offset, c.tcp_offset);
    EXPECT_EQ(packet.source_port, 40000);
    EXPECT_EQ(packet.destination_port, 25);
    EXPECT_EQ(packet.sequence, 1000u);
    EXPECT_LE(packet.payload_offset + packet.payload_length, c.frame.size());
    if (packet.payload_length == 8) {
      EXPECT_EQ(std::string(packet.payload, packet.payload + 8), "HELO x\r\n");
    }
  }
}

}  // namespace
}  // namespace pelka
