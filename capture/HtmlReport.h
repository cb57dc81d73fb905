// report.html: one self-contained page over a finished run's output folder,
// for a person to read in any browser with no network: the run, messages
// over time per protocol, the top senders, receivers and domains, the
// attachments by type, the diagnosis per server and over time, the reply
// times per server, what was seen but not recorded (when anything was: the
// coverage notices), and the message table (sortable and filterable with
// JavaScript, readable without), each row linked to its .eml copy when
// copies were saved. Everything is
// inline: no script, style sheet or font is fetched from anywhere.
//
// The table shows the newest kReportMessageRows messages at most and says
// where the rest are, so that the page stays small for large runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "capture/ReportData.h"

namespace pelka {

inline constexpr size_t kReportMessageRows = 1000;
// The first notices shown; their counts by kind cover them all.
inline constexpr size_t kReportNoticeRows = 1000;

// The run as the summary knows it.
struct ReportRun {
  std::string captures;  // what was read: files, "standard input" or the interface
  uint64_t packets = 0;
  uint64_t bytes = 0;
  double elapsed_seconds = 0;
  int64_t kernel_drops = -1;  // live capture only
  bool interrupted = false;
  std::string time_zone;  // the zone of the records' local times, e.g. "UTC"
  bool chinese = false;   // the page's own texts in Chinese (--lang zh)
};

// The page for this data. `out_dir` (absolute, ending with '/') is where
// the copies' links are made relative to.
std::string RenderHtmlReport(const ReportData& data, const ReportRun& run, const std::string& out_dir);

// Reads the folder's outputs and writes <out_dir>/report.html. False with
// `error` set when it cannot be written.
bool WriteHtmlReport(const std::string& out_dir, const ReportRun& run, std::string* error);

}  // namespace pelka
