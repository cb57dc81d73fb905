// A bounded first-in first-out queue between threads.
//
// Push waits while the queue is full and Pop while it is empty, so a fast
// producer is held back by a slow consumer instead of growing memory. The
// ring of slots is allocated once; moving items in and out allocates nothing.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace pelka {

template <typename T>
class BlockingQueue {
 public:
  explicit BlockingQueue(size_t capacity) : slots_(capacity ? capacity : 1) {}
  BlockingQueue(const BlockingQueue&) = delete;
  BlockingQueue& operator=(const BlockingQueue&) = delete;

  void Push(T item) {
    std::unique_lock<std::mutex> lock(mutex_);
    not_full_.wait(lock, [this] { return size_ < slots_.size(); });
    slots_[(head_ + size_) % slots_.size()] = std::move(item);
    ++size_;
    lock.unlock();
    not_empty_.notify_one();
  }

  T Pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    not_empty_.wait(lock, [this] { return size_ > 0; });
    T item = std::move(slots_[head_]);
    head_ = (head_ + 1) % slots_.size();
    --size_;
    lock.unlock();
    not_full_.notify_one();
    return item;
  }

 private:
  std::mutex mutex_;
  std::condition_variable not_empty_;
  std::condition_variable not_full_;
  std::vector<T> slots_;
  size_t head_ = 0;
  size_t size_ = 0;
};

}  // namespace pelka
