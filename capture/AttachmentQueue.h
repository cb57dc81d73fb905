// The messages waiting for their attachments to be taken, the threads that
// take them, and the order their results come out in: that of the queue,
// so that attachments.jsonl and the database list them as the records were
// posted, however many threads take them.
//
// Bounded: Push blocks while kMaxItems messages wait, are being taken or
// wait for their turn to come out, or while the messages waiting and being
// taken hold kMaxBytes, so a capture faster than the taking holds its
// posting threads back rather than the memory filling with messages.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capture/AttachmentRow.h"
#include "capture/MessageParts.h"

namespace pelka {

struct QueuedMessage {
  uint64_t sequence = 0;  // the order of the Push
  uint64_t email_number = 0;
  std::string bytes;      // the message as the module saved it
};

// What taking one message's attachments gave.
struct TakenMessage {
  std::vector<AttachmentRow> rows;
  PartCuts cuts;
};

class AttachmentQueue {
 public:
  static constexpr size_t kMaxItems = 64;
  static constexpr uint64_t kMaxBytes = uint64_t{64} << 20;

  using Take = std::function<TakenMessage(const QueuedMessage&)>;
  using Emit = std::function<void(const TakenMessage&)>;

  // `take` runs on the queue's `threads` threads (at least one, started
  // with the first Push), several messages at once; `emit` gets what it
  // gave, one message at a time, in the order they were pushed.
  AttachmentQueue(unsigned threads, Take take, Emit emit);
  // Finishes.
  ~AttachmentQueue();
  AttachmentQueue(const AttachmentQueue&) = delete;
  AttachmentQueue& operator=(const AttachmentQueue&) = delete;

  // Queues the message, waiting while the queue is full. A message larger
  // than the byte bound waits for an empty queue. After Finish the message
  // is taken and emitted on the caller's thread. Safe from several threads.
  void Push(uint64_t email_number, std::string bytes);
  // Waits until every queued message is taken and emitted, and ends the
  // threads.
  void Finish();

 private:
  void Run();
  bool Full(uint64_t adding) const;
  // Emits `taken` and whatever waited for it once its turn has come;
  // returns how many messages came out.
  size_t Deliver(uint64_t sequence, TakenMessage taken);

  const unsigned thread_count_;
  Take take_;
  Emit emit_;

  std::mutex mutex_;
  std::condition_variable changed_;  // an item came, went, or the end was asked
  std::deque<QueuedMessage> waiting_;
  size_t held_items_ = 0;      // waiting, being taken, or taken and not emitted yet
  uint64_t held_bytes_ = 0;    // of the messages waiting or being taken
  uint64_t next_sequence_ = 0;
  bool finishing_ = false;
  std::vector<std::thread> workers_;

  std::mutex emit_mutex_;  // guards what waits for its turn; held while emitting
  std::map<uint64_t, TakenMessage> early_;
  uint64_t next_emitted_ = 0;
};

}  // namespace pelka
