#include "host/PacketRecord.h"

#include <cstring>

#include "host/Types.h"

namespace pelka {
namespace {

template <typename T>
bool ReadLittleEndian(const uint8_t* data, size_t length, size_t offset, T* value) {
  if (offset > length || length - offset < sizeof(T)) return false;
  std::memcpy(value, data + offset, sizeof(T));  // the platforms served are little-endian
  return true;
}

uint16_t ReadBigEndian16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

// Where the TCP header's first four bytes lie, or null when the record's
// offsets point outside the record or the frame.
const uint8_t* LocateTcpHeader(const PacketRecord& packet) {
  const uint8_t* record = packet.record;
  const size_t length = packet.record_length;
  uint8_t count_byte = 0;
  uint32_t flags = 0;
  uint16_t variable_offset = 0;
  if (!ReadLittleEndian(record, length, kPacketLayerCountField, &count_byte) || !ReadLittleEndian(record, length, kPacketFlagsField, &flags) ||
      !ReadLittleEndian(record, length, kPacketVariableAreaField, &variable_offset)) {
    return nullptr;
  }
  const unsigned entries = count_byte & 0x0F;
  if (entries == 0) return nullptr;

  size_t variable_start = kPacketRecordFixedSize + variable_offset;
  if (flags & kPacketFlagVariableAreaShift) variable_start += kPacketVariableShift;

  const bool indirect = (flags & kPacketFlagIndirectHeaders) != 0;
  size_t table_start = variable_start + 8;
  uint64_t header_base = 0;
  if (indirect) {
    if (!ReadLittleEndian(record, length, variable_start, &header_base)) return nullptr;
  } else {
    uint16_t table_offset = 0;
    if (!ReadLittleEndian(record, length, kPacketLayerTableOffsetField, &table_offset)) return nullptr;
    table_start = variable_start + table_offset;
  }

  for (unsigned i = entries; i-- > 0;) {
    uint16_t protocol = 0;
    uint16_t header_offset = 0;
    const size_t entry = table_start + kPacketLayerEntrySize * size_t{i};
    if (!ReadLittleEndian(record, length, entry, &protocol) ||
        !ReadLittleEndian(record, length, entry + 2, &header_offset)) {
      return nullptr;
    }
    if (protocol != kProtocolTcp) continue;
    if (!indirect) {
      const size_t at = variable_start + header_offset;
      if (at > length || length - at < 4) return nullptr;
      return record + at;
    }
    // The stored address must point into the frame the host handed over.
    const auto frame_start = reinterpret_cast<uintptr_t>(packet.frame);
    if (!packet.frame || header_base < frame_start) return nullptr;
    const uint64_t at = header_base - frame_start + header_offset;
    if (at > packet.frame_length || packet.frame_length - at < 4) return nullptr;
    return packet.frame + at;
  }
  return nullptr;
}

}  // namespace

uint64_t GetPacketNumber(const PacketRecord* packet) {
  uint64_t number = 0;
  if (packet) ReadLittleEndian(packet->record, packet->record_length, kPacketNumberField, &number);
  return number;
}

uint64_t GetPacketTime(const PacketRecord* packet) {
  uint64_t time = 0;
  if (packet) ReadLittleEndian(packet->record, packet->record_length, kPacketTimeField, &time);
  return time;
}

bool FindTcpPorts(const PacketRecord* packet, uint16_t* source_port, uint16_t* destination_port) {
  if (!packet || !packet->record) return false;
  const uint8_t* tcp = LocateTcpHeader(*packet);
  if (!tcp) return false;
  *source_port = ReadBigEndian16(tcp);
  *destination_port = ReadBigEndian16(tcp + 2);
  return true;
}

}  // namespace pelka
