#include "capture/CaptureReading.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "capture/Progress.h"
#include "capture/StopSignal.h"

namespace pelka {
namespace {

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
        if (StopRequested()) break;
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

bool ReadCaptures(const ProgramOptions& options, Pipeline& pipeline, HostServices& services, std::ostream& err) {
  StopSignalScope signals(&pipeline.source, pipeline.blocks.get());
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

}  // namespace pelka
