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

uint64_t EndpointHash(const IpAddress& address, uint16_t port) {
  uint64_t low = 0;
  uint64_t high = 0;
  std::memcpy(&low, address.bytes.data(), sizeof low);
  std::memcpy(&high, address.bytes.data() + sizeof low, sizeof high);
  return Mix(low ^ Mix(high ^ (uint64_t{port} << 8) ^ address.version));
}

}  // namespace

uint64_t ConnectionHash(const DecodedPacket& packet) {
  // A sum does not depend on the order of the two endpoints.
  return Mix(EndpointHash(packet.source, packet.source_port) +
             EndpointHash(packet.destination, packet.destination_port));
}

unsigned WorkerOf(const DecodedPacket& packet, unsigned workers) {
  if (workers <= 1) return 0;
  return static_cast<unsigned>(ConnectionHash(packet) % workers);
}

}  // namespace pelka
