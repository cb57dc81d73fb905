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

// The address folded to 64 bits with the port; cheap, and mixed well enough
// by the one Mix over both endpoints.
uint64_t EndpointWord(const IpAddress& address, uint16_t port) {
  uint64_t low = 0;
  uint64_t high = 0;
  std::memcpy(&low, address.bytes.data(), sizeof low);
  std::memcpy(&high, address.bytes.data() + sizeof low, sizeof high);
  return low ^ (high * 0x9E3779B97F4A7C15ull) ^ (uint64_t{port} << 48 | uint64_t{port} << 16);
}

}  // namespace

uint64_t ConnectionHash(const DecodedPacket& packet) {
  // Sum and product do not depend on the order of the two endpoints.
  const uint64_t a = EndpointWord(packet.source, packet.source_port);
  const uint64_t b = EndpointWord(packet.destination, packet.destination_port);
  return Mix((a + b) ^ ((a | 1) * (b | 1)));
}

unsigned WorkerOf(const DecodedPacket& packet, unsigned workers) {
  if (workers <= 1) return 0;
  return static_cast<unsigned>(ConnectionHash(packet) % workers);
}

}  // namespace pelka
