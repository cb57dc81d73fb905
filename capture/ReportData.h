// What the HTML report shows, read back from the files of a finished run:
// the records of emails.jsonl, the reports of diagnosis.jsonl and the
// coverage notices of notices.jsonl, with the
// counts the report's tables and charts are made of.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace pelka {

struct ReportMessage {
  uint64_t number = 0;
  std::string time;  // "YYYY-mm-dd HH:MM:SS", local time
  std::string protocol, sender, receiver, subject, attachments, server, account, copy_path;
  uint64_t size = 0;
};

struct ReportDiagnosis {
  std::string event, title, server;
  uint64_t time_us = 0;  // capture time
};

struct ReportNotice {
  std::string time, client, server, protocol, kind, text;
  uint64_t packet = 0;
};

// A line of attachments.jsonl (--attachments).
struct ReportAttachment {
  uint64_t number = 0;  // the message's email_number
  std::string file_name, declared_type, detected_type, sha256, stored_path;
  uint64_t size = 0;
  bool type_mismatch = false, ioc_match = false;
};

struct ReportData {
  std::vector<ReportMessage> messages;  // in the file's order
  std::vector<ReportDiagnosis> diagnosis;
  // Server replies per reply-time band (the bands of the database's
  // connections table), by server; empty without emails.sqlite.
  std::map<std::string, std::vector<uint64_t>> replies;
  std::vector<ReportNotice> notices;
  // Set when the run took attachments out (attachments.jsonl is there).
  bool attachments_taken = false;
  std::vector<ReportAttachment> attachments;
  uint64_t unreadable_lines = 0;  // lines that are not JSON objects
};

// Reads <out_dir>/emails.jsonl, diagnosis.jsonl, notices.jsonl,
// attachments.jsonl and the connections of emails.sqlite (missing files read
// as empty).
ReportData ReadReportData(const std::string& out_dir);

// The domain of an address ("" when it has no '@'), in lower case.
std::string DomainOf(const std::string& address);

// The file types of an attachment list ("a.PDF;b.txt;c" gives "pdf", "txt"
// and "(none)"), one entry per attachment.
std::vector<std::string> AttachmentTypes(const std::string& attachments);

// The largest counts first (ties in name order), at most `limit` of them.
std::vector<std::pair<std::string, uint64_t>> TopCounts(const std::map<std::string, uint64_t>& counts, size_t limit);

}  // namespace pelka
