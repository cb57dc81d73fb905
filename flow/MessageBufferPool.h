// MessageBufferPool: grown message buffers handed from ended flows to new ones.
//
// A flow's store grows its buffer by doubling while it collects the first
// message, and every doubling copies what was collected so far. Connections
// come and go all the time, and each new one would repeat that growth; a
// buffer kept from an ended connection already has the size the traffic
// needs. The pool keeps the few largest buffers given back, none larger than
// kLargestKept (a store set to collect longer messages grows its own), so
// what the pool holds stays bounded whatever the settings. Any thread may
// take and give.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

namespace pelka {

// Bytes from malloc, so that a store can grow them with realloc.
struct FreeMessageBytes {
  void operator()(uint8_t* bytes) const { std::free(bytes); }
};
using MessageBytes = std::unique_ptr<uint8_t, FreeMessageBytes>;

struct MessageBuffer {
  MessageBytes bytes;
  uint32_t size = 0;
};

class MessageBufferPool {
 public:
  static constexpr size_t kKept = 4;
  static constexpr uint32_t kLargestKept = 4 << 20;

  MessageBufferPool() = default;
  MessageBufferPool(const MessageBufferPool&) = delete;
  MessageBufferPool& operator=(const MessageBufferPool&) = delete;

  // The largest buffer kept, or an empty one when none is.
  MessageBuffer Take();
  // Keeps `buffer`, if it is no larger than kLargestKept, when fewer than
  // kKept are kept or it is larger than the smallest of them (which is freed
  // instead).
  void Give(MessageBuffer buffer);

 private:
  std::mutex mutex_;
  std::vector<MessageBuffer> kept_;
};

}  // namespace pelka
