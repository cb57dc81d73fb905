// Writes a log's full batches of records on a thread of its own, in the order
// they were filled, so that the threads that post them go on with the analysis
// meanwhile.
//
// Each batch comes with its sequence number, its place in the order the
// batches were filled (0, 1, 2, ... without gaps). Several posting threads may
// hand their batches over in another order than they filled them; the writer
// still writes them by sequence. At most kMaxWaiting batches wait: Hand waits
// for room beyond that, which bounds the records held, except for the batch
// the writer needs next, which always gets in. Drain returns once every batch
// handed over has been written; the destructor drains, then ends the thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
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

  void Hand(uint64_t sequence, std::unique_ptr<LogRecordSet> batch);
  void Drain();

 private:
  void Run();

  Write write_;
  std::mutex mutex_;
  std::condition_variable changed_;  // a batch was handed over or written, or the end is asked
  std::map<uint64_t, std::unique_ptr<LogRecordSet>> waiting_;  // by sequence
  uint64_t next_ = 0;  // the sequence to write next
  bool writing_ = false;
  bool ending_ = false;
  std::thread thread_;  // last: it starts once the rest exists
};

}  // namespace pelka
