#include "capture/PcapngSections.h"

#include <unistd.h>

#include <cstring>

namespace pelka {
namespace {

constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint64_t kSmallestBlock = 12;  // type, length, trailing length
// Blocks larger than libpcap's own bound are damage, not data.
constexpr uint32_t kLargestBlock = 16 * 1024 * 1024;

// Reads the 32-bit field at `offset`; false when the file ends first.
bool ReadField(int fd, uint64_t offset, bool swapped, uint32_t* value) {
  uint8_t bytes[4];
  if (::pread(fd, bytes, sizeof bytes, static_cast<off_t>(offset)) != static_cast<ssize_t>(sizeof bytes)) return false;
  std::memcpy(value, bytes, sizeof bytes);
  if (swapped) *value = __builtin_bswap32(*value);
  return true;
}

// The byte order of the section header at `offset`: false when there is none.
bool SectionByteOrder(int fd, uint64_t offset, bool* swapped) {
  uint32_t type = 0, magic = 0;
  if (!ReadField(fd, offset, false, &type) || type != kPcapngSectionHeader) return false;
  if (!ReadField(fd, offset + 8, false, &magic)) return false;
  if (magic != kByteOrderMagic && magic != __builtin_bswap32(kByteOrderMagic)) return false;
  *swapped = magic != kByteOrderMagic;
  return true;
}

}  // namespace

std::optional<uint64_t> FindByteOrderChange(int fd, uint64_t section_start, uint64_t limit) {
  bool swapped = false;
  if (!SectionByteOrder(fd, section_start, &swapped)) return std::nullopt;
  uint64_t offset = section_start;
  while (offset < limit) {
    uint32_t type = 0, length = 0;
    if (!ReadField(fd, offset, swapped, &type) || !ReadField(fd, offset + 4, swapped, &length)) return std::nullopt;
    if (type == kPcapngSectionHeader && offset != section_start) {
      bool next_swapped = false;
      if (!SectionByteOrder(fd, offset, &next_swapped)) return std::nullopt;
      if (next_swapped != swapped) return offset;
      // A section in the same byte order: libpcap reads on through it.
    }
    if (length < kSmallestBlock || length > kLargestBlock || length % 4 != 0) return std::nullopt;
    offset += length;
  }
  return std::nullopt;
}

}  // namespace pelka
