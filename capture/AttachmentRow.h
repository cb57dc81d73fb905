// One attachment of one recorded message, as attachments.jsonl and the
// database's table attachments hold it, and what a run found over all.
#pragma once

#include <cstdint>
#include <string>

#include "capture/FileHashes.h"

namespace pelka {

struct AttachmentRow {
  uint64_t email_number = 0;   // the message's email_number (emails.jsonl, messages)
  uint32_t part_index = 0;     // 1 for the message's first attachment, in document order
  std::string file_name;       // UTF-8, as the message names it; empty when it names none
  std::string declared_type;   // as the message declares it
  std::string detected_type;   // as told from the bytes
  uint64_t size = 0;           // decoded bytes
  FileHashes hashes;
  bool type_mismatch = false;  // declared and detected types disagree
  bool ioc_match = false;      // a hash is on the --ioc-hashes list
  std::string stored_path;     // relative to the output folder; empty when it could not be stored
};

// What the run found, for the summary and statistics.json.
struct AttachmentTally {
  uint64_t found = 0;         // attachments taken out (rows written)
  uint64_t stored = 0;        // files written to attachments/
  uint64_t duplicates = 0;    // attachments whose file was there already
  uint64_t mismatches = 0;    // declared and detected types disagree
  uint64_t ioc_matches = 0;   // a hash on the --ioc-hashes list
  uint64_t too_deep = 0;      // parts left out, by cause (PartCuts summed)
  uint64_t too_many = 0;
  uint64_t too_big = 0;
  uint64_t malformed = 0;
  uint64_t unreadable = 0;    // copies that could not be read back
  uint64_t store_failures = 0;
  std::string first_store_failure;
  uint64_t cuts() const { return too_deep + too_many + too_big + malformed; }
};

}  // namespace pelka
