#include "capture/ParallelPipeline.h"

#include <algorithm>

#include "capture/BlockingQueue.h"
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

// Frames for one worker: in shared blocks, or their bytes copied one after
// the other. The worker decodes
// each frame again: that costs less than handing the decoded form across,
// which is several times the size of this record.
struct ParallelPipeline::Batch {
  struct Frame {
    const uint8_t* data;  // the frame in a block; nullptr: at `offset` in `bytes`
    uint32_t offset;      // first byte of the frame in `bytes`
    uint32_t length;  // up to the end of the captured payload
    int link_type;
    uint64_t number;
    uint64_t time_us;
  };

  std::vector<uint8_t> bytes;
  std::vector<Frame> frames;
  std::vector<PcapBlock*> blocks;  // one reference on each
  uint64_t advance_us = 0;  // capture time to pass after the frames; 0: none
  bool last = false;        // the worker finishes after this batch

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
  Worker(FlowSink* sink, FlowTracker::Options options)
      : tracker_(sink, options),
        full_(kBatchesPerWorker, kBatchesPerWorker / 2),
        empty_(kBatchesPerWorker, kBatchesPerWorker / 2) {
    for (size_t i = 0; i + 1 < kBatchesPerWorker; ++i) {
      auto batch = std::make_unique<Batch>();
      batch->bytes.reserve(kBatchBytes + 2048);
      batch->frames.reserve(kBatchFrames);
      empty_.Push(std::move(batch));
    }
    current_ = std::make_unique<Batch>();
    current_->bytes.reserve(kBatchBytes + 2048);
    current_->frames.reserve(kBatchFrames);
    thread_ = std::thread([this] { Run(); });
  }

  // The reading thread's side.
  Batch& current() { return *current_; }
  // `wake`: the worker starts on it at once, even when it waits for more.
  void SendCurrent(bool wake) {
    full_.Push(std::move(current_), wake);
    current_ = empty_.Pop();
  }
  void SendLast() {
    current_->last = true;
    full_.Push(std::move(current_));
    thread_.join();
  }

  // Read after the thread was joined.
  const FlowTrackerCounters& counters() const { return tracker_.counters(); }

 private:
  void Run() {
    for (;;) {
      std::unique_ptr<Batch> batch = full_.Pop();
      Handle(*batch);
      const bool last = batch->last;
      batch->Clear();
      if (last) break;
      empty_.Push(std::move(batch), false);
    }
    tracker_.Finish();
  }

  void Handle(const Batch& batch) {
    for (const Batch::Frame& frame : batch.frames) {
      const uint8_t* bytes = frame.data ? frame.data : batch.bytes.data() + frame.offset;
      // The reader decoded these bytes as TCP already; only whole-frame
      // checks could differ, and they look at nothing beyond the payload.
      if (decoder_.Decode(frame.link_type, bytes, frame.length, &packet_) != DecodeStatus::kTcp) continue;
      tracker_.OnPacket(packet_, bytes, frame.number, frame.time_us);
    }
    if (batch.advance_us) tracker_.Advance(batch.advance_us);
  }

  FlowTracker tracker_;
  PacketDecoder decoder_;
  DecodedPacket packet_;
  BlockingQueue<std::unique_ptr<Batch>> full_;   // reader -> worker
  BlockingQueue<std::unique_ptr<Batch>> empty_;  // worker -> reader, for reuse
  std::unique_ptr<Batch> current_;               // being filled by the reader
  std::thread thread_;
};

ParallelPipeline::ParallelPipeline(unsigned workers, FlowSink* sink, FlowTracker::Options options) {
  workers = std::max(1u, workers);
  options.max_flows = std::max<size_t>(1, options.max_flows / workers);
  workers_.reserve(workers);
  for (unsigned i = 0; i < workers; ++i) workers_.push_back(std::make_unique<Worker>(sink, options));
}

ParallelPipeline::~ParallelPipeline() { Finish(); }

void ParallelPipeline::OnPacket(int link_type, const DecodedPacket& packet, const uint8_t* frame, PcapBlock* block,
                                uint64_t packet_number, uint64_t time_us) {
  Worker& worker = *workers_[WorkerOf(packet, workers())];
  Batch& batch = worker.current();
  // The tracker reads the frame up to the end of the captured payload only.
  const uint32_t length = packet.payload_offset + packet.payload_length;
  if (block) {
    batch.Hold(block);
    batch.frames.push_back({frame, 0, length, link_type, packet_number, time_us});
  } else {
    const auto offset = static_cast<uint32_t>(batch.bytes.size());
    batch.bytes.insert(batch.bytes.end(), frame, frame + length);
    batch.frames.push_back({nullptr, offset, length, link_type, packet_number, time_us});
  }
  if (batch.full()) worker.SendCurrent(false);
}

void ParallelPipeline::Flush() {
  if (finished_) return;
  // An empty batch too: it wakes a worker that waits for more batches.
  for (const auto& worker : workers_) worker->SendCurrent(true);
}

void ParallelPipeline::Advance(uint64_t time_us) {
  if (finished_ || time_us == 0) return;
  for (const auto& worker : workers_) {
    worker->current().advance_us = time_us;
    worker->SendCurrent(true);
  }
}

void ParallelPipeline::Finish() {
  if (finished_) return;
  finished_ = true;
  for (const auto& worker : workers_) worker->SendLast();
}

FlowTrackerCounters ParallelPipeline::counters() const {
  FlowTrackerCounters total;
  for (const auto& worker : workers_) AddCounters(total, worker->counters());
  return total;
}

}  // namespace pelka
