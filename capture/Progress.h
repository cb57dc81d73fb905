// A one-line progress report on stderr while a capture is read: bytes read of
// the total, packets, messages found and the reading rate.
//
// It speaks only when stderr is a terminal and the user did not ask for
// quiet. Tick is meant to be called for every frame: it looks at the clock
// once every kFramesPerClockCheck frames and redraws at most every
// kRedrawInterval, so that it costs the run nothing measurable.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

namespace pelka {

struct ProgressFigures {
  uint64_t bytes_read = 0;
  uint64_t bytes_total = 0;  // 0 when unknown (standard input, live capture)
  uint64_t packets = 0;
  uint64_t messages = 0;
  int64_t kernel_drops = -1;  // live capture: packets the kernel dropped; -1 otherwise
};

// One line of progress, without line end: "12.5 MiB of 40.0 MiB (31%) ...".
std::string FormatProgress(const ProgressFigures& figures, double elapsed_seconds);

// A byte count for people: "812 B", "12.5 KiB", "3.0 GiB".
std::string FormatBytes(uint64_t bytes);

class Progress {
 public:
  static constexpr uint64_t kFramesPerClockCheck = 1024;
  static constexpr std::chrono::milliseconds kRedrawInterval{250};

  // `enabled` false makes every call do nothing. `read` gives the current
  // figures; it is called only when a line is drawn.
  Progress(bool enabled, std::function<ProgressFigures()> read, std::FILE* out = stderr);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Whether progress should be shown: stderr is a terminal and not quiet.
  static bool Wanted(bool quiet);

  void Tick() {
    if (enabled_ && ++frames_since_check_ >= kFramesPerClockCheck) CheckClock();
  }
  // For a loop that waits without frames (live capture): looks at the clock.
  void Poll() {
    if (enabled_) CheckClock();
  }
  // Clears the line, so that what follows starts on a clean line.
  void Clear();

 private:
  using Clock = std::chrono::steady_clock;
  void CheckClock();
  void Draw();

  bool enabled_;
  std::function<ProgressFigures()> read_;
  std::FILE* out_;
  uint64_t frames_since_check_ = 0;
  Clock::time_point start_;
  Clock::time_point last_draw_;
  size_t last_width_ = 0;
};

}  // namespace pelka
