#include "capture/AttachmentQueue.h"

#include <utility>

namespace pelka {

AttachmentQueue::AttachmentQueue(std::function<void(const QueuedMessage&)> take) : take_(std::move(take)) {}

AttachmentQueue::~AttachmentQueue() { Finish(); }

bool AttachmentQueue::Full(uint64_t adding) const {
  if (waiting_.empty()) return false;
  return waiting_.size() >= kMaxItems || waiting_bytes_ + adding > kMaxBytes;
}

void AttachmentQueue::Push(QueuedMessage message) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (finishing_) {
    lock.unlock();
    take_(message);
    return;
  }
  if (!worker_.joinable()) worker_ = std::thread([this] { Run(); });
  changed_.wait(lock, [&] { return !Full(message.bytes); });
  waiting_bytes_ += message.bytes;
  waiting_.push_back(std::move(message));
  changed_.notify_all();
}

void AttachmentQueue::Finish() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    finishing_ = true;
    changed_.notify_all();
  }
  if (worker_.joinable()) worker_.join();
}

void AttachmentQueue::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return finishing_ || !waiting_.empty(); });
    if (waiting_.empty()) return;  // finishing, and nothing left
    // The message stays counted until it is taken, so the bound covers it.
    const QueuedMessage& next = waiting_.front();
    lock.unlock();
    take_(next);
    lock.lock();
    waiting_bytes_ -= next.bytes;
    waiting_.pop_front();
    changed_.notify_all();
  }
}

}  // namespace pelka
