#include "capture/PcapBlock.h"

#include <algorithm>

namespace pelka {

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
