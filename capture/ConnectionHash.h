// Which worker a TCP packet belongs to when flows are spread over several.
//
// The hash covers the two addresses and ports of the connection and is the
// same for both directions, so that every packet of a connection (and of a
// later connection on the same addresses and ports) reaches the same worker.
#pragma once

#include <cstdint>

#include "capture/PacketDecoder.h"

namespace pelka {

// Equal for a packet and its reply (source and destination exchanged).
uint64_t ConnectionHash(const DecodedPacket& packet);

// The worker, from 0 to workers - 1 (0 when workers is 0).
unsigned WorkerOf(const DecodedPacket& packet, unsigned workers);

// What WorkerOfFrame answers for a frame it does not place.
constexpr unsigned kAnyWorker = ~0u;

// The worker of an untagged Ethernet frame carrying an unfragmented IPv4 TCP
// segment, read straight from the frame: the same as WorkerOf of the frame
// decoded. kAnyWorker for every other frame, and for frames too short to
// tell: those need the full decoder. Reads only the first `length` bytes.
unsigned WorkerOfFrame(int link_type, const uint8_t* frame, uint32_t length, unsigned workers);

}  // namespace pelka
