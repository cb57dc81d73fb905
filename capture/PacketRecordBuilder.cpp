#include "capture/PacketRecordBuilder.h"

#include <bit>
#include <cstddef>
#include <cstring>

#include "host/Types.h"

namespace pelka {

namespace {

// The record is little-endian on any machine: on a little-endian one a
// field is copied in one store. (Byte loops stayed loops at -O2, and even
// explicit byte stores were assembled by shifts: about 115 instructions of
// every packet.)
template <typename T>
void PutLittleEndian(uint8_t* p, T value) {
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(p, &value, sizeof value);
  } else {
    for (size_t i = 0; i < sizeof value; ++i) p[i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

void PutU16(uint8_t* p, uint16_t value) { PutLittleEndian(p, value); }
void PutU32(uint8_t* p, uint32_t value) { PutLittleEndian(p, value); }
void PutU64(uint8_t* p, uint64_t value) { PutLittleEndian(p, value); }

}  // namespace

PacketRecordBuilder::PacketRecordBuilder() { buffer_.reserve(512); }

const PacketRecord& PacketRecordBuilder::Build(uint64_t packet_number, uint64_t time_us, const uint8_t* frame,
                                               uint32_t header_length, uint32_t tcp_offset) {
  const size_t table_offset = (size_t{header_length} + 3) & ~size_t{3};
  const bool fits = table_offset <= 0xFFFF && tcp_offset < header_length;
  const size_t variable_length = fits ? table_offset + kPacketLayerEntrySize : 0;
  // Keeps the capacity once grown. Every byte is written below: the fixed
  // part is cleared with one fixed-size store, the rest is copied or set;
  // clearing the whole record first cost a library call per packet.
  buffer_.resize(kPacketRecordFixedSize + variable_length);

  uint8_t* record = buffer_.data();
  std::memset(record, 0, kPacketRecordFixedSize);
  PutU64(record + kPacketNumberField, packet_number);
  PutU64(record + kPacketTimeField, time_us);
  if (fits) {
    uint8_t* variable = record + kPacketRecordFixedSize;
    // The up to three bytes between the headers and the table are zero; the
    // table's four bytes follow the headers at least, so the store fits.
    PutU32(variable + header_length, 0);
    std::memcpy(variable, frame, header_length);
    PutU16(record + kPacketLayerTableOffsetField, static_cast<uint16_t>(table_offset));
    record[kPacketLayerCountField] = 1;
    PutU16(variable + table_offset, kProtocolTcp);
    PutU16(variable + table_offset + 2, static_cast<uint16_t>(tcp_offset));
  }

  record_ = PacketRecord{};
  record_.record = record;
  record_.record_length = static_cast<uint32_t>(buffer_.size());
  return record_;
}

}  // namespace pelka
