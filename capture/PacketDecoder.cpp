#include "capture/PacketDecoder.h"

#include <array>
#include <cstring>

namespace pelka {

namespace {

constexpr uint16_t kEtherIpv4 = 0x0800;
constexpr uint16_t kEtherIpv6 = 0x86DD;
constexpr unsigned kMaxExtensionHeaders = 16;
constexpr uint8_t kIpProtoTcp = 6;

uint16_t ReadU16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

uint32_t ReadU32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

bool IsVlanTag(uint16_t ethertype) {
  return ethertype == 0x8100 || ethertype == 0x88A8 || ethertype == 0x9100 || ethertype == 0x9200;
}

// The captured bytes of one frame. Below, `end` is where the IP header says
// the packet ends and `captured_end` where the capture stops (never beyond
// either `end` or the frame).
struct Span {
  const uint8_t* frame;
  size_t length;
};

// A header of `need` bytes at `pos` that does not fit: beyond what the packet
// announces is a lie, beyond what was captured is a cut.
DecodeStatus MissingBytes(size_t pos, size_t need, size_t end) {
  return pos + need > end ? DecodeStatus::kMalformed : DecodeStatus::kTruncated;
}

DecodeStatus DecodeTcp(Span f, size_t pos, size_t end, size_t captured_end, DecodedPacket* out) {
  if (pos + 20 > captured_end) return MissingBytes(pos, 20, end);
  const uint8_t* tcp = f.frame + pos;
  const size_t header_length = size_t{static_cast<uint8_t>(tcp[12] >> 4)} * 4;
  if (header_length < 20) return DecodeStatus::kMalformed;
  if (pos + header_length > captured_end) return MissingBytes(pos, header_length, end);

  out->source_port = ReadU16(tcp);
  out->destination_port = ReadU16(tcp + 2);
  out->sequence = ReadU32(tcp + 4);
  out->acknowledgement = ReadU32(tcp + 8);
  out->tcp_flags = tcp[13];
  out->tcp_offset = static_cast<uint32_t>(pos);
  out->payload_offset = static_cast<uint32_t>(pos + header_length);
  out->payload = f.frame + out->payload_offset;
  out->payload_length = static_cast<uint32_t>(captured_end - out->payload_offset);
  out->segment_length = static_cast<uint32_t>(end - out->payload_offset);
  return DecodeStatus::kTcp;
}

// The address's length is fixed per version, so that the copy and the zeros
// behind it are a few stores rather than two library calls per address.
template <size_t kCount>
void SetAddress(IpAddress* address, uint8_t version, const uint8_t* bytes) {
  static_assert(kCount <= sizeof address->bytes);
  std::array<uint8_t, sizeof address->bytes> value{};
  std::memcpy(value.data(), bytes, kCount);
  address->version = version;
  address->bytes = value;
}

DecodeStatus DecodeIpv4(Span f, size_t pos, DecodedPacket* out) {
  if (pos + 20 > f.length) return DecodeStatus::kTruncated;
  const uint8_t* ip = f.frame + pos;
  if ((ip[0] >> 4) != 4) return DecodeStatus::kMalformed;
  const size_t header_length = size_t{static_cast<uint8_t>(ip[0] & 0x0F)} * 4;
  if (header_length < 20) return DecodeStatus::kMalformed;
  const size_t total_length = ReadU16(ip + 2);
  // A zero total length comes from segmentation offload on the capturing
  // host: the frame itself is the packet.
  const size_t end = total_length == 0 ? f.length : pos + total_length;
  if (total_length != 0 && total_length < header_length) return DecodeStatus::kMalformed;
  if (pos + header_length > f.length) return DecodeStatus::kTruncated;

  const uint16_t fragment = ReadU16(ip + 6);
  if ((fragment & 0x3FFF) != 0) return DecodeStatus::kFragment;  // more-fragments bit or an offset
  if (ip[9] != kIpProtoTcp) return DecodeStatus::kNotTcp;

  out->network_offset = static_cast<uint32_t>(pos);
  SetAddress<4>(&out->source, 4, ip + 12);
  SetAddress<4>(&out->destination, 4, ip + 16);
  const size_t captured_end = end < f.length ? end : f.length;  // drops link-layer padding
  return DecodeTcp(f, pos + header_length, end, captured_end, out);
}

DecodeStatus DecodeIpv6(Span f, size_t pos, DecodedPacket* out) {
  if (pos + 40 > f.length) return DecodeStatus::kTruncated;
  const uint8_t* ip = f.frame + pos;
  if ((ip[0] >> 4) != 6) return DecodeStatus::kMalformed;
  const size_t payload_length = ReadU16(ip + 4);
  // Zero belongs to jumbograms and offloaded segments: take the frame's end.
  const size_t end = payload_length == 0 ? f.length : pos + 40 + payload_length;
  const size_t captured_end = end < f.length ? end : f.length;

  out->network_offset = static_cast<uint32_t>(pos);
  SetAddress<16>(&out->source, 6, ip + 8);
  SetAddress<16>(&out->destination, 6, ip + 24);

  uint8_t next = ip[6];
  size_t cursor = pos + 40;
  for (unsigned i = 0; i <= kMaxExtensionHeaders; ++i) {
    switch (next) {
      case kIpProtoTcp:
        return DecodeTcp(f, cursor, end, captured_end, out);
      case 0:    // hop-by-hop options
      case 43:   // routing
      case 60:   // destination options
      case 135:  // mobility
      case 139:  // host identity
      case 140: {  // shim6
        if (cursor + 2 > captured_end) return MissingBytes(cursor, 2, end);
        const size_t length = (size_t{f.frame[cursor + 1]} + 1) * 8;
        if (cursor + length > captured_end) return MissingBytes(cursor, length, end);
        next = f.frame[cursor];
        cursor += length;
        break;
      }
      case 51: {  // authentication header counts in 4-byte units
        if (cursor + 2 > captured_end) return MissingBytes(cursor, 2, end);
        const size_t length = (size_t{f.frame[cursor + 1]} + 2) * 4;
        if (cursor + length > captured_end) return MissingBytes(cursor, length, end);
        next = f.frame[cursor];
        cursor += length;
        break;
      }
      case 44: {  // fragment header; only an atomic fragment is a whole packet
        if (cursor + 8 > captured_end) return MissingBytes(cursor, 8, end);
        if ((ReadU16(f.frame + cursor + 2) & 0xFFF9) != 0) return DecodeStatus::kFragment;
        next = f.frame[cursor];
        cursor += 8;
        break;
      }
      default:
        return DecodeStatus::kNotTcp;
    }
  }
  return DecodeStatus::kMalformed;  // a chain this long is not a real packet
}

DecodeStatus DecodeByVersion(Span f, size_t pos, DecodedPacket* out) {
  if (pos >= f.length) return DecodeStatus::kTruncated;
  switch (f.frame[pos] >> 4) {
    case 4:
      return DecodeIpv4(f, pos, out);
    case 6:
      return DecodeIpv6(f, pos, out);
    default:
      return DecodeStatus::kNotTcp;
  }
}

// Follows VLAN tags from the ethertype at `type_pos` to the network layer.
DecodeStatus DecodeEthertype(Span f, size_t type_pos, DecodedPacket* out) {
  if (type_pos + 2 > f.length) return DecodeStatus::kTruncated;
  uint16_t type = ReadU16(f.frame + type_pos);
  size_t pos = type_pos + 2;
  // Any number of tags: each takes four bytes of the frame, which bounds them.
  while (IsVlanTag(type)) {
    if (pos + 4 > f.length) return DecodeStatus::kTruncated;
    type = ReadU16(f.frame + pos + 2);
    pos += 4;
  }
  if (type == kEtherIpv4) return DecodeIpv4(f, pos, out);
  if (type == kEtherIpv6) return DecodeIpv6(f, pos, out);
  return DecodeStatus::kNotTcp;
}

DecodeStatus DecodeEthernet(Span f, DecodedPacket* out) {
  if (f.length < 14) return DecodeStatus::kTruncated;
  out->has_source_mac = true;
  out->has_destination_mac = true;
  std::memcpy(out->destination_mac.data(), f.frame, 6);
  std::memcpy(out->source_mac.data(), f.frame + 6, 6);
  return DecodeEthertype(f, 12, out);
}

void SetCookedSender(const uint8_t* address, size_t address_length, DecodedPacket* out) {
  if (address_length != 6) return;
  out->has_source_mac = true;
  std::memcpy(out->source_mac.data(), address, 6);
}

DecodeStatus DecodeSll(Span f, DecodedPacket* out) {
  if (f.length < 16) return DecodeStatus::kTruncated;
  SetCookedSender(f.frame + 6, ReadU16(f.frame + 4), out);
  return DecodeEthertype(f, 14, out);
}

DecodeStatus DecodeSll2(Span f, DecodedPacket* out) {
  if (f.length < 20) return DecodeStatus::kTruncated;
  SetCookedSender(f.frame + 12, f.frame[11], out);
  const uint16_t type = ReadU16(f.frame);
  if (type == kEtherIpv4) return DecodeIpv4(f, 20, out);
  if (type == kEtherIpv6) return DecodeIpv6(f, 20, out);
  return DecodeStatus::kNotTcp;
}

bool IsInet6Family(uint32_t family) {
  // Linux, the BSDs and macOS number AF_INET6 differently.
  return family == 10 || family == 24 || family == 28 || family == 30;
}

// The family word is in the capturing machine's byte order for null captures
// and in network order for loop captures; both orders are tried.
DecodeStatus DecodeNull(Span f, DecodedPacket* out) {
  if (f.length < 4) return DecodeStatus::kTruncated;
  const uint32_t big = ReadU32(f.frame);
  const uint32_t little = (uint32_t{f.frame[3]} << 24) | (uint32_t{f.frame[2]} << 16) |
                          (uint32_t{f.frame[1]} << 8) | uint32_t{f.frame[0]};
  if (big == 2 || little == 2) return DecodeIpv4(f, 4, out);
  if (IsInet6Family(big) || IsInet6Family(little)) return DecodeIpv6(f, 4, out);
  return DecodeStatus::kNotTcp;
}

}  // namespace

uint32_t IpAddress::Ipv4HostOrder() const {
  if (version != 4) return 0;
  return ReadU32(bytes.data());
}

bool IsSupportedLinkType(int link_type) {
  // Asked of the decoder itself, so that the two never disagree.
  static constexpr uint8_t kNoBytes[1] = {};
  PacketDecoder probe;
  DecodedPacket unused;
  return probe.Decode(link_type, kNoBytes, 0, &unused) != DecodeStatus::kUnsupportedLink;
}

DecodeStatus PacketDecoder::Decode(int link_type, const uint8_t* frame, size_t length, DecodedPacket* out) {
  // A TCP segment sets every field but the link layer's, which only some
  // link types fill: those alone are cleared (clearing the whole packet was
  // a 100-byte copy per frame).
  out->has_source_mac = false;
  out->has_destination_mac = false;
  out->source_mac = {};
  out->destination_mac = {};
  const DecodeStatus status = frame == nullptr ? DecodeStatus::kTruncated : DecodeFrame(link_type, frame, length, out);
  Count(status, *out);
  return status;
}

DecodeStatus PacketDecoder::DecodeFrame(int link_type, const uint8_t* frame, size_t length, DecodedPacket* out) {
  const Span f{frame, length};
  switch (link_type) {
    case kLinkEthernet:
      return DecodeEthernet(f, out);
    case kLinkLinuxSll:
      return DecodeSll(f, out);
    case kLinkLinuxSll2:
      return DecodeSll2(f, out);
    case kLinkRaw:
    case kLinkRawOpenBsd:
    case kLinkRawLinktype:
      return DecodeByVersion(f, 0, out);
    case kLinkIpv4:
      return DecodeIpv4(f, 0, out);
    case kLinkIpv6:
      return DecodeIpv6(f, 0, out);
    case kLinkNull:
    case kLinkLoop:
      return DecodeNull(f, out);
    default:
      return DecodeStatus::kUnsupportedLink;
  }
}

void PacketDecoder::Count(DecodeStatus status, const DecodedPacket& packet) {
  ++counters_.frames;
  switch (status) {
    case DecodeStatus::kTcp:
      ++counters_.tcp;
      if (packet.PayloadCut()) ++counters_.payload_cut;
      break;
    case DecodeStatus::kNotTcp:
      ++counters_.not_tcp;
      break;
    case DecodeStatus::kFragment:
      ++counters_.fragments;
      break;
    case DecodeStatus::kTruncated:
      ++counters_.truncated;
      break;
    case DecodeStatus::kMalformed:
      ++counters_.malformed;
      break;
    case DecodeStatus::kUnsupportedLink:
      ++counters_.unsupported_link;
      break;
  }
}

}  // namespace pelka
