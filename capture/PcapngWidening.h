// The pcapng side of SnapLengthWidening: the blocks of a pcapng file as
// libpcap is to read them, with every record readable whole.
//
// libpcap refuses a packet block longer than the snap length that its
// interface's description states, and stops reading the file there. The bytes
// the file holds are the packet, though. So the blocks pass through unchanged
// except:
// - an interface description's snap length below kPcapLargestRecord (and not
//   0, which states none) is shown as kPcapLargestRecord;
// - a simple packet block states only the packet's length, and holds at most
//   the snap length of the section's first interface: where that was
//   widened, a longer packet's length is shown as that snap length, the bytes
//   the block holds, which libpcap would otherwise look for in vain.
// A block header that is damaged (a length below 12 or not a multiple of 4)
// ends the changes: the rest passes through as it is, for libpcap to report.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

namespace pelka {

class PcapngWidener {
 public:
  // Reads `file` from the start of a section header block; `read_ahead` holds
  // the file's first bytes, already taken from `file` (at most 24).
  // `*exceeded` is set to an interface's stated snap length when a packet
  // block longer than it passes, and must outlive the widener.
  PcapngWidener(std::FILE* file, const uint8_t* read_ahead, size_t read_ahead_length, uint32_t* exceeded);

  // Up to `size` bytes of the changed stream; fewer at the end of the file
  // or on a read error (std::ferror on the file tells which).
  size_t Read(uint8_t* out, size_t size);

 private:
  // The fields read and changed: up to the captured length of a packet block.
  static constexpr size_t kHeadBytes = 24;

  // Bytes of the file: those read ahead first.
  size_t Pull(uint8_t* out, size_t size);
  // Reads the next block's head into head_ and changes what needs it; false
  // at the end of the file.
  bool TakeHead();
  bool ReadSectionOrder();
  void Widen(uint32_t type, uint32_t length);
  uint32_t Load32(size_t offset) const;
  void Store32(size_t offset, uint32_t value);

  std::FILE* file_;
  uint8_t read_ahead_[kHeadBytes];
  size_t read_ahead_length_;
  size_t read_ahead_used_ = 0;
  uint32_t* exceeded_;

  uint8_t head_[kHeadBytes];
  size_t head_length_ = 0;
  size_t head_served_ = 0;
  uint64_t body_left_ = 0;  // bytes of the block after its head
  bool swapped_ = false;    // the section's byte order is not ours
  bool damaged_ = false;    // pass the rest through unchanged
  std::vector<uint32_t> snap_lengths_;  // per interface of the section, as stated
};

}  // namespace pelka
