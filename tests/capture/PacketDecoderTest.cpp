#include "capture/PacketDecoder.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
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

std::vector<DecodeCase> Cases() {
  const Bytes v4 = test::Ipv4Packet(Smtp());
  const Bytes v6 = test::Ipv6Packet(SmtpV6());
  Segment with_options = Smtp();
  with_options.ip_options = Bytes(8, 1);  // NOPs
  with_options.tcp_options = {2, 4, 5, 180, 1, 1, 4, 2, 1, 1, 1, 0};
  const size_t eth = 14;
  return {
      {"ethernet ipv4", kLinkEthernet, test::Ethernet(v4), DecodeStatus::kTcp, 8, 8, 34},
      {"ethernet padding is not payload", kLinkEthernet,
       test::Ethernet(test::Ipv4Packet(Smtp(""))), DecodeStatus::kTcp, 0, 0, 34},
      {"ethernet padding after payload", kLinkEthernet,
       With(test::Ethernet(v4), [](Bytes& f) { f.resize(f.size() + 6, 0); }), DecodeStatus::kTcp, 8, 8, 34},
      {"802.1Q", kLinkEthernet, test::Ethernet(v4, {0x8100}), DecodeStatus::kTcp, 8, 8, 38},
      {"QinQ", kLinkEthernet, test::Ethernet(v4, {0x88A8, 0x8100}), DecodeStatus::kTcp, 8, 8, 42},
      {"nine VLAN tags", kLinkEthernet,
       test::Ethernet(v4, {0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100, 0x8100}),
       DecodeStatus::kMalformed},
      {"VLAN tag cut", kLinkEthernet, Cut(test::Ethernet(v4, {0x8100}), 16), DecodeStatus::kTruncated},
      {"ARP", kLinkEthernet, With(test::Ethernet(v4), [](Bytes& f) { f[12] = 0x08; f[13] = 0x06; }),
       DecodeStatus::kNotTcp},
      {"ethernet header cut", kLinkEthernet, Bytes(13, 0), DecodeStatus::kTruncated},
      {"empty frame", kLinkEthernet, Bytes{}, DecodeStatus::kTruncated},
      {"ipv4 and tcp options", kLinkEthernet, test::Ethernet(test::Ipv4Packet(with_options)), DecodeStatus::kTcp, 8,
       8, 42},
      {"udp", kLinkEthernet, test::Ethernet(test::Ipv4Packet(Smtp(), 0x4000, 17)), DecodeStatus::kNotTcp},
      {"more fragments", kLinkEthernet, test::Ethernet(test::Ipv4Packet(Smtp(), 0x2000)), DecodeStatus::kFragment},
      {"fragment offset", kLinkEthernet, test::Ethernet(test::Ipv4Packet(Smtp(), 0x0010)), DecodeStatus::kFragment},
      {"ipv4 header length beyond frame", kLinkEthernet,
       With(test::Ethernet(test::Ipv4Packet(Smtp(""))), [&](Bytes& f) { f[eth] = 0x4F; f[eth + 3] = 100; f.resize(eth + 40); }),
       DecodeStatus::kTruncated},
      {"ipv4 header length below 20", kLinkEthernet, With(test::Ethernet(v4), [&](Bytes& f) { f[eth] = 0x44; }),
       DecodeStatus::kMalformed},
      {"ipv4 total length below header", kLinkEthernet,
       With(test::Ethernet(v4), [&](Bytes& f) { f[eth + 2] = 0; f[eth + 3] = 12; }), DecodeStatus::kMalformed},
      {"ipv4 total length ends inside tcp header", kLinkEthernet,
       With(test::Ethernet(v4), [&](Bytes& f) { f[eth + 2] = 0; f[eth + 3] = 30; }), DecodeStatus::kMalformed},
      {"wrong ip version", kLinkEthernet, With(test::Ethernet(v4), [&](Bytes& f) { f[eth] = 0x55; }),
       DecodeStatus::kMalformed},
      {"payload cut by snap length", kLinkEthernet, Cut(test::Ethernet(v4), 14 + 20 + 20 + 3), DecodeStatus::kTcp, 3,
       8, 34},
      {"snap length at tcp header end", kLinkEthernet, Cut(test::Ethernet(v4), 54), DecodeStatus::kTcp, 0, 8, 34},
      {"tcp header cut", kLinkEthernet, Cut(test::Ethernet(v4), 50), DecodeStatus::kTruncated},
      {"tcp data offset below 5", kLinkEthernet, With(test::Ethernet(v4), [](Bytes& f) { f[46] = 0x40; }),
       DecodeStatus::kMalformed},
      {"tcp data offset beyond packet", kLinkEthernet, With(test::Ethernet(v4), [](Bytes& f) { f[46] = 0xF0; }),
       DecodeStatus::kMalformed},
      {"zero total length takes the frame", kLinkEthernet,
       With(test::Ethernet(v4), [&](Bytes& f) { f[eth + 2] = 0; f[eth + 3] = 0; }), DecodeStatus::kTcp, 8, 8, 34},
      {"sll", kLinkLinuxSll, test::Sll(v4), DecodeStatus::kTcp, 8, 8, 36},
      {"sll cut", kLinkLinuxSll, Cut(test::Sll(v4), 15), DecodeStatus::kTruncated},
      {"sll2", kLinkLinuxSll2, test::Sll2(v4), DecodeStatus::kTcp, 8, 8, 40},
      {"sll2 ipv6", kLinkLinuxSll2, test::Sll2(v6), DecodeStatus::kTcp, 8, 8, 60},
      {"raw ipv4", kLinkRaw, v4, DecodeStatus::kTcp, 8, 8, 20},
      {"raw ipv6 (linktype 101)", kLinkRawLinktype, v6, DecodeStatus::kTcp, 8, 8, 40},
      {"raw neither version", kLinkRaw, With(v4, [](Bytes& f) { f[0] = 0x15; }), DecodeStatus::kNotTcp},
      {"ipv4 link type", kLinkIpv4, v4, DecodeStatus::kTcp, 8, 8, 20},
      {"ipv6 link type", kLinkIpv6, v6, DecodeStatus::kTcp, 8, 8, 40},
      {"null little-endian inet", kLinkNull, test::Null(v4, 2), DecodeStatus::kTcp, 8, 8, 24},
      {"null big-endian inet", kLinkNull, test::Null(v4, 2, true), DecodeStatus::kTcp, 8, 8, 24},
      {"null inet6 of macOS", kLinkNull, test::Null(v6, 30), DecodeStatus::kTcp, 8, 8, 44},
      {"null inet6 of Linux", kLinkNull, test::Null(v6, 10), DecodeStatus::kTcp, 8, 8, 44},
      {"loop inet", kLinkLoop, test::Null(v4, 2, true), DecodeStatus::kTcp, 8, 8, 24},
      {"null other family", kLinkNull, test::Null(v4, 7), DecodeStatus::kNotTcp},
      {"null cut", kLinkNull, Bytes{2, 0, 0}, DecodeStatus::kTruncated},
      {"ipv6 over ethernet", kLinkEthernet, test::Ethernet(v6), DecodeStatus::kTcp, 8, 8, 54},
      {"ipv6 extension chain", kLinkRaw, test::Ipv6Packet(SmtpV6(), {{0, Hop(0)}, {60, Hop(1)}, {51, Ah()}}),
       DecodeStatus::kTcp, 8, 8, 40 + 8 + 16 + 12},
      {"ipv6 atomic fragment", kLinkRaw, test::Ipv6Packet(SmtpV6(), {{44, Bytes(8, 0)}}), DecodeStatus::kTcp, 8, 8, 48},
      {"ipv6 fragment", kLinkRaw,
       With(test::Ipv6Packet(SmtpV6(), {{44, Bytes(8, 0)}}), [](Bytes& f) { f[43] = 1; }), DecodeStatus::kFragment},
      {"ipv6 no next header", kLinkRaw, test::Ipv6Packet(SmtpV6(), {}, 59), DecodeStatus::kNotTcp},
      {"ipv6 extension length beyond packet", kLinkRaw,
       With(test::Ipv6Packet(SmtpV6(), {{0, Hop(0)}}), [](Bytes& f) { f[41] = 40; }), DecodeStatus::kMalformed},
      {"ipv6 extension cut", kLinkRaw,
       Cut(test::Ipv6Packet(SmtpV6(), {{0, Hop(2)}}), 50), DecodeStatus::kTruncated},
      {"ipv6 payload length beyond frame", kLinkRaw,
       With(v6, [](Bytes& f) { f[4] = 0x10; f[5] = 0x14; }), DecodeStatus::kTcp, 8, 0x1000, 40},
      {"ipv6 header cut", kLinkRaw, Cut(v6, 39), DecodeStatus::kTruncated},
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

// One decoder reads every case, so its counters must add up to the table's.
TEST(PacketDecoderTest, DecodesEachLinkTypeRejectsLyingHeadersAndCountsByReason) {
  PacketDecoder decoder;
  std::map<DecodeStatus, uint64_t> statuses;
  uint64_t payload_cut = 0;
  for (const DecodeCase& c : Cases()) {
    SCOPED_TRACE(c.name);
    DecodedPacket packet;
    ++statuses[c.status];
    ASSERT_EQ(DecodeExact(decoder, c.link_type, c.frame, &packet), c.status);
    if (c.status != DecodeStatus::kTcp) continue;
    payload_cut += c.payload_length < c.segment_length;
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
  const DecoderCounters& counters = decoder.counters();
  EXPECT_EQ(counters.frames, Cases().size());
  EXPECT_EQ(counters.tcp, statuses[DecodeStatus::kTcp]);
  EXPECT_EQ(counters.not_tcp, statuses[DecodeStatus::kNotTcp]);
  EXPECT_EQ(counters.fragments, statuses[DecodeStatus::kFragment]);
  EXPECT_EQ(counters.truncated, statuses[DecodeStatus::kTruncated]);
  EXPECT_EQ(counters.malformed, statuses[DecodeStatus::kMalformed]);
  EXPECT_EQ(counters.unsupported_link, statuses[DecodeStatus::kUnsupportedLink]);
  EXPECT_EQ(counters.payload_cut, payload_cut);
}

TEST(PacketDecoderTest, ReadsAddressesMacsAndFlags) {
  Segment s = Smtp();
  s.flags = kTcpSyn | kTcpAck;
  s.acknowledgement = 77;
  PacketDecoder decoder;
  DecodedPacket packet;
  ASSERT_EQ(DecodeExact(decoder, kLinkEthernet, test::Ethernet(test::Ipv4Packet(s)), &packet), DecodeStatus::kTcp);
  EXPECT_EQ(packet.source, test::V4(10, 0, 0, 1));
  EXPECT_EQ(packet.destination.Ipv4HostOrder(), 0x0A000002u);
  EXPECT_EQ(packet.acknowledgement, 77u);
  EXPECT_TRUE(packet.HasFlag(kTcpSyn));
  EXPECT_FALSE(packet.HasFlag(kTcpFin));
  EXPECT_TRUE(packet.has_source_mac && packet.has_destination_mac);
  EXPECT_EQ(packet.source_mac[5], 0x01);
  EXPECT_EQ(packet.destination_mac[5], 0x02);

  ASSERT_EQ(DecodeExact(decoder, kLinkLinuxSll, test::Sll(test::Ipv6Packet(SmtpV6())), &packet), DecodeStatus::kTcp);
  EXPECT_EQ(packet.source, test::V6(1));
  EXPECT_EQ(packet.source.Ipv4HostOrder(), 0u);
  EXPECT_TRUE(packet.has_source_mac);
  EXPECT_FALSE(packet.has_destination_mac);
}

TEST(PacketDecoderTest, EveryPrefixOfAFrameDecodesWithinItsBytes) {
  const std::vector<std::pair<int, Bytes>> frames = {
      {kLinkEthernet, test::Ethernet(test::Ipv4Packet(Smtp()), {0x8100})},
      {kLinkLinuxSll2, test::Sll2(test::Ipv6Packet(SmtpV6(), {{0, Hop(1)}, {44, Bytes(8, 0)}}))},
      {kLinkNull, test::Null(test::Ipv4Packet(Smtp()), 2)},
  };
  for (const auto& [link_type, frame] : frames) {
    PacketDecoder decoder;
    for (size_t length = 0; length <= frame.size(); ++length) {
      DecodedPacket packet;
      if (DecodeExact(decoder, link_type, Cut(frame, length), &packet) == DecodeStatus::kTcp) {
        EXPECT_LE(packet.payload_offset + packet.payload_length, length);
      }
    }
    EXPECT_EQ(decoder.counters().frames, frame.size() + 1);
  }
}

}  // namespace
}  // namespace pelka
