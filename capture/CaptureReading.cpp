#include "capture/CaptureReading.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "capture/Progress.h"
#include "capture/ReadLimits.h"
#include "capture/StatisticsRefresh.h"
#include "capture/StopSignal.h"

namespace pelka {
namespace {

// How long a quiet interface or pipe is waited for before the frames read so
// far are handed on and the outputs flushed.
constexpr int kQuietInputMs = 100;

uint64_t NowMicroseconds() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
}

// The next frame and, from the block reader, the block it lies in.
ReadStatus NextFrame(CaptureSource& source, CapturedFrame* frame, PcapBlock** block) {
  *block = nullptr;
  return source.Next(frame);
}
ReadStatus NextFrame(PcapBlockReader& blocks, CapturedFrame* frame, PcapBlock** block) {
  return blocks.Next(frame, block);
}

// What every read loop shares: the progress line, the limits of the run, and
// where problems are told.
struct ReadState {
  Progress& progress;
  ReadLimits& limits;
  std::ostream& err;
  FolderRotation* rotation;  // null: one output folder
  bool inputs_ok = true;
};

// The next frame, a timeout or the end of `source` (a CaptureSource or a
// PcapBlockReader), which a reached --count brings early. A
// damaged or unreadable input is reported and reading goes on with the next;
// `inputs_ok` turns false then.
template <typename Source>
ReadStatus NextForFlows(Source& source, CapturedFrame* frame, PcapBlock** block, ReadState& state) {
  for (;;) {
    if (state.limits.CountReached()) return ReadStatus::kEnd;
    const ReadStatus status = NextFrame(source, frame, block);
    switch (status) {
      case ReadStatus::kFrame:
        state.limits.CountPacket();
        state.progress.Tick();
        return status;
      case ReadStatus::kTimeout:
        state.progress.Poll();
        return status;
      case ReadStatus::kError:
        // A read cut short by the stop signal is the stop, not damage.
        if (StopRequested()) break;
        state.progress.Clear();
        state.err << kProgramName << ": " << source.error() << "\n";
        state.inputs_ok = false;
        break;
      case ReadStatus::kEnd:
        return status;
    }
  }
}

// While it lives, a thread of its own copies the file's next blocks out of the
// kernel, so that the one analysing thread only walks them: the copy is about
// a fifth of a single-threaded run.
class ReadAheadThread {
 public:
  explicit ReadAheadThread(PcapBlockReader& blocks) : blocks_(blocks), thread_([this] { blocks_.ReadAhead(); }) {}
  ~ReadAheadThread() {
    blocks_.EndReadAhead();
    thread_.join();
  }
  ReadAheadThread(const ReadAheadThread&) = delete;
  ReadAheadThread& operator=(const ReadAheadThread&) = delete;

 private:
  PcapBlockReader& blocks_;
  std::thread thread_;
};

// Reads every frame of `source` into one tracker; false when an input was
// damaged or unreadable.
template <typename Source>
bool ReadAll(Source& source, Pipeline& pipeline, HostServices& services, ReadState& state) {
  std::optional<ReadAheadThread> read_ahead;
  if constexpr (std::is_same_v<Source, PcapBlockReader>) read_ahead.emplace(source);
  CapturedFrame frame;
  PcapBlock* block = nullptr;
  DecodedPacket packet;
  FlowTracker& tracker = *pipeline.tracker;
  for (;;) {
    switch (NextForFlows(source, &frame, &block, state)) {
      case ReadStatus::kFrame:
        // Before the frame is handed on: every record it brings belongs to
        // the folder of its time. frames_read() counts it already.
        if (state.rotation) state.rotation->BeforePacket(frame.time_us, pipeline.frames_read() - 1, pipeline.bytes_read());
        if (pipeline.decoder.Decode(frame.link_type, frame.data, frame.captured_length, &packet) ==
            DecodeStatus::kTcp) {
          tracker.OnPacket(packet, frame.data, frame.number, frame.time_us);
        }
        break;
      case ReadStatus::kTimeout:
        // A pipe may carry an old capture: only a live clock moves its time.
        if (source.live()) tracker.Advance(NowMicroseconds());
        if (source.live() && state.rotation)
          state.rotation->BeforePacket(NowMicroseconds(), pipeline.frames_read(), pipeline.bytes_read());
        services.FlushOutputs();
        break;
      default:
        return state.inputs_ok;
    }
  }
}

// The same with the workers, which read `source` in turn.
template <typename Source>
bool ReadAllInWorkers(Source& source, Pipeline& pipeline, HostServices& services, ReadState& state) {
  std::function<bool()> prefetch;
  if constexpr (std::is_same_v<Source, PcapBlockReader>) prefetch = [&source] { return source.Prefetch(); };
  pipeline.parallel->Run(
      [&](CapturedFrame* frame, PcapBlock** block) {
        const ReadStatus status = NextForFlows(source, frame, block, state);
        if (status == ReadStatus::kTimeout) {
          frame->time_us = source.live() ? NowMicroseconds() : 0;
          services.FlushOutputs();
        }
        return status;
      },
      source.live(), std::move(prefetch));
  return state.inputs_ok;
}

bool ReadEverything(Pipeline& pipeline, HostServices& services, ReadState& state) {
  if (pipeline.parallel && pipeline.blocks) return ReadAllInWorkers(*pipeline.blocks, pipeline, services, state);
  if (pipeline.parallel) return ReadAllInWorkers(pipeline.source, pipeline, services, state);
  if (pipeline.blocks) return ReadAll(*pipeline.blocks, pipeline, services, state);
  return ReadAll(pipeline.source, pipeline, services, state);
}

// Whether every input file opens (standard input always does), so that a
// mistyped name is found before anything is written.
bool FilesOpen(const std::vector<std::string>& paths, std::ostream& err) {
  bool all_open = true;
  for (const std::string& path : paths) {
    if (path == "-") continue;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    int code = fd < 0 ? errno : 0;
    struct stat info {};
    if (fd >= 0 && ::fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) code = EISDIR;
    if (fd >= 0) ::close(fd);
    if (!code) continue;
    err << kProgramName << ": cannot open " << path << ": " << std::strerror(code) << "\n";
    all_open = false;
  }
  return all_open;
}

}  // namespace

bool OpenInputs(const ProgramOptions& options, Pipeline& pipeline, std::ostream& err) {
  CaptureSource& source = pipeline.source;
  if (options.interface_name.empty() && !FilesOpen(options.inputs, err)) return false;
  if (pipeline.blocks) {
    pipeline.blocks->AnswerTimeoutsOnStandardInput(kQuietInputMs);
    pipeline.blocks->OpenFiles(options.inputs);
    return true;
  }
  if (options.interface_name.empty()) {
    source.AnswerTimeoutsOnStandardInput(kQuietInputMs);
    source.OpenFiles(options.inputs);
    // Read as root, even after --user switches away from it.
    if (!options.user.empty()) source.OpenAllFilesNow();
    return true;
  }
  if (source.OpenLive(options.interface_name, {options.filter, options.buffer_size_mib, kQuietInputMs})) return true;
  err << kProgramName << ": " << source.error() << "\n";
  return false;
}

bool ReadsSlowInput(const ProgramOptions& options) {
  return !options.interface_name.empty() ||
         std::find(options.inputs.begin(), options.inputs.end(), "-") != options.inputs.end();
}

bool ReadCaptures(const ProgramOptions& options, Pipeline& pipeline, HostServices& services, std::ostream& err,
                  FolderRotation* rotation) {
  const StatisticsRefresh statistics(services, ReadsSlowInput(options));
  Progress progress(Progress::Wanted(options.quiet), [&pipeline, &services] {
    return ProgressFigures{pipeline.bytes_read(), pipeline.total_bytes(), pipeline.frames_read(),
                           services.counts().records, pipeline.kernel_drops()};
  });
  ReadLimits limits(options.max_packets, options.max_seconds);
  ReadState state{progress, limits, err, rotation};
  const bool read = ReadEverything(pipeline, services, state);
  if (const std::string reason = limits.Reason(); !reason.empty()) {
    progress.Clear();
    err << kProgramName << ": " << reason << "\n";
  }
  return read;
}

}  // namespace pelka
