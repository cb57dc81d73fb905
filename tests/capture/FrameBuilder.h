// Builds TCP frames of every supported link type for the capture tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "capture/PacketDecoder.h"

namespace pelka::test {

using Bytes = std::vector<uint8_t>;

inline IpAddress V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) { return {4, {a, b, c, d}}; }

// 2001:db8::<last>
inline IpAddress V6(uint16_t last) {
  return {6, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(last >> 8),
              static_cast<uint8_t>(last)}};
}

struct Segment {
  IpAddress source = V4(10, 0, 0, 1);
  IpAddress destination = V4(10, 0, 0, 2);
  uint16_t source_port = 40000;
  uint16_t destination_port = 25;
  uint32_t sequence = 1000;
  uint32_t acknowledgement = 0;
  uint8_t flags = kTcpAck;
  std::string payload;
  Bytes tcp_options;  // a multiple of 4 bytes
  Bytes ip_options;   // IPv4 only, a multiple of 4 bytes
};

inline Segment Between(IpAddress a, uint16_t a_port, IpAddress b, uint16_t b_port) {
  Segment segment;
  segment.source = a;
  segment.source_port = a_port;
  segment.destination = b;
  segment.destination_port = b_port;
  return segment;
}

inline Segment Reversed(Segment segment) {
  std::swap(segment.source, segment.destination);
  std::swap(segment.source_port, segment.destination_port);
  return segment;
}

// Appends the low `size` bytes of the value, most significant first.
inline void Put(Bytes& out, uint32_t value, int size) {
  for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

inline void Append(Bytes& out, const auto& bytes) { out.insert(out.end(), bytes.begin(), bytes.end()); }

inline Bytes TcpBytes(const Segment& s) {
  Bytes out;
  Put(out, s.source_port, 2);
  Put(out, s.destination_port, 2);
  Put(out, s.sequence, 4);
  Put(out, s.acknowledgement, 4);
  Put(out, static_cast<uint32_t>(((20 + s.tcp_options.size()) / 4) << 4), 1);
  Put(out, s.flags, 1);
  Put(out, 65535, 2);  // window
  Put(out, 0, 4);      // checksum (not checked) and urgent pointer
  Append(out, s.tcp_options);
  Append(out, s.payload);
  return out;
}

// An IPv4 packet carrying the segment; `fragment` is the flags/offset word.
inline Bytes Ipv4Packet(const Segment& s, uint16_t fragment = 0x4000, uint8_t protocol = 6) {
  const Bytes tcp = TcpBytes(s);
  const size_t header = 20 + s.ip_options.size();
  Bytes out = {static_cast<uint8_t>(0x40 | (header / 4)), 0};
  Put(out, static_cast<uint32_t>(header + tcp.size()), 2);
  Put(out, 1, 2);  // identification
  Put(out, fragment, 2);
  Put(out, 64, 1);
  Put(out, protocol, 1);
  Put(out, 0, 2);
  out.insert(out.end(), s.source.bytes.begin(), s.source.bytes.begin() + 4);
  out.insert(out.end(), s.destination.bytes.begin(), s.destination.bytes.begin() + 4);
  Append(out, s.ip_options);
  Append(out, tcp);
  return out;
}

// An IPv6 extension header: its next-header value and its bytes, the first of
// which Ipv6Packet rewrites to chain to the next.
struct Extension {
  uint8_t type;
  Bytes bytes;
};

inline Bytes Ipv6Packet(const Segment& s, std::vector<Extension> extensions = {}, uint8_t protocol = 6) {
  Bytes body;
  for (size_t i = 0; i < extensions.size(); ++i) {
    extensions[i].bytes[0] = i + 1 < extensions.size() ? extensions[i + 1].type : protocol;
    Append(body, extensions[i].bytes);
  }
  Append(body, TcpBytes(s));
  Bytes out = {0x60, 0, 0, 0};
  Put(out, static_cast<uint32_t>(body.size()), 2);
  Put(out, extensions.empty() ? protocol : extensions[0].type, 1);
  Put(out, 64, 1);
  Append(out, s.source.bytes);
  Append(out, s.destination.bytes);
  Append(out, body);
  return out;
}

inline Bytes IpPacket(const Segment& s) { return s.source.version == 6 ? Ipv6Packet(s) : Ipv4Packet(s); }

inline uint16_t EtherType(const Bytes& ip) { return (ip[0] >> 4) == 6 ? 0x86DD : 0x0800; }

inline Bytes Ethernet(const Bytes& ip, std::initializer_list<uint16_t> vlan_types = {}) {
  Bytes out = {0x02, 0, 0, 0, 0, 0x02, 0x02, 0, 0, 0, 0, 0x01};
  for (uint16_t type : vlan_types) {
    Put(out, type, 2);
    Put(out, 100, 2);  // tag control: VLAN 100
  }
  Put(out, EtherType(ip), 2);
  Append(out, ip);
  return out;
}

// Both ends of one TCP connection: each Ethernet frame sent moves its side's
// sequence number on and acknowledges what the other side sent so far.
class TcpConnection {
 public:
  TcpConnection(const Segment& client, uint32_t server_sequence) : client_(client), server_(Reversed(client)) {
    server_.sequence = server_sequence;
  }

  Bytes Send(bool from_client, uint8_t flags, const std::string& payload = "") {
    Segment& sender = from_client ? client_ : server_;
    Segment segment = sender;
    segment.flags = flags;
    segment.acknowledgement = (flags & kTcpAck) ? (from_client ? server_ : client_).sequence : 0;
    segment.payload = payload;
    sender.sequence += static_cast<uint32_t>(payload.size()) + ((flags & (kTcpSyn | kTcpFin)) ? 1 : 0);
    return Ethernet(IpPacket(segment));
  }

 private:
  Segment client_, server_;
};

// Linux cooked headers: outgoing, ARPHRD_ETHER, a 6-byte address.
inline Bytes Sll(const Bytes& ip) {
  Bytes out = {0, 4, 0, 1, 0, 6, 0x02, 0, 0, 0, 0, 0x01, 0, 0};
  Put(out, EtherType(ip), 2);
  Append(out, ip);
  return out;
}

inline Bytes Sll2(const Bytes& ip) {
  Bytes out;
  Put(out, EtherType(ip), 2);
  Append(out, Bytes{0, 0, 0, 0, 0, 2, 0, 1, 0, 6, 0x02, 0, 0, 0, 0, 0x01, 0, 0});  // interface 2
  Append(out, ip);
  return out;
}

// Null link header with the address family in little-endian order (as written
// on most capturing machines); loop captures use big-endian.
inline Bytes Null(const Bytes& ip, uint32_t family, bool big_endian = false) {
  Bytes out;
  Put(out, big_endian ? family : __builtin_bswap32(family), 4);
  Append(out, ip);
  return out;
}

}  // namespace pelka::test
