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

void BatchWriter::Hand(std::unique_ptr<LogRecordSet> batch) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return waiting_.size() < kMaxWaiting; });
    waiting_.push_back(std::move(batch));
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
    changed_.wait(lock, [this] { return !waiting_.empty() || ending_; });
    if (waiting_.empty()) return;
    std::unique_ptr<LogRecordSet> batch = std::move(waiting_.front());
    waiting_.pop_front();
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
