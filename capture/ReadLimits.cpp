#include "capture/ReadLimits.h"

#include <unistd.h>

namespace pelka {

ReadLimits::ReadLimits(uint64_t max_packets, uint32_t max_seconds)
    : max_packets_(max_packets), max_seconds_(max_seconds), start_(std::chrono::steady_clock::now()) {
  if (max_seconds_ != 0) ::alarm(max_seconds_);
}

ReadLimits::~ReadLimits() {
  if (max_seconds_ != 0) ::alarm(0);
}

std::string ReadLimits::Reason() const {
  if (CountReached()) return "stopped after " + std::to_string(packets_) + " packets (--count)";
  if (max_seconds_ != 0 && std::chrono::steady_clock::now() - start_ >= std::chrono::seconds(max_seconds_)) {
    return "stopped after " + std::to_string(max_seconds_) + " s (--duration)";
  }
  return "";
}

}  // namespace pelka
