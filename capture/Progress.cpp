#include "capture/Progress.h"

#include <unistd.h>

#include <utility>

#include "capture/TerminalText.h"

namespace pelka {

std::string FormatBytes(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string FormatProgress(const ProgressFigures& figures, double elapsed_seconds) {
  std::string line = FormatBytes(figures.bytes_read);
  if (figures.bytes_total > 0) {
    const uint64_t percent = figures.bytes_read >= figures.bytes_total ? 100 : figures.bytes_read * 100 / figures.bytes_total;
    line += " of " + FormatBytes(figures.bytes_total) + " (" + std::to_string(percent) + "%)";
  }
  line += ", " + std::to_string(figures.packets) + " packets, " + std::to_string(figures.messages) + " messages";
  if (figures.kernel_drops >= 0) line += ", " + std::to_string(figures.kernel_drops) + " dropped by the kernel";
  if (elapsed_seconds > 0) {
    const auto rate = static_cast<uint64_t>(static_cast<double>(figures.bytes_read) / elapsed_seconds);
    line += ", " + FormatBytes(rate) + "/s";
  }
  return line;
}

Progress::Progress(bool enabled, std::function<ProgressFigures()> read, std::FILE* out)
    : enabled_(enabled), read_(std::move(read)), out_(out), start_(Clock::now()), last_draw_(start_) {}

Progress::~Progress() { Clear(); }

bool Progress::Wanted(bool quiet) { return !quiet && ::isatty(STDERR_FILENO) == 1; }

void Progress::CheckClock() {
  frames_since_check_ = 0;
  const Clock::time_point now = Clock::now();
  if (now - last_draw_ < kRedrawInterval) return;
  last_draw_ = now;
  Draw();
}

void Progress::Draw() {
  const std::chrono::duration<double> elapsed = Clock::now() - start_;
  // It goes to the terminal past the escaping of the program's streams.
  const std::string line = EscapeForTerminal(FormatProgress(read_(), elapsed.count()));
  // Blanks wipe the rest of a longer previous line.
  const size_t pad = last_width_ > line.size() ? last_width_ - line.size() : 0;
  std::fprintf(out_, "\r%s%*s", line.c_str(), static_cast<int>(pad), "");
  std::fflush(out_);
  last_width_ = line.size();
}

void Progress::Clear() {
  if (!enabled_ || last_width_ == 0) return;
  std::fprintf(out_, "\r%*s\r", static_cast<int>(last_width_), "");
  std::fflush(out_);
  last_width_ = 0;
}

}  // namespace pelka
