// Flows spread over several worker threads.
//
// The reading thread decodes frames as before and hands each TCP packet to
// OnPacket, which picks the packet's worker by a hash of its connection
// (ConnectionHash.h) and adds the frame to that worker's current batch; the
// worker decodes it again. A frame that lies in a shared PcapBlock is not
// copied: the batch keeps a reference on the block until the worker is done
// with it. Other frames are copied into the batch.
// A full batch (kBatchFrames frames or kBatchBytes bytes) goes to the worker
// through a queue. Each worker owns a FlowTracker of its own and feeds the
// sink, so every flow is handled by one thread, in the order of its packets;
// the sink must accept calls for different flows from different threads.
//
// Memory is bounded: each worker has kBatchesPerWorker batches, handed back
// and forth; when a worker falls behind, the reader waits for its batches to
// come back. A thread that waits is woken for half the batches at once, not
// for each: on a virtual machine a wake-up costs as much as a batch's work.
// Advance and Finish wake the workers at once, so a live capture's records
// are not held back. Batch buffers are reused, so a packet costs at most a
// copy but no allocation once the buffers have grown.
//
// Finish (also at destruction) sends the partial batches, lets every tracker
// end its flows on its own thread and joins the workers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "capture/FlowSink.h"
#include "capture/FlowTracker.h"
#include "capture/PacketDecoder.h"
#include "capture/PcapBlock.h"

namespace pelka {

// Adds every counter of `more` to `total`.
void AddCounters(FlowTrackerCounters& total, const FlowTrackerCounters& more);

class ParallelPipeline {
 public:
  static constexpr size_t kBatchFrames = 256;
  static constexpr size_t kBatchBytes = 256 * 1024;
  static constexpr size_t kBatchesPerWorker = 16;

  // `options.max_flows` is the bound of the whole run; each worker gets its
  // share.
  ParallelPipeline(unsigned workers, FlowSink* sink, FlowTracker::Options options = {});
  ~ParallelPipeline();
  ParallelPipeline(const ParallelPipeline&) = delete;
  ParallelPipeline& operator=(const ParallelPipeline&) = delete;

  // Same meaning as FlowTracker's, with the frame's link type: `packet` is
  // what `frame` decodes to, and the frame's bytes up to the end of the
  // captured payload are copied before OnPacket returns.
  void OnPacket(int link_type, const DecodedPacket& packet, const uint8_t* frame, uint64_t packet_number,
                uint64_t time_us) {
    OnPacket(link_type, packet, frame, nullptr, packet_number, time_us);
  }
  // `frame` lies in `block`, which keeps it until the worker is done; with
  // `block` nullptr the frame is copied.
  void OnPacket(int link_type, const DecodedPacket& packet, const uint8_t* frame, PcapBlock* block,
                uint64_t packet_number, uint64_t time_us);
  // Sends every worker its batch so far and wakes it, so that the blocks the
  // batches hold come back (the reader waits for a free block).
  void Flush();
  // Capture time moved on without a packet: every worker gets its batch so
  // far and then the new time.
  void Advance(uint64_t time_us);
  // End of input. Only the first call acts.
  void Finish();

  unsigned workers() const { return static_cast<unsigned>(workers_.size()); }
  // The sum over the workers; complete after Finish.
  FlowTrackerCounters counters() const;

 private:
  struct Batch;
  class Worker;

  std::vector<std::unique_ptr<Worker>> workers_;
  bool finished_ = false;
};

}  // namespace pelka
