// The attachments section of report.html (runs with --attachments): the
// attachments by detected type, the largest, those whose declared type
// disagrees with their bytes and those on the hash list, each row linking
// to its stored file.
#pragma once

#include <string>

#include "capture/ReportData.h"
#include "capture/ReportWords.h"

namespace pelka {

// Rows shown in each of the section's lists; attachments.jsonl holds them all.
inline constexpr size_t kReportAttachmentRows = 100;

// The section's HTML; empty when the run did not take attachments out.
// `out_dir`: absolute, ending with '/'.
std::string AttachmentsSection(const ReportData& data, const std::string& out_dir, const report::Words& w);

}  // namespace pelka
