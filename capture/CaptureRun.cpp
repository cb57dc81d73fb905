#include "capture/CaptureRun.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "capture/CaptureSource.h"
#include "capture/FlowTracker.h"
#include "capture/HostServices.h"
#include "capture/MessageFilter.h"
#include "capture/ModuleLoader.h"
#include "capture/ParallelPipeline.h"
#include "capture/PacketDecoder.h"
#include "capture/PcapBlockReader.h"
#include "capture/PrivilegeDrop.h"
#include "capture/Progress.h"
#include "capture/RunSummary.h"
#include "host/CodePage.h"

namespace pelka {
namespace {

constexpr const char* kProgramName = "pelka-email";
// Blocks shared by the workers: a block holds several batches' frames, and the
// largest record (256 KiB) fits in one.
constexpr size_t kParallelBlocks = 16;
constexpr size_t kParallelBlockBytes = 512 * 1024;
// The module library reads its ANSI code page from here when it is loaded:
// it keeps its own copy of the conversion layer.
constexpr const char* kCodePageVariable = "PELKA_ANSI_CODE_PAGE";

// The sources a signal stops. Only the run in progress sets them.
std::atomic<CaptureSource*> g_stoppable_source{nullptr};
std::atomic<PcapBlockReader*> g_stoppable_blocks{nullptr};
std::atomic<bool> g_stop_requested{false};

extern "C" void StopOnSignal(int) {
  g_stop_requested.store(true);
  if (CaptureSource* source = g_stoppable_source.load()) source->Stop();
  if (PcapBlockReader* blocks = g_stoppable_blocks.load()) blocks->Stop();
}

// Installs the stop handlers for the time of a run and puts the old ones back.
class SignalScope {
 public:
  SignalScope(CaptureSource* source, PcapBlockReader* blocks) {
    g_stop_requested.store(false);
    g_stoppable_source.store(source);
    g_stoppable_blocks.store(blocks);
    struct sigaction action {};
    action.sa_handler = StopOnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &old_int_);
    sigaction(SIGTERM, &action, &old_term_);
  }
  ~SignalScope() {
    sigaction(SIGINT, &old_int_, nullptr);
    sigaction(SIGTERM, &old_term_, nullptr);
    g_stoppable_source.store(nullptr);
    g_stoppable_blocks.store(nullptr);
  }
  SignalScope(const SignalScope&) = delete;
  SignalScope& operator=(const SignalScope&) = delete;

 private:
  struct sigaction old_int_ {};
  struct sigaction old_term_ {};
};

std::string AbsolutePath(const std::string& path) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.lexically_normal().string();
}

std::string WithoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// The string table of the chosen language lives in resources/<lang>/ beside
// the library; "none" gives a folder without one.
std::string ResourceDirectory(const std::string& library_path, TextLanguage language) {
  const std::filesystem::path library_dir = std::filesystem::path(library_path).parent_path();
  const std::filesystem::path resources = library_dir / "resources";
  if (language == TextLanguage::kNone) return (resources / "none").string() + "/";
  return (resources / LanguageFolder(language)).string() + "/";
}

uint64_t NowMicroseconds() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
}

std::string LocateModule(std::ostream& err) {
  const char* env = std::getenv("PELKA_MODULE");
  const std::vector<std::string> candidates = ModuleCandidates(ExecutableDirectory(), env ? env : "");
  std::string found = FindModuleLibrary(candidates);
  if (found.empty()) {
    err << kProgramName << ": cannot find the e-mail module " << kModuleLibraryName << "; looked for:\n";
    for (const std::string& candidate : candidates) err << "  " << candidate << "\n";
    err << "Set PELKA_MODULE to the library's path.\n";
  }
  return found;
}

// Everything the reading loop touches. Flows go to the tracker, or with
// --threads above 1 to the workers' trackers; those read capture files
// through the block reader, whose blocks the workers share.
struct Pipeline {
  CaptureSource source;
  PacketDecoder decoder;
  // Declared before the workers, which hand blocks back until they end.
  std::unique_ptr<PcapBlockPool> pool;
  std::unique_ptr<PcapBlockReader> blocks;
  std::unique_ptr<FlowTracker> tracker;
  std::unique_ptr<ParallelPipeline> parallel;

  uint64_t bytes_read() const { return blocks ? blocks->bytes_read() : source.bytes_read(); }
  uint64_t total_bytes() const { return blocks ? blocks->total_bytes() : source.total_bytes(); }
  uint64_t frames_read() const { return blocks ? blocks->frames_read() : source.frames_read(); }

  // The workers end their flows when they have read everything.
  void Finish() {
    if (tracker) tracker->Finish();
  }
  DecoderCounters decoder_counters() const {
    return parallel ? parallel->decoder_counters() : decoder.counters();
  }
  FlowTrackerCounters flow_counters() const {
    if (parallel) return parallel->counters();
    return tracker ? tracker->counters() : FlowTrackerCounters{};
  }
};

// The next frame and, from the block reader, the block it lies in.
ReadStatus NextFrame(CaptureSource& source, CapturedFrame* frame, PcapBlock** block) {
  *block = nullptr;
  return source.Next(frame);
}
ReadStatus NextFrame(PcapBlockReader& blocks, CapturedFrame* frame, PcapBlock** block) {
  return blocks.Next(frame, block);
}

// The next frame, a timeout or the end of `source` (a CaptureSource or a
// PcapBlockReader). A damaged or unreadable input is reported and reading goes
// on with the next; `inputs_ok` turns false then.
template <typename Source>
ReadStatus NextForFlows(Source& source, CapturedFrame* frame, PcapBlock** block, Progress& progress,
                        bool& inputs_ok, std::ostream& err) {
  for (;;) {
    const ReadStatus status = NextFrame(source, frame, block);
    switch (status) {
      case ReadStatus::kFrame:
        progress.Tick();
        return status;
      case ReadStatus::kTimeout:
        progress.Poll();
        return status;
      case ReadStatus::kError:
        // A read cut short by the stop signal is the stop, not damage.
        if (g_stop_requested.load()) break;
        progress.Clear();
        err << kProgramName << ": " << source.error() << "\n";
        inputs_ok = false;
        break;
      case ReadStatus::kEnd:
        return status;
    }
  }
}

// Reads every frame of `source` into one tracker; false when an input was
// damaged or unreadable.
template <typename Source>
bool ReadAll(Source& source, Pipeline& pipeline, HostServices& services, Progress& progress, std::ostream& err) {
  bool inputs_ok = true;
  CapturedFrame frame;
  PcapBlock* block = nullptr;
  DecodedPacket packet;
  FlowTracker& tracker = *pipeline.tracker;
  for (;;) {
    switch (NextForFlows(source, &frame, &block, progress, inputs_ok, err)) {
      case ReadStatus::kFrame:
        if (pipeline.decoder.Decode(frame.link_type, frame.data, frame.captured_length, &packet) ==
            DecodeStatus::kTcp) {
          tracker.OnPacket(packet, frame.data, frame.number, frame.time_us);
        }
        break;
      case ReadStatus::kTimeout:
        tracker.Advance(NowMicroseconds());
        services.FlushOutputs();
        break;
      default:
        return inputs_ok;
    }
  }
}

// The same with the workers, which read `source` in turn.
template <typename Source>
bool ReadAllInWorkers(Source& source, Pipeline& pipeline, HostServices& services, Progress& progress,
                      std::ostream& err) {
  bool inputs_ok = true;
  std::function<bool()> prefetch;
  if constexpr (std::is_same_v<Source, PcapBlockReader>) prefetch = [&source] { return source.Prefetch(); };
  pipeline.parallel->Run(
      [&](CapturedFrame* frame, PcapBlock** block) {
        const ReadStatus status = NextForFlows(source, frame, block, progress, inputs_ok, err);
        if (status == ReadStatus::kTimeout) {
          frame->time_us = NowMicroseconds();
          services.FlushOutputs();
        }
        return status;
      },
      source.live(), std::move(prefetch));
  return inputs_ok;
}

bool OpenInputs(const ProgramOptions& options, Pipeline& pipeline, std::ostream& err) {
  CaptureSource& source = pipeline.source;
  if (pipeline.blocks) {
    pipeline.blocks->OpenFiles(options.inputs);
    return true;
  }
  if (options.interface_name.empty()) {
    source.OpenFiles(options.inputs);
    // Read as root, even after --user switches away from it.
    if (!options.user.empty()) source.OpenAllFilesNow();
    return true;
  }
  if (source.OpenLive(options.interface_name)) return true;
  err << kProgramName << ": " << source.error() << "\n";
  return false;
}

// Opens the inputs and reads them to the end or to a stop signal; false when
// an input could not be opened or read.
bool ReadCaptures(const ProgramOptions& options, Pipeline& pipeline, HostServices& services, PrivilegeDrop& drop,
                  std::ostream& err) {
  if (!OpenInputs(options, pipeline, err)) return false;
  if (std::string problem; !drop.Apply(&problem)) {
    err << kProgramName << ": " << problem << "\n";
    return false;
  }
  SignalScope signals(&pipeline.source, pipeline.blocks.get());
  Progress progress(Progress::Wanted(options.quiet), [&pipeline, &services] {
    return ProgressFigures{pipeline.bytes_read(), pipeline.total_bytes(), pipeline.frames_read(),
                           services.counts().records};
  });
  if (pipeline.parallel && pipeline.blocks) {
    return ReadAllInWorkers(*pipeline.blocks, pipeline, services, progress, err);
  }
  if (pipeline.parallel) return ReadAllInWorkers(pipeline.source, pipeline, services, progress, err);
  if (pipeline.blocks) return ReadAll(*pipeline.blocks, pipeline, services, progress, err);
  return ReadAll(pipeline.source, pipeline, services, progress, err);
}

// What the inputs were, for messages: the files, or the interface.
std::string InputsLabel(const ProgramOptions& options) {
  if (!options.interface_name.empty()) return options.interface_name;
  std::string label;
  for (const std::string& input : options.inputs) label += (label.empty() ? "" : ", ") + input;
  return label;
}

// A capture that reads to its end may still have lost mail text: frames cut
// by the snap length, headers that contradict the frame, connections pushed
// out by the live-connection bound. Each is said once, with its count.
void WarnAboutSkippedParts(const ProgramOptions& options, const Pipeline& pipeline, std::ostream& err) {
  const DecoderCounters frames = pipeline.decoder_counters();
  const FlowTrackerCounters flows = pipeline.flow_counters();
  const std::string prefix = std::string(kProgramName) + ": warning: " + InputsLabel(options) + ": ";
  if (frames.payload_cut) {
    err << prefix << frames.payload_cut
        << " TCP segments were cut short by the capture's snap length; mail text in them is incomplete\n";
  }
  if (const uint64_t damaged = frames.truncated + frames.malformed) {
    err << prefix << damaged << " frames were skipped: their headers are cut short or contradict the frame\n";
  }
  if (!flows.flows_evicted) return;
  err << prefix << flows.flows_evicted << " connections were ended early because more than ";
  // Each worker keeps its own share of the bound: one share filling up is
  // enough, whatever the others hold.
  if (const ParallelPipeline* parallel = pipeline.parallel.get()) {
    err << parallel->max_flows_per_worker() << " were open at once in one thread (each of the "
        << parallel->workers() << " threads keeps its share of " << FlowTracker::Options{}.max_flows << ")\n";
  } else {
    err << FlowTracker::Options{}.max_flows << " were open at once\n";
  }
}

HostOptions MakeHostOptions(const ProgramOptions& options, const std::string& library_path) {
  HostOptions host;
  host.out_dir = options.out_dir;
  host.copies = options.copies;
  host.resource_dir = ResourceDirectory(library_path, options.language);
  host.diagnosis_enabled = options.diagnosis;
  host.smtp_threshold_ms = options.smtp_threshold_ms;
  host.pop3_threshold_ms = options.pop3_threshold_ms;
  // Someone watching an interface or a pipe expects each message's lines as
  // it is found; files are read too fast for that to matter.
  host.lines_at_once = !options.interface_name.empty() ||
                       std::find(options.inputs.begin(), options.inputs.end(), "-") != options.inputs.end();
  return host;
}

RunFacts CollectFacts(const ProgramOptions& options, const Pipeline& pipeline, const HostServices& services,
                      double elapsed_seconds) {
  RunFacts facts;
  facts.out_dir = WithoutTrailingSlash(AbsolutePath(options.out_dir));
  facts.copies = options.copies;
  facts.interrupted = g_stop_requested.load();
  facts.packets = pipeline.frames_read();
  facts.bytes = pipeline.bytes_read();
  facts.elapsed_seconds = elapsed_seconds;
  const FlowTrackerCounters flows = pipeline.flow_counters();
  facts.connections_smtp = flows.flows_smtp;
  facts.connections_pop3 = flows.flows_pop3;
  facts.connections_imap = flows.flows_imap;
  facts.reports_by_event = services.counts().reports_by_event;
  return facts;
}

}  // namespace

int RunCapture(const ProgramOptions& options, std::ostream& out, std::ostream& err) {
  const auto started = std::chrono::steady_clock::now();
  PrivilegeDrop drop(options.user, options.out_dir);
  if (std::string problem; !drop.Check(&problem)) {
    err << kProgramName << ": " << problem << "\n";
    return kExitUsage;
  }
  SetAnsiCodePage(options.code_page);
  ::setenv(kCodePageVariable, std::to_string(options.code_page).c_str(), 1);

  const std::string library_path = LocateModule(err);
  if (library_path.empty()) return kExitInputProblem;

  // Declared before the module, so that the module object is released while
  // the host services it holds still exist.
  HostServices services(MakeHostOptions(options, library_path));
  if (!services.Open()) {
    err << kProgramName << ": " << services.error() << "\n";
    return kExitInputProblem;
  }
  // Declared before the module it stands in front of: the module may use it
  // until the module object is released.
  std::unique_ptr<MessageFilter> filter;
  std::string error;
  std::unique_ptr<LoadedModule> module = LoadedModule::Load(library_path, &error);
  if (!module) {
    err << kProgramName << ": " << error << "\n";
    services.FinishRun(nullptr);
    return kExitInputProblem;
  }
  CPAEBaseModule* main_table = module->main_table();
  if (options.conditions) {
    filter = std::make_unique<MessageFilter>(*options.conditions, main_table);
    main_table = filter->main_table();
  }
  services.StartModule(main_table);
  if (!module->ApplyOptions(options.max_flow_length_mib, &error)) err << kProgramName << ": " << error << "\n";

  Pipeline pipeline;
  // Capture files are read in blocks whose frames are analysed in place;
  // files opened ahead for --user stay with CaptureSource.
  const bool read_blocks = options.interface_name.empty() && options.user.empty();
  if (options.threads > 1) {
    pipeline.parallel = std::make_unique<ParallelPipeline>(options.threads, services.flow_sink());
    // A worker reading waits for blocks the others still use: enough for
    // the batches in flight to hold some each.
    if (read_blocks) pipeline.pool = std::make_unique<PcapBlockPool>(kParallelBlocks, kParallelBlockBytes);
  } else {
    pipeline.tracker = std::make_unique<FlowTracker>(services.flow_sink());
    // The reader takes the next block before it lets go of the current one.
    if (read_blocks) pipeline.pool = std::make_unique<PcapBlockPool>(2);
  }
  if (pipeline.pool) pipeline.blocks = std::make_unique<PcapBlockReader>(pipeline.pool.get());
  const bool inputs_ok = ReadCaptures(options, pipeline, services, drop, err);
  pipeline.Finish();
  WarnAboutSkippedParts(options, pipeline, err);
  const bool outputs_ok = services.FinishRun(main_table);
  if (!outputs_ok) err << kProgramName << ": " << services.error() << "\n";

  if (!options.quiet) {
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - started;
    const RunFacts facts = CollectFacts(options, pipeline, services, elapsed.count());
    PrintSummary(out, facts, ReadMessageDigest(facts.out_dir + "/emails.jsonl", kSummaryRows));
  }
  return inputs_ok && outputs_ok ? kExitDone : kExitInputProblem;
}

}  // namespace pelka
