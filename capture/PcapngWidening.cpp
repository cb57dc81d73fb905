#include "capture/PcapngWidening.h"

#include <algorithm>
#include <cstring>

#include "capture/PcapFormat.h"
#include "capture/PcapngSections.h"

namespace pelka {
namespace {

constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint32_t kInterfaceDescription = 1;
constexpr uint32_t kObsoletePacket = 2;
constexpr uint32_t kSimplePacket = 3;
constexpr uint32_t kEnhancedPacket = 6;
constexpr uint32_t kSmallestBlock = 12;  // type, length, trailing length

}  // namespace

PcapngWidener::PcapngWidener(std::FILE* file, const uint8_t* read_ahead, size_t read_ahead_length,
                             uint32_t* exceeded)
    : file_(file), read_ahead_length_(std::min(read_ahead_length, kHeadBytes)), exceeded_(exceeded) {
  std::memcpy(read_ahead_, read_ahead, read_ahead_length_);
}

size_t PcapngWidener::Read(uint8_t* out, size_t size) {
  size_t given = 0;
  while (given < size) {
    if (head_served_ < head_length_) {
      const size_t count = std::min(size - given, head_length_ - head_served_);
      std::memcpy(out + given, head_ + head_served_, count);
      head_served_ += count;
      given += count;
      continue;
    }
    if (damaged_) return given + Pull(out + given, size - given);
    if (body_left_ == 0) {
      if (!TakeHead()) break;
      continue;
    }
    const size_t count = Pull(out + given, static_cast<size_t>(std::min<uint64_t>(size - given, body_left_)));
    if (count == 0) break;
    body_left_ -= count;
    given += count;
  }
  return given;
}

size_t PcapngWidener::Pull(uint8_t* out, size_t size) {
  const size_t ahead = std::min(size, read_ahead_length_ - read_ahead_used_);
  std::memcpy(out, read_ahead_ + read_ahead_used_, ahead);
  read_ahead_used_ += ahead;
  if (ahead == size) return size;
  return ahead + std::fread(out + ahead, 1, size - ahead, file_);
}

bool PcapngWidener::TakeHead() {
  head_served_ = 0;
  head_length_ = Pull(head_, 8);
  if (head_length_ < 8) {
    damaged_ = true;
    return head_length_ > 0;
  }
  // A section header's type reads the same in either byte order; its byte
  // order magic follows the length.
  uint32_t type = 0;
  std::memcpy(&type, head_, sizeof type);
  if (type == kPcapngSectionHeader) {
    head_length_ += Pull(head_ + 8, 4);
    if (head_length_ < 12 || !ReadSectionOrder()) {
      damaged_ = true;
      return true;
    }
  }
  type = Load32(0);
  const uint32_t length = Load32(4);
  if (length < kSmallestBlock || length % 4 != 0) {
    damaged_ = true;
    return true;
  }
  const size_t wanted = std::min<size_t>(length, kHeadBytes);
  head_length_ += Pull(head_ + head_length_, wanted - head_length_);
  if (head_length_ < wanted) {
    damaged_ = true;
    return true;
  }
  body_left_ = length - head_length_;
  Widen(type, length);
  return true;
}

bool PcapngWidener::ReadSectionOrder() {
  uint32_t magic = 0;
  std::memcpy(&magic, head_ + 8, sizeof magic);
  if (magic != kByteOrderMagic && magic != __builtin_bswap32(kByteOrderMagic)) return false;
  swapped_ = magic != kByteOrderMagic;
  snap_lengths_.clear();  // interfaces are numbered per section
  return true;
}

void PcapngWidener::Widen(uint32_t type, uint32_t length) {
  auto exceed = [this](uint32_t snap_length) {
    if (*exceeded_ == 0) *exceeded_ = snap_length;
  };
  if (type == kInterfaceDescription && length >= 20) {
    const uint32_t stated = Load32(12);
    snap_lengths_.push_back(stated);
    if (stated != 0 && stated < kPcapLargestRecord) Store32(12, kPcapLargestRecord);
  } else if ((type == kEnhancedPacket || type == kObsoletePacket) && length >= 32) {
    uint32_t interface = Load32(8);
    if (type == kObsoletePacket) {  // it numbers its interface in 16 bits
      uint16_t short_interface = 0;
      std::memcpy(&short_interface, head_ + 8, sizeof short_interface);
      interface = swapped_ ? __builtin_bswap16(short_interface) : short_interface;
    }
    if (interface >= snap_lengths_.size()) return;
    const uint32_t snap_length = snap_lengths_[interface];
    if (snap_length != 0 && Load32(20) > snap_length) exceed(snap_length);
  } else if (type == kSimplePacket && length >= 16 && !snap_lengths_.empty()) {
    const uint32_t snap_length = snap_lengths_[0];
    const uint32_t packet_length = Load32(8);
    if (snap_length == 0 || snap_length >= kPcapLargestRecord || packet_length <= snap_length) return;
    if (packet_length <= length - 16) {
      exceed(snap_length);  // the block holds the whole packet
    } else {
      Store32(8, snap_length);
    }
  }
}

uint32_t PcapngWidener::Load32(size_t offset) const { return LoadPcap32(head_ + offset, swapped_); }

void PcapngWidener::Store32(size_t offset, uint32_t value) {
  if (swapped_) value = __builtin_bswap32(value);
  std::memcpy(head_ + offset, &value, sizeof value);
}

}  // namespace pelka
