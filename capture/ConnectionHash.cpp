#include "capture/ConnectionHash.h"

#include <cstring>

namespace pelka {
namespace {

// The finaliser of SplitMix64: every input bit reaches every output bit.
uint64_t Mix(uint64_t value) {
  value ^= value >> 30;
  value *= 0xBF58476D1CE4E5B9ull;
  value ^= value >> 27;
  value *= 0x94D049BB133111EBull;
  value ^= value >> 31;
  return value;
}

// The address's 16 bytes (an IPv4 address zero-filled behind its four) as two
// words, folded with the port; cheap, and mixed well enough by the one Mix
// over both endpoints.
uint64_t EndpointWord(uint64_t low, uint64_t high, uint16_t port) {
  return low ^ (high * 0x9E3779B97F4A7C15ull) ^ (uint64_t{port} << 48 | uint64_t{port} << 16);
}

uint64_t EndpointWord(const IpAddress& address, uint16_t port) {
  uint64_t low = 0;
  uint64_t high = 0;
  std::memcpy(&low, address.bytes.data(), sizeof low);
  std::memcpy(&high, address.bytes.data() + sizeof low, sizeof high);
  return EndpointWord(low, high, port);
}

uint64_t Ipv4EndpointWord(const uint8_t* address, const uint8_t* port) {
  uint8_t bytes[8] = {};
  std::memcpy(bytes, address, 4);
  uint64_t low = 0;
  std::memcpy(&low, bytes, sizeof low);
  return EndpointWord(low, 0, static_cast<uint16_t>(port[0] << 8 | port[1]));
}

// Sum and product do not depend on the order of the two endpoints.
uint64_t Combine(uint64_t a, uint64_t b) { return Mix((a + b) ^ ((a | 1) * (b | 1))); }

}  // namespace

uint64_t ConnectionHash(const DecodedPacket& packet) {
  return Combine(EndpointWord(packet.source, packet.source_port),
                 EndpointWord(packet.destination, packet.destination_port));
}

unsigned WorkerOf(const DecodedPacket& packet, unsigned workers) {
  if (workers <= 1) return 0;
  return static_cast<unsigned>(ConnectionHash(packet) % workers);
}

unsigned WorkerOfFrame(int link_type, const uint8_t* frame, uint32_t length, unsigned workers) {
  constexpr uint32_t kEthernetHeader = 14;
  constexpr uint32_t kMinimalIpv4Header = 20;
  constexpr uint8_t kTcp = 6;
  if (workers <= 1) return 0;
  if (link_type != kLinkEthernet || length < kEthernetHeader + kMinimalIpv4Header) return kAnyWorker;
  if (frame[12] != 0x08 || frame[13] != 0x00) return kAnyWorker;  // IPv4 without a VLAN tag
  const uint8_t* ip = frame + kEthernetHeader;
  const uint32_t header_length = (ip[0] & 0x0Fu) * 4;
  if ((ip[0] >> 4) != 4 || header_length < kMinimalIpv4Header || ip[9] != kTcp) return kAnyWorker;
  if ((ip[6] & 0x3F) != 0 || ip[7] != 0) return kAnyWorker;  // a fragment
  if (kEthernetHeader + header_length + 4 > length) return kAnyWorker;
  const uint8_t* ports = ip + header_length;
  const uint64_t hash = Combine(Ipv4EndpointWord(ip + 12, ports), Ipv4EndpointWord(ip + 16, ports + 2));
  return static_cast<unsigned>(hash % workers);
}

}  // namespace pelka
