// Writes a log's full batches of records on a thread of its own, in the order
// they were handed over, so that the thread that posts them goes on with the
// analysis meanwhile.
//
// At most kMaxWaiting batches wait: Hand waits for room beyond that, which
// bounds the records held. Drain returns once every batch handed over has
// been written; the destructor drains, then ends the thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "capture/LogExport.h"

namespace pelka {

class BatchWriter {
 public:
  static constexpr size_t kMaxWaiting = 4;
  using Write = std::function<void(std::unique_ptr<LogRecordSet>)>;

  explicit BatchWriter(Write write);
  ~BatchWriter();
  BatchWriter(const BatchWriter&) = delete;
  BatchWriter& operator=(const BatchWriter&) = delete;

  void Hand(std::unique_ptr<LogRecordSet> batch);
  void Drain();

 private:
  void Run();

  Write write_;
  std::mutex mutex_;
  std::condition_variable changed_;  // a batch was handed over or written, or the end is asked
  std::deque<std::unique_ptr<LogRecordSet>> waiting_;
  bool writing_ = false;
  bool ending_ = false;
  std::thread thread_;  // last: it starts once the rest exists
};

}  // namespace pelka
