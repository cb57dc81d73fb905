// Flows spread over several worker threads.
//
// The reading thread does little more than read: OnFrame adds each frame to
// the current batch with its worker when the frame's first bytes name it
// (plain Ethernet, IPv4, TCP: WorkerOfFrame), and a full batch goes to every
// worker. Each worker decodes its own frames, and the frames no worker was
// named for to see whether they are its own, keeps the TCP packets whose
// connection hashes to it (ConnectionHash.h) and hands them to a FlowTracker
// of its own. So every flow is handled by one thread, in the order of its
// packets; the sink must accept calls for different flows from different
// threads. Nobody decodes a frame twice in the usual case, and the reading
// thread touches only the first bytes of a frame, which it has at hand after
// the record header.
//
// A frame that lies in a shared PcapBlock is not copied: the batch keeps a
// reference on the block until the last worker is done with the batch. Other
// frames are copied into the batch.
//
// Memory is bounded: kBatches batches circulate; a batch goes back to the
// reader when the last worker is done with it, and the reader waits when none
// is free. A waiting worker is woken for several batches at once, not for
// each: on a virtual machine a wake-up costs as much as a batch's work. A
// reader about to wait, Flush, Advance and Finish wake the workers at once,
// so a live capture's records are not held back and nobody waits for a batch
// that is not coming.
//
// Finish (also at destruction) sends the partial batch, lets every tracker
// end its flows on its own thread and joins the workers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "capture/BlockingQueue.h"
#include "capture/CaptureSource.h"
#include "capture/FlowSink.h"
#include "capture/FlowTracker.h"
#include "capture/PacketDecoder.h"
#include "capture/PcapBlock.h"

namespace pelka {

// Adds every counter of `more` to `total`.
void AddCounters(FlowTrackerCounters& total, const FlowTrackerCounters& more);

class ParallelPipeline {
 public:
  static constexpr size_t kBatchFrames = 1024;
  static constexpr size_t kBatchBytes = 512 * 1024;
  static constexpr size_t kBatches = 32;

  // `options.max_flows` is the bound of the whole run; each worker gets its
  // share.
  ParallelPipeline(unsigned workers, FlowSink* sink, FlowTracker::Options options = {});
  ~ParallelPipeline();
  ParallelPipeline(const ParallelPipeline&) = delete;
  ParallelPipeline& operator=(const ParallelPipeline&) = delete;

  // One frame of the capture, in capture order. With `block` the frame lies
  // in it and stays there until the workers are done; with nullptr its bytes
  // are copied before OnFrame returns.
  void OnFrame(const CapturedFrame& frame, PcapBlock* block);
  // Sends the workers the batch so far and wakes them, so that the blocks the
  // batch holds come back (the reader waits for a free block).
  void Flush();
  // Capture time moved on without a packet: every worker gets the batch so
  // far and then the new time.
  void Advance(uint64_t time_us);
  // End of input. Only the first call acts.
  void Finish();

  unsigned workers() const { return static_cast<unsigned>(workers_.size()); }
  // The sums over the workers; complete after Finish.
  FlowTrackerCounters counters() const;
  // What the frames decoded to, each frame counted once; complete after Finish.
  DecoderCounters decoder_counters() const;

 private:
  struct Batch;
  class Worker;

  void Send(bool wake);
  // A worker is done with `batch`; the last one gives it back to the reader.
  void Done(Batch* batch);

  std::vector<std::unique_ptr<Batch>> batches_;
  BlockingQueue<Batch*> free_;
  Batch* current_ = nullptr;
  std::vector<std::unique_ptr<Worker>> workers_;
  bool finished_ = false;
};

}  // namespace pelka
