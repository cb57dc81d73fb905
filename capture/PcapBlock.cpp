#include "capture/PcapBlock.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace pelka {

uint8_t* PcapBlock::Buffer() {
  Unmap();
  if (!bytes_) bytes_ = MakePageAlignedBytes(capacity_);
  data_ = bytes_.get();
  return bytes_.get();
}

bool PcapBlock::Map(int fd, uint64_t offset, size_t length) {
  static const uint64_t page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  const uint64_t start = offset / page * page;
  const size_t bytes = static_cast<size_t>(offset - start) + length;
  void* mapped = ::mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE, fd, static_cast<off_t>(start));
  if (mapped == MAP_FAILED) return false;
  // The walk goes through the window once, front to back: the kernel may read
  // ahead and drop pages behind, and faulting the pages in now costs one call
  // instead of one fault per few pages. Both are hints; a kernel without them
  // faults the pages in as they are read.
  ::madvise(mapped, bytes, MADV_SEQUENTIAL);
#ifdef MADV_POPULATE_READ
  ::madvise(mapped, bytes, MADV_POPULATE_READ);
#endif
  Unmap();
  mapped_ = mapped;
  mapped_bytes_ = bytes;
  data_ = static_cast<const uint8_t*>(mapped) + (offset - start);
  return true;
}

void PcapBlock::Unmap() {
  if (!mapped_) return;
  ::munmap(mapped_, mapped_bytes_);
  mapped_ = nullptr;
  mapped_bytes_ = 0;
  data_ = bytes_.get();
}

void PcapBlock::Unref() {
  if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) pool_->Release(this);
}

PcapBlockPool::PcapBlockPool(size_t blocks, size_t block_bytes)
    : block_bytes_(block_bytes), max_blocks_(std::max<size_t>(1, blocks)) {
  blocks_.reserve(max_blocks_);
  free_.reserve(max_blocks_);
}

PcapBlock* PcapBlockPool::Acquire() {
  std::unique_lock<std::mutex> lock(mutex_);
  MakeOneIfNoneFree();
  released_.wait(lock, [this] { return !free_.empty(); });
  return TakeFree();
}

PcapBlock* PcapBlockPool::TryAcquire() {
  const std::lock_guard<std::mutex> lock(mutex_);
  MakeOneIfNoneFree();
  return free_.empty() ? nullptr : TakeFree();
}

void PcapBlockPool::MakeOneIfNoneFree() {
  if (!free_.empty() || blocks_.size() >= max_blocks_) return;
  blocks_.push_back(std::make_unique<PcapBlock>(this, block_bytes_));
  free_.push_back(blocks_.back().get());
}

PcapBlock* PcapBlockPool::TakeFree() {
  PcapBlock* block = free_.back();
  free_.pop_back();
  block->refs_.store(1, std::memory_order_relaxed);
  return block;
}

void PcapBlockPool::Release(PcapBlock* block) {
  // Unmapped outside the lock: the reader may be waiting for a block.
  block->Unmap();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    free_.push_back(block);
  }
  released_.notify_one();
}

size_t PcapBlockPool::made_blocks() {
  std::lock_guard<std::mutex> lock(mutex_);
  return blocks_.size();
}

size_t PcapBlockPool::free_blocks() {
  std::lock_guard<std::mutex> lock(mutex_);
  return free_.size();
}

}  // namespace pelka
