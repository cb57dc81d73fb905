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

}  // namespace pelka
