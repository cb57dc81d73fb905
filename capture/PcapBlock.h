// Blocks of a capture file that the reader and the workers share.
//
// The reader fills a block from the file and hands out frames that point into
// it; every batch that holds such frames keeps a reference on the block, and
// the last reference to go puts the block back into its pool. The pool is
// bounded: a reader that finds every block in use waits for one to come back.
// Blocks are made when first needed and the last one back is handed out
// first, so a run whose workers keep up touches only a few megabytes.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "capture/PageAlignedBuffer.h"

namespace pelka {

class PcapBlockPool;

class PcapBlock {
 public:
  // The bytes are left uninitialised: the reader writes them before use.
  PcapBlock(PcapBlockPool* pool, size_t capacity)
      : pool_(pool), bytes_(MakePageAlignedBytes(capacity)), capacity_(capacity) {}
  PcapBlock(const PcapBlock&) = delete;
  PcapBlock& operator=(const PcapBlock&) = delete;

  uint8_t* data() { return bytes_.get(); }
  size_t capacity() const { return capacity_; }

  void Ref() { refs_.fetch_add(1, std::memory_order_relaxed); }
  // The last reference puts the block back into its pool; any thread may call it.
  void Unref();

 private:
  friend class PcapBlockPool;
  PcapBlockPool* pool_;
  PageAlignedBytes bytes_;
  size_t capacity_;
  std::atomic<int> refs_{0};
};

class PcapBlockPool {
 public:
  static constexpr size_t kBlocks = 64;
  static constexpr size_t kBlockBytes = 1 << 20;

  explicit PcapBlockPool(size_t blocks = kBlocks, size_t block_bytes = kBlockBytes);
  PcapBlockPool(const PcapBlockPool&) = delete;
  PcapBlockPool& operator=(const PcapBlockPool&) = delete;

  // A free block with one reference, the caller's; waits while none is free.
  PcapBlock* Acquire();
  // The same without waiting: nullptr while none is free.
  PcapBlock* TryAcquire();
  size_t block_bytes() const { return block_bytes_; }
  // Blocks made so far, and of those the ones not in use.
  size_t made_blocks();
  size_t free_blocks();

 private:
  friend class PcapBlock;
  void Release(PcapBlock* block);
  // With the mutex held.
  void MakeOneIfNoneFree();
  PcapBlock* TakeFree();

  size_t block_bytes_;
  size_t max_blocks_;
  std::vector<std::unique_ptr<PcapBlock>> blocks_;
  std::mutex mutex_;
  std::condition_variable released_;
  std::vector<PcapBlock*> free_;
};

}  // namespace pelka
