// MessageBytes: the owned buffer of a message store, which grows without
// copying what it holds once it is large.
//
// A store doubles its buffer while it collects a message. Below kMappedSize
// the buffer comes from malloc and grows with realloc, which copies the
// bytes whenever the block cannot be extended where it lies. From
// kMappedSize on, the buffer is an anonymous mapping of its own, and growing
// it moves its pages (mremap) instead of copying them, so a message of a few
// MiB is copied once, when its packets are collected, and not again at every
// doubling. Only the few stores holding large messages use mappings.
#pragma once

#include <cstdint>

namespace pelka {

class MessageBytes {
 public:
  static constexpr uint32_t kMappedSize = 256 * 1024;

  MessageBytes() = default;
  ~MessageBytes() { Release(); }
  MessageBytes(MessageBytes&& other) noexcept;
  MessageBytes& operator=(MessageBytes&& other) noexcept;
  MessageBytes(const MessageBytes&) = delete;
  MessageBytes& operator=(const MessageBytes&) = delete;

  uint8_t* get() const { return bytes_; }
  // Bytes usable from get(); 0 for the empty buffer.
  uint32_t size() const { return size_; }
  explicit operator bool() const { return bytes_ != nullptr; }

  // Makes the buffer at least `size` bytes long, keeping its first `keep`
  // bytes (at most its size) where they are counted from get(), which may
  // change. False without memory: the buffer is then as it was.
  bool Grow(uint32_t size, uint32_t keep);

 private:
  void Release();

  uint8_t* bytes_ = nullptr;
  uint32_t size_ = 0;
  bool mapped_ = false;
};

}  // namespace pelka
