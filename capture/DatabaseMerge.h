// The emails.sqlite files of merged output folders combined into one, the
// database one run over all their captures would have written.
//
// Messages take the numbers and copy paths the merged emails.jsonl gives
// them; connections are numbered on after those of the folders before, and
// each message keeps pointing at its own. Entries, diagnosis reports and
// notices are put in time order the way the merged JSON lines are (same
// time: the folders' order, then their own); statistics are added up; the
// run table holds one row for the whole: the earliest start, the latest end,
// every capture and the summed totals.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace pelka {

// Where one record of a merged folder went.
struct MergedRecord {
  size_t folder = 0;           // index into the folders given to MergeDatabases
  uint64_t old_number = 0;     // its email_number in that folder
  uint64_t new_number = 0;     // its email_number in the merged folder
  std::string copy_path;       // its email_file_path in the merged folder
};

struct DatabaseMergeReport {
  uint64_t databases = 0;      // folders whose database was merged
  uint64_t messages_missing = 0;  // rows of a database no record of its folder names
  std::vector<std::string> warnings;
};

// Writes `out_path` from the emails.sqlite of each of `folders` that has one.
// Folders without one (runs with --no-db) are named in the warnings. Returns
// "" on success (also when no folder had a database: then nothing is
// written), else what went wrong.
std::string MergeDatabases(const std::vector<std::string>& folders, const std::vector<MergedRecord>& records,
                           const std::string& out_path, DatabaseMergeReport* report);

}  // namespace pelka
