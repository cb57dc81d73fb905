#include "capture/BatchWriter.h"

#include <utility>

namespace pelka {

BatchWriter::BatchWriter(Write write) : write_(std::move(write)), thread_([this] { Run(); }) {}

BatchWriter::~BatchWriter() {
  Drain();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void BatchWriter::Hand(uint64_t sequence, std::unique_ptr<LogRecordSet> batch) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    // Later batches may fill every place; the one the writer waits for
    // must not wait for them.
    changed_.wait(lock, [&] { return waiting_.size() < kMaxWaiting || sequence == next_; });
    waiting_.emplace(sequence, std::move(batch));
  }
  changed_.notify_all();
}

void BatchWriter::Drain() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return waiting_.empty() && !writing_; });
}

void BatchWriter::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return waiting_.count(next_) != 0 || (ending_ && waiting_.empty()); });
    const auto next = waiting_.find(next_);
    if (next == waiting_.end()) return;
    std::unique_ptr<LogRecordSet> batch = std::move(next->second);
    waiting_.erase(next);
    ++next_;
    writing_ = true;
    lock.unlock();
    changed_.notify_all();
    write_(std::move(batch));
    lock.lock();
    writing_ = false;
    changed_.notify_all();
  }
}

}  // namespace pelka
