// The summary printed on stdout at the end of a run: messages per protocol,
// the first messages as a table, diagnosis reports per event, connections per
// protocol, what was read and how fast, and where the output files are.
//
// Messages are counted as the module posted them, so that a record whose line
// could not be written (a full disk) still counts; the first rows are read
// back from the run's emails.jsonl, so that the table shows what it holds.
// Lines lost on the way out are listed.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "capture/AttachmentRow.h"
#include "capture/Notices.h"

namespace pelka {

struct MessageRow {
  std::string time;
  std::string protocol;
  std::string from;
  std::string to;
  std::string subject;
  std::string attachments;
};

struct MessageDigest {
  uint64_t total = 0;
  std::map<std::string, uint64_t> by_protocol;  // "SMTP", "POP3", "IMAPv4"
  std::vector<MessageRow> first;                // at most the number asked for
};

// Reads an emails.jsonl file; lines that are not JSON objects are skipped.
// A missing file gives an empty digest.
MessageDigest ReadMessageDigest(const std::string& emails_path, size_t first_rows);

struct RunFacts {
  std::string out_dir;  // absolute
  size_t folders = 0;   // --rotate: the folders written below out_dir; 0: out_dir holds the files
  bool copies = false;
  uint64_t copy_failures = 0;  // copies that could not be written
  bool database = false;  // emails.sqlite was written
  bool interrupted = false;
  uint64_t packets = 0;
  uint64_t bytes = 0;
  double elapsed_seconds = 0;
  int64_t kernel_drops = -1;  // live capture: packets the kernel dropped; -1 otherwise
  uint64_t connections_smtp = 0;
  uint64_t connections_pop3 = 0;
  uint64_t connections_imap = 0;
  std::map<std::string, uint64_t> reports_by_event;
  uint64_t messages_found = 0;
  std::map<std::string, uint64_t> found_by_protocol;  // "SMTP", "POP3", "IMAPv4"
  std::vector<std::pair<std::string, uint64_t>> lines_lost;  // output file -> lines not written
  uint64_t hold_limit_gaps = 0;  // gaps skipped because --hold-limit was reached
  uint32_t hold_limit_mib = 0;
  NoticeCounts notices{};  // coverage notices by kind
  bool pipelined = false;  // --pipelined was given
  bool attachments = false;  // --attachments was given
  AttachmentTally attachment_tally;
};

inline constexpr size_t kSummaryRows = 10;

void PrintSummary(std::ostream& out, const RunFacts& facts, const MessageDigest& messages);

// Columns a text takes on a terminal: wide East Asian characters count two.
size_t DisplayWidth(const std::string& utf8);

// The text on one line (line breaks and tabs as blanks, other control
// characters escaped: TerminalText.h), cut to at most `width` columns, "…"
// marking a cut, then padded with blanks to exactly `width` columns.
std::string FitToWidth(const std::string& utf8, size_t width);

}  // namespace pelka
