#include "flow/MessageBytes.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace pelka {
namespace {

uint64_t PageSize() {
  static const uint64_t size = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  return size;
}

// The mapping's length for `size` bytes: whole pages, never more than a
// 32-bit size can count.
uint64_t MappedLength(uint64_t size) {
  const uint64_t page = PageSize();
  return std::min<uint64_t>((size + page - 1) / page * page, UINT32_MAX / page * page);
}

}  // namespace

MessageBytes::MessageBytes(MessageBytes&& other) noexcept
    : bytes_(std::exchange(other.bytes_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      mapped_(std::exchange(other.mapped_, false)) {}

MessageBytes& MessageBytes::operator=(MessageBytes&& other) noexcept {
  if (this == &other) return *this;
  Release();
  bytes_ = std::exchange(other.bytes_, nullptr);
  size_ = std::exchange(other.size_, 0);
  mapped_ = std::exchange(other.mapped_, false);
  return *this;
}

void MessageBytes::Release() {
  if (mapped_) {
    ::munmap(bytes_, size_);
  } else {
    std::free(bytes_);
  }
  bytes_ = nullptr;
  size_ = 0;
  mapped_ = false;
}

bool MessageBytes::Grow(uint32_t size, uint32_t keep) {
  if (size <= size_) return true;
  if (size < kMappedSize) {
    // realloc keeps every byte of the old block.
    auto* grown = static_cast<uint8_t*>(std::realloc(bytes_, size));
    if (!grown) return false;
    bytes_ = grown;
    size_ = size;
    return true;
  }
  const uint64_t length = MappedLength(size);
  if (length < size) return false;
  if (mapped_) {
    void* moved = ::mremap(bytes_, size_, length, MREMAP_MAYMOVE);
    if (moved == MAP_FAILED) return false;
    bytes_ = static_cast<uint8_t*>(moved);
    size_ = static_cast<uint32_t>(length);
    return true;
  }
  void* mapped = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) return false;
  if (keep > 0) std::memcpy(mapped, bytes_, std::min(keep, size_));
  std::free(bytes_);
  bytes_ = static_cast<uint8_t*>(mapped);
  size_ = static_cast<uint32_t>(length);
  mapped_ = true;
  return true;
}

}  // namespace pelka
