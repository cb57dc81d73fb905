// The parts a run reads its captures with, assembled for its options:
//
//   CaptureSource or PcapBlockReader -> PacketDecoder -> FlowTracker -> sink
//
// With --threads above 1 the flows go to the workers' trackers
// (ParallelPipeline) instead of one tracker. Capture files are read in blocks
// whose frames are analysed in place (PcapBlockReader); a live interface, and
// files opened ahead for --user, are read through CaptureSource.
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include "capture/CaptureSource.h"
#include "capture/CommandLine.h"
#include "capture/FlowSink.h"
#include "capture/FlowTracker.h"
#include "capture/PacketDecoder.h"
#include "capture/ParallelPipeline.h"
#include "capture/PcapBlock.h"
#include "capture/PcapBlockReader.h"

namespace pelka {

struct Pipeline {
  // Sets up the parts for `options`, delivering flows to `sink`.
  Pipeline(const ProgramOptions& options, FlowSink* sink);

  CaptureSource source;
  PacketDecoder decoder;
  // Declared before the workers, which hand blocks back until they end.
  std::unique_ptr<PcapBlockPool> pool;
  std::unique_ptr<PcapBlockReader> blocks;  // null: read through `source`
  std::unique_ptr<FlowTracker> tracker;       // null: the workers track
  std::unique_ptr<ParallelPipeline> parallel;
  uint32_t hold_limit_mib;  // --hold-limit, for the warning when it was reached

  uint64_t bytes_read() const { return blocks ? blocks->bytes_read() : source.bytes_read(); }
  uint64_t total_bytes() const { return blocks ? blocks->total_bytes() : source.total_bytes(); }
  uint64_t frames_read() const { return blocks ? blocks->frames_read() : source.frames_read(); }
  uint64_t odd_time_frames() const { return blocks ? blocks->odd_time_frames() : source.odd_time_frames(); }
  // Live capture: the kernel's drop count; -1 otherwise.
  int64_t kernel_drops() const { return source.kernel_drops(); }

  // Ends the open flows. The workers end theirs when they have read
  // everything.
  void Finish() {
    if (tracker) tracker->Finish();
  }
  DecoderCounters decoder_counters() const;
  FlowTrackerCounters flow_counters() const;
};

// A capture that reads to its end may still have lost mail text: frames cut
// by the snap length, headers that contradict the frame, connections pushed
// out by the live-connection bound, gaps skipped at the hold limit, packets the
// kernel dropped; and records with a damaged time stamp were read with a time
// carried into the seconds. Each is said once on `err`, with its
// count, naming the inputs (`inputs_label`).
void WarnAboutSkippedParts(const std::string& inputs_label, const Pipeline& pipeline, std::ostream& err);

}  // namespace pelka
