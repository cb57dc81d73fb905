// Builds the host packet record that goes with every delivered packet, in the
// layout host/PacketRecord.h reads.
//
// The record is self-contained: flag bit 17 stays clear and the variable area
// (right after the 32 fixed bytes) holds a copy of the frame's headers, from
// the first link-layer byte to the end of the TCP header, followed by the layer
// table on a 4-byte boundary. The table has one entry, TCP (600), whose header
// offset is the TCP header's offset in the frame. The record lives in a buffer
// that the builder reuses, so that building costs no heap allocation once the
// buffer has grown to the longest headers seen; a record stays valid until the
// next Build.
#pragma once

#include <cstdint>
#include <vector>

#include "host/PacketRecord.h"

namespace pelka {

class PacketRecordBuilder {
 public:
  PacketRecordBuilder();

  // The record of a packet whose headers are frame[0, header_length) with the
  // TCP header at tcp_offset. Headers too long for the record's 16-bit offsets
  // give a record without layers (numbers and time still set).
  const PacketRecord& Build(uint64_t packet_number, uint64_t time_us, const uint8_t* frame,
                            uint32_t header_length, uint32_t tcp_offset);

 private:
  std::vector<uint8_t> buffer_;
  PacketRecord record_;
};

}  // namespace pelka
