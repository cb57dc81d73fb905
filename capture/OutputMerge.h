// pelka-email merge: the output folders of separate runs (one per capture
// file, say, run side by side) combined into one folder, as one run over all
// their captures would have written it.
//
// Records are put in time order (their "timestamp"; records of the same
// second keep the order of the folders as given, then their own) and numbered
// again from 1; each record's export lines (email_log.csv, email_log.txt) go
// with it. Summary entries, diagnosis reports and notices are put in time
// order the same way; statistics are added up (StatisticsSum.h); the
// command writes one report.html over the merged folder, and the folders'
// databases become one emails.sqlite (DatabaseMerge.h). Copies are
// hard-linked into the merged email_copy/ (moved where a link cannot be made,
// as across file systems), renamed with a "-2", "-3"... suffix where names
// meet, and each record points at its copy's new place; attachments follow
// their records (AttachmentMerge.h). Nothing is lost
// silently: whatever cannot be carried over is counted and said.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace pelka {

struct MergeReport {
  uint64_t records = 0;
  uint64_t entries = 0;
  uint64_t diagnosis_reports = 0;
  uint64_t notices = 0;
  uint64_t copies_linked = 0;
  uint64_t copies_moved = 0;
  uint64_t copies_missing = 0;  // named by a record, but not there or not movable
  uint64_t databases = 0;       // emails.sqlite files merged
  std::vector<std::string> warnings;
};

// Merges `folders` into `out_dir`, which must not exist yet or be empty and
// must not be one of them. Returns "" on success, else what went wrong.
std::string MergeOutputFolders(const std::vector<std::string>& folders, const std::string& out_dir,
                               MergeReport* report);

}  // namespace pelka
