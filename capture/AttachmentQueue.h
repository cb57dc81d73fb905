// The messages waiting for their attachments to be taken, and the one
// thread that takes them, in the order they were queued, so that
// attachments.jsonl lists them as the records were posted.
//
// Bounded: Push blocks while kMaxItems messages, or kMaxBytes of them, wait,
// so a capture faster than the taking holds its posting threads back rather
// than the disk or the memory filling with copies not yet read.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace pelka {

struct QueuedMessage {
  uint64_t email_number = 0;
  std::string copy_path;      // absolute
  bool delete_after = false;  // the copy was made for the attachments alone
  uint64_t bytes = 0;         // the copy's size, for the bound
};

class AttachmentQueue {
 public:
  static constexpr size_t kMaxItems = 64;
  static constexpr uint64_t kMaxBytes = uint64_t{64} << 20;

  // `take` runs on the queue's own thread, one message at a time; the
  // thread starts with the first Push.
  explicit AttachmentQueue(std::function<void(const QueuedMessage&)> take);
  // Finishes.
  ~AttachmentQueue();
  AttachmentQueue(const AttachmentQueue&) = delete;
  AttachmentQueue& operator=(const AttachmentQueue&) = delete;

  // Queues `message`, waiting while the queue is full. A message larger
  // than the byte bound waits for an empty queue. After Finish the message
  // is taken on the caller's thread.
  void Push(QueuedMessage message);
  // Waits until every queued message is taken, and ends the thread.
  void Finish();

 private:
  void Run();
  bool Full(uint64_t adding) const;

  std::function<void(const QueuedMessage&)> take_;
  std::mutex mutex_;
  std::condition_variable changed_;  // an item came, went, or the end was asked
  std::deque<QueuedMessage> waiting_;
  uint64_t waiting_bytes_ = 0;
  bool finishing_ = false;
  std::thread worker_;
};

}  // namespace pelka
