// pelka-email merge, for runs made with --attachments: the folders'
// attachments.jsonl lines follow their messages to their new numbers (in the
// merged records' order, then their own), and the stored files are
// hard-linked (moved across file systems) into the merged attachments/,
// each hash once.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capture/DatabaseMerge.h"

namespace pelka {

struct AttachmentMergeReport {
  uint64_t rows = 0;           // lines of the merged attachments.jsonl
  uint64_t rows_missing = 0;   // lines whose message no record of their folder is
  uint64_t files_missing = 0;  // stored files that could not be carried over
};

// Writes <out_dir>/attachments.jsonl and attachments/ when any of `folders`
// has an attachments.jsonl; `records` says where each record went. Returns
// "" on success, else what went wrong.
std::string MergeAttachments(const std::vector<std::string>& folders, const std::vector<MergedRecord>& records,
                             const std::string& out_dir, AttachmentMergeReport* report);

}  // namespace pelka
