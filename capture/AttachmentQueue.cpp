#include "capture/AttachmentQueue.h"

#include <algorithm>
#include <utility>

namespace pelka {

AttachmentQueue::AttachmentQueue(unsigned threads, Take take, Emit emit)
    : thread_count_(std::max(threads, 1u)), take_(std::move(take)), emit_(std::move(emit)) {}

AttachmentQueue::~AttachmentQueue() { Finish(); }

bool AttachmentQueue::Full(uint64_t adding) const {
  if (held_items_ == 0) return false;
  return held_items_ >= kMaxItems || held_bytes_ + adding > kMaxBytes;
}

void AttachmentQueue::Push(uint64_t email_number, std::string bytes) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (finishing_) {
    // The threads are gone and everything before is out: this one's turn is now.
    QueuedMessage message{next_sequence_++, email_number, std::move(bytes)};
    lock.unlock();
    Deliver(message.sequence, take_(message));
    return;
  }
  while (workers_.size() < thread_count_) workers_.emplace_back([this] { Run(); });
  const uint64_t size = bytes.size();
  changed_.wait(lock, [&] { return !Full(size); });
  ++held_items_;
  held_bytes_ += size;
  waiting_.push_back({next_sequence_++, email_number, std::move(bytes)});
  changed_.notify_all();
}

void AttachmentQueue::Finish() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    finishing_ = true;
    changed_.notify_all();
  }
  for (std::thread& worker : workers_)
    if (worker.joinable()) worker.join();
}

void AttachmentQueue::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return finishing_ || !waiting_.empty(); });
    if (waiting_.empty()) return;  // finishing, and nothing left
    QueuedMessage next = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    TakenMessage taken = take_(next);
    const size_t emitted = Deliver(next.sequence, std::move(taken));
    lock.lock();
    held_bytes_ -= next.bytes.size();
    held_items_ -= emitted;
    changed_.notify_all();
  }
}

size_t AttachmentQueue::Deliver(uint64_t sequence, TakenMessage taken) {
  const std::lock_guard<std::mutex> lock(emit_mutex_);
  if (sequence != next_emitted_) {
    early_.emplace(sequence, std::move(taken));
    return 0;
  }
  emit_(taken);
  ++next_emitted_;
  size_t emitted = 1;
  for (auto waiting = early_.begin(); waiting != early_.end() && waiting->first == next_emitted_;
       waiting = early_.erase(waiting)) {
    emit_(waiting->second);
    ++next_emitted_;
    ++emitted;
  }
  return emitted;
}

}  // namespace pelka
