// Sections of a pcapng file. Each section begins with a section header block
// that states the byte order of the blocks up to the next section; libpcap
// reads a file in the byte order of its first section only and fails at a
// section of the other order. Finding that section lets the reader start
// libpcap afresh there.
#pragma once

#include <cstdint>
#include <optional>

namespace pelka {

// The block type of a section header, the same in either byte order.
constexpr uint32_t kPcapngSectionHeader = 0x0A0D0D0A;

// Walks the blocks of the file open as `fd` from the section header at
// `section_start` and gives the offset of the first later section header
// whose byte order differs from the one before it, if that header starts
// before `limit`. Nothing when the file is no pcapng file there, when a block
// on the way is damaged, or when no such section starts before `limit`.
std::optional<uint64_t> FindByteOrderChange(int fd, uint64_t section_start, uint64_t limit);

}  // namespace pelka
