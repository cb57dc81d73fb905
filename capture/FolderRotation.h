// --rotate: a long run's outputs in one folder per period of capture time,
// so that no file grows forever and a finished folder can be shipped away.
//
// The clock is the packets' capture time, so a capture file read at full
// speed is cut where a live run over the same traffic would have been. The
// first packet starts the first folder; a packet at or after the end of the
// current period closes that folder completely (HostServices::FinishFolder,
// then its report.html) and starts the folder of the period it falls in.
// Periods without packets leave no folder. A folder is named by the local
// time its period starts ("2026-11-26 01.00.00"), with "-2", "-3", ... when
// that name is taken: a folder is always new, never one an earlier run wrote.
//
// Only the outputs switch, between two packets on the thread that delivers
// them: the module and the flow tracker go on, so a connection in progress
// carries over and every record lands in exactly one folder.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "capture/HostServices.h"

namespace pelka {

class FolderRotation {
 public:
  // Writes a finished folder's report.html: the folder (absolute, ending
  // with '/') and the packets and bytes read in its period. False when it
  // could not be written (said by the callee).
  using ReportWriter = std::function<bool(const std::string& folder, uint64_t packets, uint64_t bytes)>;

  // `parent`: the output folder the run holds (absolute, ending with '/').
  FolderRotation(std::string parent, uint32_t seconds, HostServices& services, ReportWriter write_report);

  // Before a packet of capture time `time_us` is handed on; `packets` and
  // `bytes` are what was read before it.
  void BeforePacket(uint64_t time_us, uint64_t packets, uint64_t bytes);
  // At the end of a run that met no packet: one folder, named by the clock,
  // so that the run leaves its outputs all the same.
  void EnsureFolder(uint64_t packets, uint64_t bytes);

  // The folders started so far, in order.
  const std::vector<std::string>& folders() const { return folders_; }
  // What the current folder's period read before it began.
  uint64_t period_packets() const { return period_packets_; }
  uint64_t period_bytes() const { return period_bytes_; }
  // False once a report could not be written.
  bool reports_ok() const { return reports_ok_; }

 private:
  void Start(uint64_t start_seconds, uint64_t packets, uint64_t bytes);

  const std::string parent_;
  const uint64_t seconds_;
  HostServices& services_;
  ReportWriter write_report_;
  uint64_t period_end_us_ = 0;  // 0: no folder yet
  uint64_t period_start_ = 0;   // seconds since 1970
  uint64_t period_packets_ = 0;
  uint64_t period_bytes_ = 0;
  std::vector<std::string> folders_;
  bool reports_ok_ = true;
};

}  // namespace pelka
