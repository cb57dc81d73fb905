// Builds TCP frames of every supported link type for the capture tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "capture/PacketDecoder.h"

namespace pelka::test {

using Bytes = std::vector<uint8_t>;

inline IpAddress V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  IpAddress address;
  address.version = 4;
  address.bytes[0] = a;
  address.bytes[1] = b;
  address.bytes[2] = c;
  address.bytes[3] = d;
  return address;
}

inline IpAddress V6(uint16_t last) {
  IpAddress address;
  address.version = 6;
  const uint8_t prefix[4] = {0x20, 0x01, 0x0d, 0xb8};
  for (int i = 0; i < 4; ++i) address.bytes[i] = prefix[i];
  address.bytes[14] = static_cast<uint8_t>(last >> 8);
  address.bytes[15] = static_cast<uint8_t>(last);
  return address;
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

inline void PutU16(Bytes& out, uint16_t value) {
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

inline void PutU32(Bytes& out, uint32_t value) {
  PutU16(out, static_cast<uint16_t>(value >> 16));
  PutU16(out, static_cast<uint16_t>(value));
}

inline Bytes TcpBytes(const Segment& s) {
  Bytes out;
  PutU16(out, s.source_port);
  PutU16(out, s.destination_port);
  PutU32(out, s.sequence);
  PutU32(out, s.acknowledgement);
  out.push_back(static_cast<uint8_t>(((20 + s.tcp_options.size()) / 4) << 4));
  out.push_back(s.flags);
  PutU16(out, 65535);  // window
  PutU16(out, 0);      // checksum, not checked
  PutU16(out, 0);      // urgent pointer
  out.insert(out.end(), s.tcp_options.begin(), s.tcp_options.end());
  out.insert(out.end(), s.payload.begin(), s.payload.end());
  return out;
}

// An IPv4 packet carrying the segment; `fragment` is the flags/offset word.
inline Bytes Ipv4Packet(const Segment& s, uint16_t fragment = 0x4000, uint8_t protocol = 6) {
  const Bytes tcp = TcpBytes(s);
  const size_t header = 20 + s.ip_options.size();
  Bytes out;
  out.push_back(static_cast<uint8_t>(0x40 | (header / 4)));
  out.push_back(0);
  PutU16(out, static_cast<uint16_t>(header + tcp.size()));
  PutU16(out, 1);  // identification
  PutU16(out, fragment);
  out.push_back(64);
  out.push_back(protocol);
  PutU16(out, 0);
  out.insert(out.end(), s.source.bytes.begin(), s.source.bytes.begin() + 4);
  out.insert(out.end(), s.destination.bytes.begin(), s.destination.bytes.begin() + 4);
  out.insert(out.end(), s.ip_options.begin(), s.ip_options.end());
  out.insert(out.end(), tcp.begin(), tcp.end());
  return out;
}

// An IPv6 packet; `extensions` are (next-header value, header bytes) pairs in
// order, each header's first byte rewritten to chain to the next.
struct Extension {
  uint8_t type;
  Bytes bytes;
};

inline Bytes Ipv6Packet(const Segment& s, std::vector<Extension> extensions = {}, uint8_t protocol = 6) {
  Bytes body;
  for (size_t i = 0; i < extensions.size(); ++i) {
    Bytes header = extensions[i].bytes;
    header[0] = i + 1 < extensions.size() ? extensions[i + 1].type : protocol;
    body.insert(body.end(), header.begin(), header.end());
  }
  const Bytes tcp = TcpBytes(s);
  body.insert(body.end(), tcp.begin(), tcp.end());
  Bytes out = {0x60, 0, 0, 0};
  PutU16(out, static_cast<uint16_t>(body.size()));
  out.push_back(extensions.empty() ? protocol : extensions[0].type);
  out.push_back(64);
  out.insert(out.end(), s.source.bytes.begin(), s.source.bytes.end());
  out.insert(out.end(), s.destination.bytes.begin(), s.destination.bytes.end());
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

inline Bytes IpPacket(const Segment& s) { return s.source.version == 6 ? Ipv6Packet(s) : Ipv4Packet(s); }

inline uint16_t EtherType(const Bytes& ip) { return (ip[0] >> 4) == 6 ? 0x86DD : 0x0800; }

inline Bytes Ethernet(const Bytes& ip, std::initializer_list<uint16_t> vlan_types = {}) {
  Bytes out = {0x02, 0, 0, 0, 0, 0x02, 0x02, 0, 0, 0, 0, 0x01};
  for (uint16_t type : vlan_types) {
    PutU16(out, type);
    PutU16(out, 100);  // tag control: VLAN 100
  }
  PutU16(out, EtherType(ip));
  out.insert(out.end(), ip.begin(), ip.end());
  return out;
}

inline Bytes Sll(const Bytes& ip) {
  Bytes out;
  PutU16(out, 4);  // outgoing
  PutU16(out, 1);  // ARPHRD_ETHER
  PutU16(out, 6);
  const uint8_t mac[8] = {0x02, 0, 0, 0, 0, 0x01, 0, 0};
  out.insert(out.end(), mac, mac + 8);
  PutU16(out, EtherType(ip));
  out.insert(out.end(), ip.begin(), ip.end());
  return out;
}

inline Bytes Sll2(const Bytes& ip) {
  Bytes out;
  PutU16(out, EtherType(ip));
  PutU16(out, 0);
  PutU32(out, 2);  // interface index
  PutU16(out, 1);
  out.push_back(0);
  out.push_back(6);
  const uint8_t mac[8] = {0x02, 0, 0, 0, 0, 0x01, 0, 0};
  out.insert(out.end(), mac, mac + 8);
  out.insert(out.end(), ip.begin(), ip.end());
  return out;
}

// Null link header with the address family in little-endian order (as written
// on most capturing machines); loop captures use big-endian.
inline Bytes Null(const Bytes& ip, uint32_t family, bool big_endian = false) {
  Bytes out;
  for (int i = 0; i < 4; ++i) {
    const int shift = big_endian ? 24 - 8 * i : 8 * i;
    out.push_back(static_cast<uint8_t>(family >> shift));
  }
  out.insert(out.end(), ip.begin(), ip.end());
  return out;
}

}  // namespace pelka::test
