#include "capture/ParallelPipeline.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include "capture/ConnectionHash.h"

namespace pelka {

void AddCounters(FlowTrackerCounters& total, const FlowTrackerCounters& more) {
  total.packets += more.packets;
  total.not_mail += more.not_mail;
  total.flows_smtp += more.flows_smtp;
  total.flows_pop3 += more.flows_pop3;
  total.flows_imap += more.flows_imap;
  total.flows_declined += more.flows_declined;
  total.packets_delivered += more.packets_delivered;
  total.packets_ignored += more.packets_ignored;
  total.packets_after_end += more.packets_after_end;
  total.segments_held += more.segments_held;
  total.gaps_skipped += more.gaps_skipped;
  total.flows_idle += more.flows_idle;
  total.flows_evicted += more.flows_evicted;
}

// Frames for every worker: in shared blocks, or their bytes copied one after
// the other.
struct ParallelPipeline::Batch {
  struct Frame {
    const uint8_t* data;  // the frame in a block; nullptr: at `offset` in `bytes`
    uint32_t offset;
    uint32_t length;
    unsigned worker;  // from WorkerOfFrame: kAnyWorker when each worker decodes it to see
    int link_type;
    uint64_t number;
    uint64_t time_us;
  };

  std::vector<uint8_t> bytes;
  std::vector<Frame> frames;
  std::vector<PcapBlock*> blocks;  // one reference on each
  uint64_t advance_us = 0;          // capture time to pass after the frames; 0: none
  bool last = false;                // the workers finish after this batch
  std::atomic<unsigned> pending{0};  // workers not yet done with it

  // Only copied frames use `bytes`: it grows when first needed.
  Batch() { frames.reserve(kBatchFrames); }
  bool full() const { return frames.size() >= kBatchFrames || bytes.size() >= kBatchBytes; }
  void Hold(PcapBlock* block) {
    if (!blocks.empty() && blocks.back() == block) return;  // frames come in file order
    block->Ref();
    blocks.push_back(block);
  }
  void Clear() {
    for (PcapBlock* block : blocks) block->Unref();
    blocks.clear();
    bytes.clear();
    frames.clear();
    advance_us = 0;
    last = false;
  }
};

class ParallelPipeline::Worker {
 public:
  Worker(ParallelPipeline* pipeline, unsigned index, FlowSink* sink, FlowTracker::Options options)
      : pipeline_(pipeline), index_(index), tracker_(sink, options), queue_(kBatches, kBatches / 4) {}

  void Start() { thread_ = std::thread([this] { Run(); }); }
  // The reading thread's side. `wake`: the worker starts on it at once, even
  // when it waits for more.
  void Send(Batch* batch, bool wake) { queue_.Push(batch, wake); }
  void Wake() { queue_.Wake(); }
  void Join() { thread_.join(); }

  // Read after the thread was joined.
  const FlowTrackerCounters& counters() const { return tracker_.counters(); }
  const DecoderCounters& decoder_counters() const { return decoder_.counters(); }

 private:
  void Run() {
    for (;;) {
      Batch* batch = queue_.Pop();
      Handle(*batch);
      const bool last = batch->last;
      pipeline_->Done(batch);
      if (last) break;
    }
    tracker_.Finish();
  }

  void Handle(const Batch& batch) {
    const unsigned workers = pipeline_->workers();
    for (const Batch::Frame& frame : batch.frames) {
      if (frame.worker != kAnyWorker && frame.worker != index_) continue;
      const uint8_t* bytes = frame.data ? frame.data : batch.bytes.data() + frame.offset;
      // Each frame is counted once: by its worker, or else by the first.
      PacketDecoder& decoder = frame.worker == index_ || index_ == 0 ? decoder_ : uncounted_decoder_;
      if (decoder.Decode(frame.link_type, bytes, frame.length, &packet_) != DecodeStatus::kTcp) continue;
      if (frame.worker == kAnyWorker && WorkerOf(packet_, workers) != index_) continue;
      tracker_.OnPacket(packet_, bytes, frame.number, frame.time_us);
    }
    if (batch.advance_us) tracker_.Advance(batch.advance_us);
  }

  ParallelPipeline* pipeline_;
  unsigned index_;
  FlowTracker tracker_;
  PacketDecoder decoder_;
  PacketDecoder uncounted_decoder_;
  DecodedPacket packet_;
  BlockingQueue<Batch*> queue_;  // reader -> worker
  std::thread thread_;
};

ParallelPipeline::ParallelPipeline(unsigned workers, FlowSink* sink, FlowTracker::Options options)
    : free_(kBatches, kBatches / 4) {
  workers = std::max(1u, workers);
  options.max_flows = std::max<size_t>(1, options.max_flows / workers);
  for (size_t i = 0; i < kBatches; ++i) batches_.push_back(std::make_unique<Batch>());
  for (size_t i = 1; i < kBatches; ++i) free_.Push(batches_[i].get(), false);
  current_ = batches_[0].get();
  workers_.reserve(workers);
  for (unsigned i = 0; i < workers; ++i) workers_.push_back(std::make_unique<Worker>(this, i, sink, options));
  // Started once every worker exists: each reads the number of workers.
  for (const auto& worker : workers_) worker->Start();
}

ParallelPipeline::~ParallelPipeline() { Finish(); }

void ParallelPipeline::OnFrame(const CapturedFrame& frame, PcapBlock* block) {
  Batch& batch = *current_;
  const unsigned worker = WorkerOfFrame(frame.link_type, frame.data, frame.captured_length, workers());
  if (block) {
    batch.Hold(block);
    batch.frames.push_back(
        {frame.data, 0, frame.captured_length, worker, frame.link_type, frame.number, frame.time_us});
  } else {
    const auto offset = static_cast<uint32_t>(batch.bytes.size());
    batch.bytes.insert(batch.bytes.end(), frame.data, frame.data + frame.captured_length);
    batch.frames.push_back(
        {nullptr, offset, frame.captured_length, worker, frame.link_type, frame.number, frame.time_us});
  }
  if (batch.full()) Send(false);
}

void ParallelPipeline::Send(bool wake) {
  current_->pending.store(workers(), std::memory_order_relaxed);
  for (const auto& worker : workers_) worker->Send(current_, wake);
  if (current_->last) {
    current_ = nullptr;
    return;
  }
  if (free_.TryPop(&current_)) return;
  // Every other batch is with the workers: make sure none of them waits for
  // more before the reader waits for them.
  for (const auto& worker : workers_) worker->Wake();
  current_ = free_.Pop();
}

void ParallelPipeline::Done(Batch* batch) {
  if (batch->pending.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  if (batch->last) return;  // the reader is done: nobody takes it back
  batch->Clear();
  free_.Push(batch, false);
}

void ParallelPipeline::Flush() {
  if (finished_) return;
  // An empty batch too: it wakes a worker that waits for more batches.
  Send(true);
}

void ParallelPipeline::Advance(uint64_t time_us) {
  if (finished_ || time_us == 0) return;
  current_->advance_us = time_us;
  Send(true);
}

void ParallelPipeline::Finish() {
  if (finished_) return;
  finished_ = true;
  current_->last = true;
  Send(true);
  for (const auto& worker : workers_) worker->Join();
  // The last batch still holds its blocks; they go back before the pool does.
  for (const auto& batch : batches_)
    if (batch->last) batch->Clear();
}

FlowTrackerCounters ParallelPipeline::counters() const {
  FlowTrackerCounters total;
  for (const auto& worker : workers_) AddCounters(total, worker->counters());
  return total;
}

DecoderCounters ParallelPipeline::decoder_counters() const {
  DecoderCounters total;
  for (const auto& worker : workers_) {
    const DecoderCounters& more = worker->decoder_counters();
    total.frames += more.frames;
    total.tcp += more.tcp;
    total.not_tcp += more.not_tcp;
    total.fragments += more.fragments;
    total.truncated += more.truncated;
    total.malformed += more.malformed;
    total.unsupported_link += more.unsupported_link;
    total.payload_cut += more.payload_cut;
  }
  return total;
}

}  // namespace pelka
