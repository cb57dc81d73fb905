#include "capture/ParallelPipeline.h"

#include <algorithm>
#include <atomic>
#include <chrono>
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
  total.hold_limit_gaps += more.hold_limit_gaps;
  total.flows_idle += more.flows_idle;
  total.flows_evicted += more.flows_evicted;
}

namespace {

constexpr auto kBatchAge = std::chrono::milliseconds(50);
constexpr size_t kFreeBatchesToWake = ParallelPipeline::kBatches / 4;

void AddDecoderCounters(DecoderCounters& total, const DecoderCounters& more) {
  total.frames += more.frames;
  total.tcp += more.tcp;
  total.not_tcp += more.not_tcp;
  total.fragments += more.fragments;
  total.truncated += more.truncated;
  total.malformed += more.malformed;
  total.unsupported_link += more.unsupported_link;
  total.payload_cut += more.payload_cut;
}

}  // namespace

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
  uint64_t frame_bytes = 0;
  uint64_t advance_us = 0;           // capture time to pass after the frames; 0: none
  std::atomic<unsigned> pending{0};  // workers not yet done with it

  // Only copied frames use `bytes`: it grows when first needed.
  Batch() { frames.reserve(kBatchFrames); }
  // Holding a second block ends a batch too: a worker reading then waits for
  // at most one free block, so a pool of two blocks never stalls the workers.
  bool full() const { return frames.size() >= kBatchFrames || frame_bytes >= kBatchBytes || blocks.size() >= 2; }
  bool empty() const { return frames.empty() && advance_us == 0; }

  void Add(const CapturedFrame& frame, PcapBlock* block, unsigned workers) {
    const unsigned worker = WorkerOfFrame(frame.link_type, frame.data, frame.captured_length, workers);
    frame_bytes += frame.captured_length;
    if (block) {
      Hold(block);
      frames.push_back({frame.data, 0, frame.captured_length, worker, frame.link_type, frame.number, frame.time_us});
      return;
    }
    const auto offset = static_cast<uint32_t>(bytes.size());
    bytes.insert(bytes.end(), frame.data, frame.data + frame.captured_length);
    frames.push_back({nullptr, offset, frame.captured_length, worker, frame.link_type, frame.number, frame.time_us});
  }
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
    frame_bytes = 0;
    advance_us = 0;
  }
};

class ParallelPipeline::Worker {
 public:
  Worker(ParallelPipeline* pipeline, unsigned index, FlowSink* sink, FlowTracker::Options options)
      : pipeline_(pipeline), index_(index), tracker_(sink, options) {}

  void Start() { thread_ = std::thread([this] { Run(); }); }
  void Join() {
    if (thread_.joinable()) thread_.join();
  }

  // Read after the thread was joined.
  const FlowTrackerCounters& counters() const { return tracker_.counters(); }
  const DecoderCounters& decoder_counters() const { return decoder_.counters(); }

 private:
  void Run() {
    for (uint64_t index = 0;; ++index) {
      Batch* batch = pipeline_->Take(index);
      if (!batch) break;
      Handle(*batch);
      pipeline_->Done(batch);
    }
    tracker_.Finish();
  }

  void Handle(const Batch& batch) {
    const unsigned workers = pipeline_->workers();
    // Another worker's TCP segment still ends the flows here that were idle
    // before it, as it would on a single tracker.
    for (const Batch::Frame& frame : batch.frames) {
      if (frame.worker != kAnyWorker && frame.worker != index_) {
        tracker_.Advance(frame.time_us);
        continue;
      }
      const uint8_t* bytes = frame.data ? frame.data : batch.bytes.data() + frame.offset;
      // Each frame is counted once: by its worker, or else by the first.
      PacketDecoder& decoder = frame.worker == index_ || index_ == 0 ? decoder_ : uncounted_decoder_;
      if (decoder.Decode(frame.link_type, bytes, frame.length, &packet_) != DecodeStatus::kTcp) continue;
      if (frame.worker == kAnyWorker && WorkerOf(packet_, workers) != index_) {
        tracker_.Advance(frame.time_us);
        continue;
      }
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
  std::thread thread_;
};

ParallelPipeline::ParallelPipeline(unsigned workers, FlowSink* sink, FlowTracker::Options options)
    : read_(kBatches, nullptr) {
  workers = std::max(1u, workers);
  options.max_flows = std::max<size_t>(1, options.max_flows / workers);
  max_flows_per_worker_ = options.max_flows;
  options.max_held_bytes /= workers;
  for (size_t i = 0; i < kBatches; ++i) {
    batches_.push_back(std::make_unique<Batch>());
    free_.push_back(batches_.back().get());
  }
  workers_.reserve(workers);
  for (unsigned i = 0; i < workers; ++i) workers_.push_back(std::make_unique<Worker>(this, i, sink, options));
}

ParallelPipeline::~ParallelPipeline() { Run([](CapturedFrame*, PcapBlock**) { return ReadStatus::kEnd; }); }

void ParallelPipeline::Run(FrameSource next, bool live, std::function<bool()> prefetch) {
  if (ran_) return;
  ran_ = true;
  source_ = std::move(next);
  prefetch_ = std::move(prefetch);
  live_ = live;
  // Started once every worker exists: each reads the number of workers.
  for (const auto& worker : workers_) worker->Start();
  for (const auto& worker : workers_) worker->Join();
  // The workers are gone: nobody else touches the batches now.
  for (const auto& batch : batches_) batch->Clear();
}

ParallelPipeline::Batch* ParallelPipeline::Take(uint64_t index) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (index < read_count_) return read_[index % kBatches];
    if (ended_) return nullptr;
    if (!reading_ && !free_.empty()) {
      reading_ = true;
      Batch* batch = free_.back();
      free_.pop_back();
      lock.unlock();
      const bool more = Fill(*batch);
      lock.lock();
      reading_ = false;
      if (batch->empty()) {
        free_.push_back(batch);
      } else {
        batch->pending.store(workers(), std::memory_order_relaxed);
        read_[read_count_++ % kBatches] = batch;
      }
      if (!more) ended_ = true;
      Announce();
      continue;
    }
    // Another worker is reading, or every batch is still in use: read a block
    // ahead for whoever reads next. What happened meanwhile was announced
    // while nobody waited here: it is seen by its count, not by a wake-up.
    const uint64_t seen = changes_;
    if (prefetch_) {
      lock.unlock();
      const bool fetched = prefetch_();
      lock.lock();
      if (fetched) continue;
    }
    changed_.wait(lock, [&] { return changes_ != seen; });
  }
}

bool ParallelPipeline::Fill(Batch& batch) {
  CapturedFrame frame;
  PcapBlock* block = nullptr;
  // A live capture's frames may trickle in: a batch is handed on when it is
  // old enough, so that records are not held back.
  const auto started = std::chrono::steady_clock::now();
  while (!batch.full()) {
    if (live_ && !batch.frames.empty() && std::chrono::steady_clock::now() - started > kBatchAge) return true;
    switch (source_(&frame, &block)) {
      case ReadStatus::kFrame:
        batch.Add(frame, block, workers());
        break;
      case ReadStatus::kTimeout:
        batch.advance_us = frame.time_us;
        return true;
      case ReadStatus::kEnd:
      case ReadStatus::kError:
        return false;
    }
  }
  return true;
}

void ParallelPipeline::Done(Batch* batch) {
  if (batch->pending.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  batch->Clear();
  const std::lock_guard<std::mutex> lock(mutex_);
  free_.push_back(batch);
  // A worker that waits for a batch to read into is ahead of another one: it
  // is woken when it can read several, not for each batch the other frees.
  if (free_.size() == kFreeBatchesToWake) Announce();
}

void ParallelPipeline::Announce() {
  ++changes_;
  changed_.notify_all();
}

FlowTrackerCounters ParallelPipeline::counters() const {
  FlowTrackerCounters total;
  for (const auto& worker : workers_) AddCounters(total, worker->counters());
  return total;
}

DecoderCounters ParallelPipeline::decoder_counters() const {
  DecoderCounters total;
  for (const auto& worker : workers_) AddDecoderCounters(total, worker->decoder_counters());
  return total;
}

}  // namespace pelka
