// Decodes one captured frame down to its TCP segment.
//
// Link types: Ethernet (with any number of 802.1Q / 802.1ad / QinQ tags, up to
// eight), Linux cooked capture v1 and v2, raw IP (IPv4 or IPv6 by the version
// nibble), BSD null and loop (the address family in either byte order). Network
// layers: IPv4 with options, IPv6 with its extension headers. Transport: TCP
// with options (the data offset decides where the payload starts).
//
// The decoder never reads past the captured bytes it is given. Frames it cannot
// use are counted by reason and skipped. A segment whose payload the snap length
// cut short is still decoded: the payload is what was captured, and
// `segment_length` keeps the length the IP header announces, so that the flow
// tracker can account the missing bytes as lost.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace pelka {

// Link types as libpcap reports them (DLT values).
enum : int {
  kLinkNull = 0,
  kLinkEthernet = 1,
  kLinkRaw = 12,
  kLinkRawOpenBsd = 14,
  kLinkRawLinktype = 101,
  kLinkLoop = 108,
  kLinkLinuxSll = 113,
  kLinkIpv4 = 228,
  kLinkIpv6 = 229,
  kLinkLinuxSll2 = 276,
};

// An IPv4 or IPv6 address. IPv4 addresses use the first four bytes in network
// order; the rest stays zero, so that two addresses compare by their bytes.
struct IpAddress {
  uint8_t version = 0;  // 4 or 6
  std::array<uint8_t, 16> bytes{};

  // The IPv4 address as a number in host byte order; 0 for IPv6.
  uint32_t Ipv4HostOrder() const;

  // Compared as two 64-bit words: connections are looked up by their
  // addresses for every packet, and a byte-wise comparison is a library call.
  friend bool operator==(const IpAddress& a, const IpAddress& b) {
    uint64_t x[2];
    uint64_t y[2];
    std::memcpy(x, a.bytes.data(), sizeof x);
    std::memcpy(y, b.bytes.data(), sizeof y);
    return ((x[0] ^ y[0]) | (x[1] ^ y[1])) == 0 && a.version == b.version;
  }
};

enum : uint8_t {
  kTcpFin = 0x01,
  kTcpSyn = 0x02,
  kTcpRst = 0x04,
  kTcpPsh = 0x08,
  kTcpAck = 0x10,
};

// What a frame decodes to. Pointers point into the frame given to Decode.
struct DecodedPacket {
  IpAddress source;
  IpAddress destination;
  uint16_t source_port = 0;
  uint16_t destination_port = 0;
  uint32_t sequence = 0;
  uint32_t acknowledgement = 0;
  uint8_t tcp_flags = 0;

  bool has_source_mac = false;       // Ethernet and cooked captures
  bool has_destination_mac = false;  // Ethernet only
  std::array<uint8_t, 6> source_mac{};
  std::array<uint8_t, 6> destination_mac{};

  uint32_t network_offset = 0;  // first byte of the IP header in the frame
  uint32_t tcp_offset = 0;      // first byte of the TCP header in the frame
  uint32_t payload_offset = 0;  // first payload byte (= end of the TCP header)
  const uint8_t* payload = nullptr;
  uint32_t payload_length = 0;  // captured payload bytes
  uint32_t segment_length = 0;  // payload bytes the IP header announces (>= payload_length)

  bool HasFlag(uint8_t flag) const { return (tcp_flags & flag) != 0; }
  bool PayloadCut() const { return payload_length < segment_length; }
};

enum class DecodeStatus {
  kTcp,            // a TCP segment; the DecodedPacket is filled
  kNotTcp,         // another network or transport protocol
  kFragment,       // an IP fragment (not reassembled)
  kTruncated,      // the headers end beyond the captured bytes
  kMalformed,      // a header contradicts itself (lengths that lie)
  kUnsupportedLink,
};

// Frames skipped and taken, by reason.
struct DecoderCounters {
  uint64_t frames = 0;
  uint64_t tcp = 0;
  uint64_t not_tcp = 0;
  uint64_t fragments = 0;
  uint64_t truncated = 0;
  uint64_t malformed = 0;
  uint64_t unsupported_link = 0;
  uint64_t payload_cut = 0;  // TCP segments whose payload the snap length shortened
};

// Whether Decode knows the link type (a DLT value, as libpcap reports it).
bool IsSupportedLinkType(int link_type);

class PacketDecoder {
 public:
  // Decodes `length` bytes at `frame` of the given link type. On kTcp, `out`
  // describes the segment; otherwise its contents are unspecified.
  DecodeStatus Decode(int link_type, const uint8_t* frame, size_t length, DecodedPacket* out);

  const DecoderCounters& counters() const { return counters_; }

 private:
  DecodeStatus DecodeFrame(int link_type, const uint8_t* frame, size_t length, DecodedPacket* out);
  void Count(DecodeStatus status, const DecodedPacket& packet);

  DecoderCounters counters_;
};

}  // namespace pelka
