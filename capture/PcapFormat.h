// The layout of a classic pcap file, as both capture readers need it: a
// 24-byte file header whose first four bytes name the byte order and the time
// resolution, then records of a 16-byte header and the captured bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace pelka {

constexpr size_t kPcapFileHeaderBytes = 24;
constexpr size_t kPcapSnapLengthOffset = 16;  // in the file header
constexpr size_t kPcapRecordHeaderBytes = 16;
// libpcap's largest record for the usual link types.
constexpr uint32_t kPcapLargestRecord = 262144;

// A 32-bit field of the file, `swapped` when the file's byte order is not ours.
inline uint32_t LoadPcap32(const uint8_t* bytes, bool swapped) {
  uint32_t value;
  std::memcpy(&value, bytes, sizeof value);
  return swapped ? __builtin_bswap32(value) : value;
}

// What the first four bytes of a file say; `classic` false for any other file.
struct PcapMagic {
  bool classic = false;
  bool swapped = false;
  bool nanosecond = false;
};

inline PcapMagic ReadPcapMagic(const uint8_t* header) {
  constexpr uint32_t kMicro = 0xA1B2C3D4;
  constexpr uint32_t kNano = 0xA1B23C4D;
  const uint32_t magic = LoadPcap32(header, false);
  const uint32_t swapped = __builtin_bswap32(magic);
  if (magic == kMicro || magic == kNano) return {true, false, magic == kNano};
  if (swapped == kMicro || swapped == kNano) return {true, true, swapped == kNano};
  return {};
}

}  // namespace pelka
