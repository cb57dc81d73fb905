// MessageBufferPool: grown message buffers handed from ended flows to new ones.
//
// A flow's store grows its buffer by doubling while it collects the first
// message. Connections come and go all the time, and each new one would
// repeat that growth; a buffer kept from an ended connection already has the
// size the traffic needs and pages that are already in memory (a large
// buffer is a mapping of its own: one that is let go returns its pages, and
// the next one takes a page fault for each page it writes). The pool keeps
// the largest buffers given back, up to kKept of them (a few per connection
// that a busy capture has open at once), none larger than kLargestKept (a
// store set to collect longer messages grows its own), so what the pool
// holds stays bounded (64 MiB) whatever the settings. Any thread may take
// and give.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "flow/MessageBytes.h"

namespace pelka {

class MessageBufferPool {
 public:
  static constexpr size_t kKept = 16;
  static constexpr uint32_t kLargestKept = 4 << 20;

  MessageBufferPool() = default;
  MessageBufferPool(const MessageBufferPool&) = delete;
  MessageBufferPool& operator=(const MessageBufferPool&) = delete;

  // The largest buffer kept, or an empty one when none is.
  MessageBytes Take();
  // Keeps `buffer`, if it is no larger than kLargestKept, when fewer than
  // kKept are kept or it is larger than the smallest of them (which is freed
  // instead).
  void Give(MessageBytes buffer);

 private:
  std::mutex mutex_;
  std::vector<MessageBytes> kept_;
};

}  // namespace pelka
