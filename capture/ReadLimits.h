// --count and --duration: a run that ends by itself after so many packets or
// so many seconds, as a live capture left running unattended needs. Reaching a
// limit ends the reading like the end of the input: the flows end and every
// output is written.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace pelka {

class ReadLimits {
 public:
  // 0 means no limit. The time counts from construction: an alarm signal
  // then stops the reading like Ctrl-C does (StopSignal.h handles it), so
  // that a run waiting for packets that do not come ends on time too.
  ReadLimits(uint64_t max_packets, uint32_t max_seconds);
  // Cancels the alarm.
  ~ReadLimits();
  ReadLimits(const ReadLimits&) = delete;
  ReadLimits& operator=(const ReadLimits&) = delete;

  // Counts one packet read; every packet counts, mail or not.
  void CountPacket() { ++packets_; }
  // Whether the packet count is reached, so that no further packet is read.
  bool CountReached() const { return max_packets_ != 0 && packets_ >= max_packets_; }
  // What ended the run, for the user ("" when no limit was reached).
  std::string Reason() const;

 private:
  uint64_t max_packets_;
  uint32_t max_seconds_;
  std::chrono::steady_clock::time_point start_;
  uint64_t packets_ = 0;
};

}  // namespace pelka
