#include "capture/CapturePipeline.h"

namespace pelka {
namespace {

// Blocks shared by the workers: a block holds several batches' frames, and the
// largest record (256 KiB) fits in one. Enough for the batches in flight
// (ParallelPipeline::kBatches, at most two blocks each but mostly sharing
// them) to cover the run-ahead of a worker whose partner lost its core;
// blocks are made only when needed, so a quiet run touches a few.
constexpr size_t kParallelBlocks = 40;
constexpr size_t kParallelBlockBytes = 512 * 1024;

static_assert(FlowTracker::Options{}.idle_timeout_us == uint64_t{kDefaultIdleTimeoutSeconds} * 1000000);
static_assert(FlowTracker::Options{}.max_held_bytes == size_t{kDefaultHoldLimitMiB} << 20);

FlowTracker::Options TrackerOptions(const ProgramOptions& options) {
  FlowTracker::Options tracker;
  tracker.idle_timeout_us = uint64_t{options.idle_timeout_seconds} * 1000000;
  tracker.max_held_bytes = size_t{options.hold_limit_mib} << 20;
  return tracker;
}

}  // namespace

Pipeline::Pipeline(const ProgramOptions& options, FlowSink* sink) : hold_limit_mib(options.hold_limit_mib) {
  const bool read_blocks = options.interface_name.empty() && options.user.empty();
  if (options.threads > 1) {
    parallel = std::make_unique<ParallelPipeline>(options.threads, sink, TrackerOptions(options));
    // A worker reading waits for blocks the others still use: enough for
    // the batches in flight to hold some each.
    if (read_blocks) pool = std::make_unique<PcapBlockPool>(kParallelBlocks, kParallelBlockBytes);
  } else {
    tracker = std::make_unique<FlowTracker>(sink, TrackerOptions(options));
    // The blocks read ahead and the one walked, and one more, so that the
    // read ahead never waits for the walk to let go of its block.
    if (read_blocks) pool = std::make_unique<PcapBlockPool>(PcapBlockReader::kMaxAhead + 2);
  }
  if (pool) blocks = std::make_unique<PcapBlockReader>(pool.get());
}

DecoderCounters Pipeline::decoder_counters() const {
  return parallel ? parallel->decoder_counters() : decoder.counters();
}

FlowTrackerCounters Pipeline::flow_counters() const {
  if (parallel) return parallel->counters();
  return tracker ? tracker->counters() : FlowTrackerCounters{};
}

void WarnAboutSkippedParts(const std::string& inputs_label, const Pipeline& pipeline, std::ostream& err) {
  const DecoderCounters frames = pipeline.decoder_counters();
  const FlowTrackerCounters flows = pipeline.flow_counters();
  const std::string prefix = std::string(kProgramName) + ": warning: " + inputs_label + ": ";
  if (frames.payload_cut) {
    err << prefix << frames.payload_cut
        << " TCP segments were cut short by the capture's snap length; mail text in them is incomplete\n";
  }
  if (const uint64_t damaged = frames.truncated + frames.malformed) {
    err << prefix << damaged << " frames were skipped: their headers are cut short or contradict the frame\n";
  }
  if (const uint64_t odd = pipeline.odd_time_frames()) {
    err << prefix << odd << " records are damaged: their time stamp's fraction is a second or more; "
        << "it was carried into the seconds\n";
  }
  if (const int64_t dropped = pipeline.kernel_drops(); dropped > 0) {
    err << prefix << "the kernel dropped " << dropped << " packets that the program did not take in time; "
        << "mail in them is lost (a larger --buffer-size or a narrower --filter helps)\n";
  }
  const std::vector<LongRecordFile>& long_records =
      pipeline.blocks ? pipeline.blocks->long_record_files() : pipeline.source.long_record_files();
  for (const LongRecordFile& file : long_records) {
    err << kProgramName << ": warning: " << file.name << ": records are longer than the snap length of "
        << file.header_snap_length << " bytes its header states; they were read whole, as the file holds them\n";
  }
  if (flows.hold_limit_gaps) {
    err << prefix << "the out-of-order data held back over all connections reached --hold-limit ("
        << pipeline.hold_limit_mib << " MiB) " << flows.hold_limit_gaps
        << " times; each time the data held longest went on with its gap skipped, so mail text there is "
           "incomplete (a larger --hold-limit keeps more)\n";
  }
  if (!flows.flows_evicted) return;
  err << prefix << flows.flows_evicted << " connections were ended early because more than ";
  // Each worker keeps its own share of the bound: one share filling up is
  // enough, whatever the others hold.
  if (const ParallelPipeline* workers = pipeline.parallel.get()) {
    err << workers->max_flows_per_worker() << " were open at once in one thread (each of the "
        << workers->workers() << " threads keeps its share of " << FlowTracker::Options{}.max_flows << ")\n";
  } else {
    err << FlowTracker::Options{}.max_flows << " were open at once\n";
  }
}

}  // namespace pelka
