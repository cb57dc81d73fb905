// The host's per-packet record, as the module reads it.
//
// Record layout (little-endian):
//   offset  2  u16  offset of the layer table within the variable area
//                   (used when flag bit 17 is clear)
//   offset  7  u8   low 4 bits: number of layer-table entries; 0 = no layers
//   offset  8  u64  packet number (1-based position in the capture)
//   offset 16  u64  capture time in microseconds since 1970
//   offset 24  u32  flags: bit 22 moves the variable area 24 bytes further;
//                   bit 17: the layer table starts 8 bytes into the variable
//                   area and header offsets count from a 64-bit address stored
//                   at the start of the variable area
//   offset 28  u16  offset of the variable area, counted from record byte 32
// Layer-table entry, 4 bytes: u16 protocol identifier, u16 header offset.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pelka {

enum : uint32_t {
  kPacketFlagVariableAreaShift = 0x400000,  // bit 22
  kPacketFlagIndirectHeaders = 0x20000,     // bit 17
};

// Field offsets within the record's fixed part.
constexpr size_t kPacketLayerTableOffsetField = 2;
constexpr size_t kPacketLayerCountField = 7;
constexpr size_t kPacketNumberField = 8;
constexpr size_t kPacketTimeField = 16;
constexpr size_t kPacketFlagsField = 24;
constexpr size_t kPacketVariableAreaField = 28;
constexpr size_t kPacketLayerEntrySize = 4;

constexpr size_t kPacketRecordFixedSize = 32;
constexpr size_t kPacketVariableShift = 24;
constexpr unsigned kMaxLayerEntries = 15;

// A packet record handed to the module: the record's bytes and, for records
// whose headers are reached through a stored address (bit 17), the frame that
// address points into. Both lengths bound every read the module makes.
struct PacketRecord {
  const uint8_t* record = nullptr;
  uint32_t record_length = 0;
  const uint8_t* frame = nullptr;
  uint32_t frame_length = 0;
};

// Packet number and capture time; 0 for a record too short to hold them.
uint64_t GetPacketNumber(const PacketRecord* packet);
uint64_t GetPacketTime(const PacketRecord* packet);

// Finds the last TCP entry (protocol 600) of the layer table and reads both
// ports in host byte order. False when the record has no layers, no TCP entry,
// or any offset that points outside the record or the frame.
bool FindTcpPorts(const PacketRecord* packet, uint16_t* source_port, uint16_t* destination_port);

}  // namespace pelka
