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

template <typename T>
T ReadAt(const uint8_t* data, size_t offset) {
  T value;
  std::memcpy(&value, data + offset, sizeof(T));  // the platforms served are little-endian
  return value;
}

// The fixed fields read below all lie in the record's first this many bytes.
constexpr size_t kFixedFieldsEnd = kPacketVariableAreaField + sizeof(uint16_t);
static_assert(kPacketLayerTableOffsetField + sizeof(uint16_t) <= kFixedFieldsEnd &&
              kPacketLayerCountField < kFixedFieldsEnd && kPacketFlagsField + sizeof(uint32_t) <= kFixedFieldsEnd);

// Where the TCP header's first four bytes lie, or null when the record's
// offsets point outside the record or the frame. Every packet asks, so each
// range is checked once: the fixed fields together, and the layer table by
// its last entry, the one read first and the furthest out.
const uint8_t* LocateTcpHeader(const PacketRecord& packet) {
  const uint8_t* record = packet.record;
  const size_t length = packet.record_length;
  if (length < kFixedFieldsEnd) return nullptr;
  const unsigned entries = ReadAt<uint8_t>(record, kPacketLayerCountField) & 0x0F;
  if (entries == 0) return nullptr;
  const auto flags = ReadAt<uint32_t>(record, kPacketFlagsField);

  size_t variable_start = kPacketRecordFixedSize + ReadAt<uint16_t>(record, kPacketVariableAreaField);
  if (flags & kPacketFlagVariableAreaShift) variable_start += kPacketVariableShift;

  const bool indirect = (flags & kPacketFlagIndirectHeaders) != 0;
  size_t table_start = variable_start + 8;
  uint64_t header_base = 0;
  if (indirect) {
    if (!ReadLittleEndian(record, length, variable_start, &header_base)) return nullptr;
  } else {
    table_start = variable_start + ReadAt<uint16_t>(record, kPacketLayerTableOffsetField);
  }
  const size_t table_end = table_start + kPacketLayerEntrySize * size_t{entries};
  if (table_end > length) return nullptr;

  for (unsigned i = entries; i-- > 0;) {
    const size_t entry = table_start + kPacketLayerEntrySize * size_t{i};
    if (ReadAt<uint16_t>(record, entry) != kProtocolTcp) continue;
    const uint16_t header_offset = ReadAt<uint16_t>(record, entry + 2);
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
