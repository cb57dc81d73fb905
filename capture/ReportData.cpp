#include "capture/ReportData.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <string_view>

#include <sqlite3.h>

#include "capture/JsonText.h"
#include "capture/ReadOnlyDatabase.h"
#include "capture/RunDatabase.h"

namespace pelka {
namespace {

std::string Text(const JsonFields& line, const char* key) { return UnescapeJson(line.Text(key)); }

uint64_t Number(const JsonFields& line, const char* key) {
  const std::string_view digits = line.Text(key);
  uint64_t value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return value;
}

// Calls `take` with every line of the file that looks like one of the
// program's JSON objects. The fields are picked out of the line without
// parsing it whole: the report reads every record of a large run.
template <typename Take>
void ReadObjects(const std::string& path, uint64_t& unreadable, Take take) {
  std::ifstream in(path, std::ios::binary);
  for (std::string line; std::getline(in, line);) {
    if (line.size() >= 2 && line.front() == '{' && line.back() == '}') {
      take(JsonFields(line));
    } else {
      ++unreadable;
    }
  }
}

void ReadReplies(const std::string& path, std::map<std::string, std::vector<uint64_t>>* replies) {
  sqlite3* db = OpenReadOnlyDatabase(path);
  if (!db) return;
  std::string sql = "SELECT server";
  for (const char* column : kReplyBandColumns) sql += std::string(", ifnull(sum(") + column + "), 0)";
  sql += " FROM connections GROUP BY server";
  sqlite3_stmt* query = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &query, nullptr) == SQLITE_OK) {
    while (sqlite3_step(query) == SQLITE_ROW) {
      const auto* server = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
      std::vector<uint64_t>& bands = (*replies)[server ? server : ""];
      for (int band = 1; band <= static_cast<int>(ConnectionTally::kReplyBands); ++band)
        bands.push_back(static_cast<uint64_t>(sqlite3_column_int64(query, band)));
    }
  }
  sqlite3_finalize(query);
  sqlite3_close_v2(db);
}

// The fields read as by ReadObjects; the flags, which JsonFields does not
// pick out, are found in the line as the writer spells them.
void ReadAttachments(const std::string& path, ReportData& data) {
  std::ifstream in(path, std::ios::binary);
  data.attachments_taken = in.is_open();
  for (std::string line; std::getline(in, line);) {
    if (line.size() < 2 || line.front() != '{' || line.back() != '}') {
      ++data.unreadable_lines;
      continue;
    }
    const JsonFields a(line);
    data.attachments.push_back({Number(a, "email_number"), Text(a, "file_name"), Text(a, "declared_type"),
                                Text(a, "detected_type"), Text(a, "sha256"), Text(a, "stored_path"), Number(a, "size"),
                                line.find("\"type_mismatch\": true") != std::string::npos,
                                line.find("\"ioc_match\": true") != std::string::npos});
  }
}

}  // namespace

ReportData ReadReportData(const std::string& out_dir) {
  ReportData data;
  ReadObjects(out_dir + "/emails.jsonl", data.unreadable_lines, [&](const JsonFields& record) {
    data.messages.push_back({Number(record, "email_number"), Text(record, "timestamp"), Text(record, "protocol"),
                             Text(record, "email_sender_email"), Text(record, "email_receive_email"),
                             Text(record, "email_subject"), Text(record, "email_attachment"),
                             Text(record, "email_server"), Text(record, "email_account"),
                             Text(record, "email_file_path"), Number(record, "email_filesize")});
  });
  ReadObjects(out_dir + "/diagnosis.jsonl", data.unreadable_lines, [&](const JsonFields& report) {
    data.diagnosis.push_back({Text(report, "event"), Text(report, "title"), Text(report, "server"),
                              Number(report, "time")});
  });
  ReadObjects(out_dir + "/notices.jsonl", data.unreadable_lines, [&](const JsonFields& notice) {
    data.notices.push_back({Text(notice, "time"), Text(notice, "client"), Text(notice, "server"),
                            Text(notice, "protocol"), Text(notice, "kind"), Text(notice, "text"),
                            Number(notice, "packet")});
  });
  ReadAttachments(out_dir + "/attachments.jsonl", data);
  ReadReplies(out_dir + "/emails.sqlite", &data.replies);
  return data;
}

std::string DomainOf(const std::string& address) {
  const size_t at = address.rfind('@');
  if (at == std::string::npos) return {};
  std::string domain = address.substr(at + 1);
  for (char& c : domain) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return domain;
}

std::vector<std::string> AttachmentTypes(const std::string& attachments) {
  std::vector<std::string> types;
  size_t begin = 0;
  while (begin < attachments.size()) {
    size_t end = attachments.find(';', begin);
    if (end == std::string::npos) end = attachments.size();
    const std::string name = attachments.substr(begin, end - begin);
    begin = end + 1;
    if (name.empty()) continue;
    const size_t dot = name.rfind('.');
    std::string type = dot == std::string::npos || dot + 1 == name.size() ? "(none)" : name.substr(dot + 1);
    for (char& c : type) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    types.push_back(type);
  }
  return types;
}

std::vector<std::pair<std::string, uint64_t>> TopCounts(const std::map<std::string, uint64_t>& counts, size_t limit) {
  std::vector<std::pair<std::string, uint64_t>> top(counts.begin(), counts.end());
  std::stable_sort(top.begin(), top.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
  if (top.size() > limit) top.resize(limit);
  return top;
}

}  // namespace pelka
