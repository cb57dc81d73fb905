#include "capture/FolderRotation.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <utility>

namespace pelka {
namespace {

constexpr uint64_t kMicroseconds = 1'000'000;

// "2026-11-26 01.00.00": the local time, in the copies' style, which sorts
// by time and needs no colon.
std::string FolderName(uint64_t seconds) {
  const auto time = static_cast<time_t>(seconds);
  struct tm local {};
  char text[32];
  if (!::localtime_r(&time, &local) || std::strftime(text, sizeof text, "%Y-%m-%d %H.%M.%S", &local) == 0)
    return std::to_string(seconds);
  return text;
}

// Makes a folder of its own below `parent`: the name, or the name with "-2",
// "-3", ... when it is taken. Empty when none can be made.
std::string MakeNewFolder(const std::string& parent, const std::string& name) {
  for (uint32_t suffix = 1; suffix < 1000; ++suffix) {
    const std::string path = parent + name + (suffix > 1 ? "-" + std::to_string(suffix) : "") + "/";
    if (::mkdir(path.c_str(), 0750) == 0) return path;
    if (errno != EEXIST) return {};
  }
  return {};
}

}  // namespace

FolderRotation::FolderRotation(std::string parent, uint32_t seconds, HostServices& services,
                               ReportWriter write_report)
    : parent_(std::move(parent)), seconds_(seconds), services_(services), write_report_(std::move(write_report)) {}

void FolderRotation::BeforePacket(uint64_t time_us, uint64_t packets, uint64_t bytes) {
  if (period_end_us_ != 0 && time_us < period_end_us_) return;
  const uint64_t now = time_us / kMicroseconds;
  if (period_end_us_ == 0) {
    Start(now, packets, bytes);
    return;
  }
  services_.FinishFolder(packets, bytes);
  if (!write_report_(folders_.back(), packets - period_packets_, bytes - period_bytes_)) reports_ok_ = false;
  // The period the packet falls in; the empty ones before it are skipped.
  Start(period_start_ + (now - period_start_) / seconds_ * seconds_, packets, bytes);
}

void FolderRotation::EnsureFolder(uint64_t packets, uint64_t bytes) {
  if (period_end_us_ != 0) return;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  Start(static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count()), packets, bytes);
}

void FolderRotation::Start(uint64_t start_seconds, uint64_t packets, uint64_t bytes) {
  period_start_ = start_seconds;
  period_end_us_ = (start_seconds + seconds_) * kMicroseconds;
  period_packets_ = packets;
  period_bytes_ = bytes;
  std::string folder = MakeNewFolder(parent_, FolderName(start_seconds));
  // A folder that cannot be made loses this period's outputs: its files
  // fail to open, and the run's error says so.
  if (folder.empty()) folder = parent_ + FolderName(start_seconds) + "/";
  folders_.push_back(folder);
  services_.StartFolder(folder, packets, bytes);
}

}  // namespace pelka
