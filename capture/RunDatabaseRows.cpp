// The rows of each kind as the writer thread puts them into the database:
// their statements, bound column by column. A row that comes once the
// database has failed is counted as lost.
#include <sqlite3.h>

#include "capture/LogRecord.h"
#include "capture/RunDatabase.h"
#include "capture/RunDatabaseStatements.h"
#include "host/CodePage.h"

namespace pelka {
namespace {

using run_database::BindKeptText;
using run_database::BindNumber;
using run_database::BindText;
using run_database::BindTextOrNull;

}  // namespace

void RunDatabase::WriteRecord(const std::shared_ptr<const MessageColumns>& columns, const LogRecord& record) {
  if (usable() && (!messages_ || !messages_->Fits(columns.get()))) {
    auto insert = std::make_unique<MessageInsert>();
    if (insert->Make(*this, columns)) messages_ = std::move(insert);
  }
  if (!RowWritable()) return;
  int64_t connection = 0;
  if (const auto open = connections_.find(record.flow()); open != connections_.end()) {
    connection = open->second.row;
    ++open->second.records;
  }
  Step(messages_->Bind(record, times_, connection));
}

void RunDatabase::WriteEntry(uint64_t seconds, std::wstring_view kind, std::wstring_view summary,
                             std::wstring_view group) {
  if (!RowWritable()) return;
  sqlite3_stmt* statement = entry_insert_->handle;
  BindNumber(statement, 1, seconds);
  BindText(statement, 2, times_.Text(seconds));
  BindKeptText(statement, 3, run_database::Utf8Into(kind, utf8_[0]));
  BindKeptText(statement, 4, run_database::Utf8Into(summary, utf8_[1]));
  BindKeptText(statement, 5, run_database::Utf8Into(group, utf8_[2]));
  Step(statement);
}

void RunDatabase::WriteDiagnosis(const DiagnosisRow& report) {
  if (!RowWritable()) return;
  sqlite3_stmt* statement = diagnosis_insert_->handle;
  BindText(statement, 1, report.event);
  BindText(statement, 2, report.title);
  BindText(statement, 3, WideToUtf8(report.text));
  BindNumber(statement, 4, report.code1);
  BindNumber(statement, 5, report.code2);
  BindNumber(statement, 6, report.packet);
  BindNumber(statement, 7, report.time);
  BindNumber(statement, 8, report.related_packet);
  BindTextOrNull(statement, 9, report.client);
  BindTextOrNull(statement, 10, report.server);
  Step(statement);
}

void RunDatabase::WriteNotice(const NoticeRow& notice) {
  if (!RowWritable()) return;
  sqlite3_stmt* statement = notice_insert_->handle;
  BindNumber(statement, 1, notice.time_us);
  BindText(statement, 2, notice.client);
  BindText(statement, 3, notice.server);
  BindText(statement, 4, notice.protocol);
  BindNumber(statement, 5, notice.packet);
  BindText(statement, 6, notice.kind);
  BindText(statement, 7, notice.text);
  Step(statement);
}

void RunDatabase::WriteAttachment(const AttachmentRow& row) {
  if (!RowWritable()) return;
  sqlite3_stmt* statement = attachment_insert_->handle;
  BindNumber(statement, 1, row.email_number);
  BindNumber(statement, 2, row.part_index);
  BindText(statement, 3, row.file_name);
  BindText(statement, 4, row.declared_type);
  BindText(statement, 5, row.detected_type);
  BindNumber(statement, 6, row.size);
  BindText(statement, 7, row.hashes.md5);
  BindText(statement, 8, row.hashes.sha1);
  BindText(statement, 9, row.hashes.sha256);
  BindNumber(statement, 10, row.type_mismatch ? 1 : 0);
  BindNumber(statement, 11, row.ioc_match ? 1 : 0);
  BindTextOrNull(statement, 12, row.stored_path);
  Step(statement);
}

void RunDatabase::WriteConnectionStart(const IPelkaFlow* flow, std::string_view protocol, std::string_view client,
                                       std::string_view server) {
  if (!RowWritable()) return;
  sqlite3_stmt* statement = connection_insert_->handle;
  BindText(statement, 1, protocol);
  BindText(statement, 2, client);
  BindText(statement, 3, server);
  Step(statement);
  if (usable()) connections_[flow] = {sqlite3_last_insert_rowid(db_), 0};
}

void RunDatabase::WriteConnectionEnd(const IPelkaFlow* flow, const ConnectionTally& tally,
                                     std::string_view ended) {
  const auto open = connections_.find(flow);
  if (open == connections_.end()) return;  // its start was lost, and counted
  const OpenConnection connection = open->second;
  // The flow object may be reused for a later connection.
  connections_.erase(open);
  if (!RowWritable()) return;
  sqlite3_stmt* statement = connection_update_->handle;
  int index = 1;
  for (const uint64_t value : {tally.first_time, tally.last_time, tally.packets[0], tally.bytes[0], tally.packets[1],
                               tally.bytes[1], connection.records})
    BindNumber(statement, index++, value);
  BindText(statement, index++, ended);
  for (const uint64_t replies : tally.replies) BindNumber(statement, index++, replies);
  BindNumber(statement, index, static_cast<uint64_t>(connection.row));
  Step(statement);
}

}  // namespace pelka
