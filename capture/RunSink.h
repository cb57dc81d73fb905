// A second destination for what the host writes to emails.jsonl,
// entries.jsonl and diagnosis.jsonl: the writers of those files hand every
// line's content to a sink too (the run's database, capture/RunDatabase.h).
//
// A sink is called from the threads that post records, entries and reports,
// possibly several at once, and guards itself. It sees exactly what the JSON
// writers see, after the conditions have been applied.
#pragma once

#include <cstdint>
#include <string_view>

namespace pelka {

class LogColumns;
class LogRecord;

// One diagnosis report, as its diagnosis.jsonl line holds it. The texts are
// UTF-8 except `text`; client and server are empty when the report's target
// is not a flow of this host.
struct DiagnosisRow {
  std::string_view event;
  std::string_view title;
  std::wstring_view text;
  uint32_t code1 = 0;
  uint32_t code2 = 0;
  uint64_t packet = 0;
  uint64_t time = 0;  // microseconds since 1970
  uint64_t related_packet = 0;
  std::string_view client;
  std::string_view server;
};

class RunSink {
 public:
  virtual ~RunSink() = default;
  // A record posted and kept; `columns` are its log's declared columns.
  virtual void OnRecord(const LogColumns& columns, const LogRecord& record) = 0;
  // A summary entry at `seconds` since 1970.
  virtual void OnEntry(uint64_t seconds, std::wstring_view kind, std::wstring_view summary,
                       std::wstring_view group) = 0;
  virtual void OnDiagnosis(const DiagnosisRow& report) = 0;
};

}  // namespace pelka
