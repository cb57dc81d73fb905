// Flows spread over several worker threads, which also take turns at reading.
//
// There is no reading thread: a worker that has handled every batch read so
// far reads the next one itself through the FrameSource, while the others go
// on with the batches before it. So N workers keep N cores busy, and the
// worker that is ahead does the reading, which evens out connections of
// unequal weight. One worker reads at a time; a worker that would wait for
// it meanwhile reads ahead through the prefetch callback, if Run was given
// one (the block reader's Prefetch: the copy out of the file is then shared).
//
// A batch is seen by every worker. Its frames carry their worker when the
// frame's first bytes name it (plain Ethernet, IPv4, TCP: WorkerOfFrame); the
// others each worker decodes to see whether they are its own. Each worker
// hands the TCP packets whose connection hashes to it (ConnectionHash.h) to a
// FlowTracker of its own, so every flow is handled by one thread, in the order
// of its packets; the sink must accept calls for different flows from
// different threads. The capture time of the other TCP segments reaches each
// tracker too, so that idle flows end at the segment they would end at on a
// single tracker.
//
// A frame that lies in a shared PcapBlock is not copied: the batch keeps a
// reference on the block until the last worker is done with the batch. Other
// frames are copied into the batch. Memory is bounded: kBatches batches
// circulate, a batch goes back when the last worker is done with it, and a
// worker about to read waits for one. A batch holds at most kBatchFrames
// frames, kBatchBytes of frame bytes but for its last frame, and frames of
// two blocks.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "capture/CaptureSource.h"
#include "capture/FlowSink.h"
#include "capture/FlowTracker.h"
#include "capture/PacketDecoder.h"
#include "capture/PcapBlock.h"

namespace pelka {

// Adds every counter of `more` to `total`.
void AddCounters(FlowTrackerCounters& total, const FlowTrackerCounters& more);

// What the workers read through, one call at a time but from any of them:
// - kFrame: `*frame` is the next frame. `*block` is the PcapBlock it lies in
//   (the pipeline takes references), or nullptr when the frame is valid only
//   until the next call (it is copied).
// - kTimeout: no frame now; the flows pass capture time `frame->time_us`
//   (0: none), and the frames read so far go to the workers at once. A live
//   capture answers it now and then so that its records are not held back.
// - kEnd: the input is over (kError counts as kEnd: report errors inside).
using FrameSource = std::function<ReadStatus(CapturedFrame* frame, PcapBlock** block)>;

class ParallelPipeline {
 public:
  static constexpr size_t kBatchFrames = 512;
  static constexpr size_t kBatchBytes = 256 * 1024;
  // How far the worker that is ahead may run before it waits for the one
  // behind: about 16 MiB of frames. A worker whose core is taken by another
  // process stops for a scheduler time slice (several milliseconds); with
  // less slack the one ahead soon waits too, and two threads lose to one.
  static constexpr size_t kBatches = 64;

  // `options.max_flows` and `options.max_held_bytes` are the bounds of the
  // whole run; each worker gets its share.
  ParallelPipeline(unsigned workers, FlowSink* sink, FlowTracker::Options options = {});
  ~ParallelPipeline();
  ParallelPipeline(const ParallelPipeline&) = delete;
  ParallelPipeline& operator=(const ParallelPipeline&) = delete;

  // Reads the whole input through `next` on the workers' threads and returns
  // once every worker has ended its flows. Only the first call reads. `live`:
  // frames arrive as they happen, and a batch is handed on after 50 ms.
  // `prefetch`, when given, is called by a worker that would otherwise wait
  // for the one reading; it may read ahead what `next` hands out later, and
  // answers whether it found anything to do.
  void Run(FrameSource next, bool live = false, std::function<bool()> prefetch = {});

  unsigned workers() const { return static_cast<unsigned>(workers_.size()); }
  // Each worker's share of `options.max_flows`.
  size_t max_flows_per_worker() const { return max_flows_per_worker_; }
  // The sums over the workers; complete after Run.
  FlowTrackerCounters counters() const;
  // What the frames decoded to, each frame counted once; complete after Run.
  DecoderCounters decoder_counters() const;

 private:
  struct Batch;
  class Worker;

  // Batch number `index` for a worker, read by the caller if nobody has read
  // it yet; nullptr once the input ended before it.
  Batch* Take(uint64_t index);
  // Fills `batch` through the source; false when the input is over.
  bool Fill(Batch& batch);
  // A worker is done with `batch`; the last one frees it.
  void Done(Batch* batch);
  // With the mutex held: wakes the waiting workers to look again.
  void Announce();

  std::mutex mutex_;
  std::condition_variable changed_;  // a batch was read or freed, or the input ended
  uint64_t changes_ = 0;             // counts those, so that none is missed
  std::vector<std::unique_ptr<Batch>> batches_;
  std::vector<Batch*> free_;
  std::vector<Batch*> read_;  // batch number n at n % kBatches, while some worker needs it
  uint64_t read_count_ = 0;
  bool reading_ = false;  // a worker is filling a batch
  bool ended_ = false;
  FrameSource source_;
  std::function<bool()> prefetch_;
  bool live_ = false;
  std::vector<std::unique_ptr<Worker>> workers_;
  bool ran_ = false;
  size_t max_flows_per_worker_ = 0;
};

}  // namespace pelka
