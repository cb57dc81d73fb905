// A bounded first-in first-out queue between threads.
//
// Push waits while the queue is full and Pop while it is empty, so a fast
// producer is held back by a slow consumer instead of growing memory. The
// ring of slots is allocated once; moving items in and out allocates nothing.
//
// A consumer that finds the queue empty waits until `wake_at` items are
// queued, or until a Push asks for it to be woken: waking a sleeping thread costs far more than
// handing over one item, so a waiting consumer takes several at a time.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace pelka {

template <typename T>
class BlockingQueue {
 public:
  explicit BlockingQueue(size_t capacity, size_t wake_at = 1)
      : slots_(capacity ? capacity : 1), wake_at_(std::max<size_t>(1, std::min(wake_at, slots_.size()))) {}
  BlockingQueue(const BlockingQueue&) = delete;
  BlockingQueue& operator=(const BlockingQueue&) = delete;

  // `wake`: a waiting consumer is woken now, however few items are queued.
  void Push(T item, bool wake = true) {
    std::unique_lock<std::mutex> lock(mutex_);
    not_full_.wait(lock, [this] { return size_ < slots_.size(); });
    slots_[(head_ + size_) % slots_.size()] = std::move(item);
    ++size_;
    if (wake) wake_ = true;
    const bool notify = wake_ || size_ >= wake_at_;
    lock.unlock();
    if (notify) not_empty_.notify_one();
  }

  // The first item when one is queued, without waiting.
  bool TryPop(T* item) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (size_ == 0) return false;
    *item = Take();
    lock.unlock();
    not_full_.notify_one();
    return true;
  }

  // A waiting consumer starts on what is queued now, however little.
  void Wake() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (size_ == 0) return;
    wake_ = true;
    lock.unlock();
    not_empty_.notify_one();
  }

  T Pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    // Only a consumer that finds nothing waits, and then for several items.
    if (size_ == 0) not_empty_.wait(lock, [this] { return size_ >= wake_at_ || (size_ > 0 && wake_); });
    T item = Take();
    lock.unlock();
    not_full_.notify_one();
    return item;
  }

 private:
  // Under the lock, with an item queued.
  T Take() {
    T item = std::move(slots_[head_]);
    head_ = (head_ + 1) % slots_.size();
    --size_;
    if (size_ == 0) wake_ = false;
    return item;
  }

  std::mutex mutex_;
  std::condition_variable not_empty_;
  std::condition_variable not_full_;
  std::vector<T> slots_;
  size_t wake_at_;
  size_t head_ = 0;
  size_t size_ = 0;
  bool wake_ = false;  // an item was pushed with a wake request and is not yet taken
};

}  // namespace pelka
