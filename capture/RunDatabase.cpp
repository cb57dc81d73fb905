#include "capture/RunDatabase.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <set>
#include <utility>

#include "capture/HostStatistics.h"
#include "capture/LogColumns.h"
#include "capture/LogRecord.h"
#include "capture/RunDatabaseSchema.h"
#include "capture/RunDatabaseStatements.h"

namespace pelka {
namespace {

using run_database::BindNumber;
using run_database::BindText;

uint64_t NowSeconds() { return static_cast<uint64_t>(std::time(nullptr)); }

// The file's real place: a folder reached through a symbolic link is fine,
// only the file itself must not be one.
std::string RealPlace(const std::string& path) {
  const std::filesystem::path file(path);
  std::error_code error;
  const std::filesystem::path folder = std::filesystem::canonical(file.parent_path(), error);
  return error ? path : (folder / file.filename()).string();
}

}  // namespace

const char* ConnectionEndText(FlowEndReason reason) {
  switch (reason) {
    case FlowEndReason::kClosed: return "closed";
    case FlowEndReason::kReset: return "reset";
    case FlowEndReason::kIdle: return "idle";
    case FlowEndReason::kEvicted: return "evicted";
    case FlowEndReason::kReplaced: return "replaced";
    case FlowEndReason::kEndOfInput: return "end of input";
  }
  return "";
}

const char* ConnectionProtocolText(uint16_t application_protocol) {
  switch (application_protocol) {
    case 630: return "SMTP";
    case 626: return "POP3";
    case 614: return "IMAP4";
    default: return "";
  }
}

// One row for the writer thread. Which members hold it depends on its kind;
// the texts are copies, since the caller's views end with its call.
struct RunDatabase::PendingRow {
  enum class Kind : uint8_t { kRecord, kEntry, kDiagnosis, kNotice, kAttachment, kConnectionStart, kConnectionEnd };
  Kind kind = Kind::kRecord;
  std::shared_ptr<const MessageColumns> columns;  // a record's
  LogRecord record;
  uint64_t seconds = 0;                           // an entry's
  DiagnosisRow diagnosis;                         // its numbers; texts in wide[0] and text[0..3]
  NoticeRow notice;                               // its numbers; texts in text[0..4]
  AttachmentRow attachment;
  const IPelkaFlow* flow = nullptr;               // a connection's
  ConnectionTally tally;
  std::wstring wide[3];  // an entry's kind, summary, group
  std::string text[5];
};

RunDatabase::RunDatabase() = default;

RunDatabase::~RunDatabase() {
  StopWriter();
  if (indexer_.joinable()) indexer_.join();
  const std::lock_guard<std::mutex> lock(mutex_);
  statements_.clear();
  messages_.reset();
  if (db_) sqlite3_close_v2(db_);
}

bool RunDatabase::Open(const std::string& path, const RunDescription& run) {
  Finish();
  const std::lock_guard<std::mutex> lock(mutex_);
  // Opened again after Close (a rotating run's next folder): a database
  // that failed stays off, the others start afresh.
  if (!error_.empty()) return false;
  connections_.clear();
  pending_ = 0;
  in_transaction_ = false;
  path_ = path;
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode))
    return Fail("refusing to write through the symbolic link");
  // A database of an earlier run in the folder is replaced, as the other
  // outputs are; its journal would not fit the new file.
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    if (::unlink((path + suffix).c_str()) != 0 && errno != ENOENT) return Fail("cannot replace the old database");
  }
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX;
  if (sqlite3_open_v2(RealPlace(path).c_str(), &db_, flags, nullptr) != SQLITE_OK) return Fail("cannot create");
  // Sorting and temporary tables stay in memory: the run writes nowhere
  // but its output folder.
  // The writer thread checkpoints as it goes (every 1000 pages, SQLite's
  // default), so that little is left for the end of the run.
  if (!Exec("PRAGMA synchronous = OFF; PRAGMA journal_mode = WAL; PRAGMA temp_store = MEMORY; "
            "PRAGMA cache_size = -16384;"))
    return false;
  const std::string version = "PRAGMA user_version = " + std::to_string(kRunDatabaseVersion);
  if (!Exec("BEGIN") || !Exec(kRunDatabaseTables) || !Exec(version.c_str())) return false;
  if (each_row_ && !Exec(kRunDatabaseIndexes)) return false;
  in_transaction_ = true;

  Statement start;
  if (!Prepare("INSERT INTO run (started, started_unix, command_line, captures, options) VALUES (?, ?, ?, ?, ?)",
               start))
    return false;
  const uint64_t now = NowSeconds();
  BindText(start.handle, 1, LocalTimeText(now));
  BindNumber(start.handle, 2, now);
  BindText(start.handle, 3, run.command_line);
  BindText(start.handle, 4, run.captures);
  BindText(start.handle, 5, run.options);
  if (sqlite3_step(start.handle) != SQLITE_DONE) return Fail("cannot write");

  for (Statement** statement :
       {&entry_insert_, &diagnosis_insert_, &notice_insert_, &attachment_insert_, &statistic_insert_,
        &connection_insert_, &connection_update_}) {
    statements_.push_back(std::make_unique<Statement>());
    *statement = statements_.back().get();
  }
  if (!Prepare("INSERT INTO entries (time_unix, time, kind, summary, \"group\") VALUES (?, ?, ?, ?, ?)",
               *entry_insert_) ||
      !Prepare("INSERT INTO diagnosis (event, title, text, code1, code2, packet, time, related_packet, client, "
               "server) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
               *diagnosis_insert_) ||
      !Prepare("INSERT INTO notices (time, client, server, protocol, packet, kind, text) VALUES (?, ?, ?, ?, ?, ?, ?)",
               *notice_insert_) ||
      !Prepare("INSERT INTO attachments (email_number, part, file_name, declared_type, detected_type, size, md5, "
               "sha1, sha256, type_mismatch, ioc_match, stored_path) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
               *attachment_insert_) ||
      !Prepare("INSERT INTO statistics (category, item, counter, value) VALUES (?, ?, ?, ?)", *statistic_insert_) ||
      !Prepare("INSERT INTO connections (protocol, client, server) VALUES (?, ?, ?)", *connection_insert_) ||
      !Prepare("UPDATE connections SET first_time = ?, last_time = ?, client_packets = ?, client_bytes = ?, "
               "server_packets = ?, server_bytes = ?, records = ?, ended = ?, replies_under_10ms = ?, "
               "replies_under_100ms = ?, replies_under_1s = ?, replies_under_10s = ?, replies_10s_or_more = ? "
               "WHERE id = ?",
               *connection_update_))
    return false;
  CommitLocked();
  if (!usable()) return false;
  const std::lock_guard<std::mutex> queue_lock(queue_mutex_);
  accepting_ = true;
  stop_ = false;
  flush_ = false;
  writer_ = std::thread(&RunDatabase::WriterLoop, this);
  return true;
}

template <typename Fill>
void RunDatabase::Enqueue(Fill fill) {
  const std::lock_guard<std::mutex> lock(queue_mutex_);
  if (!accepting_ || failed_.load(std::memory_order_acquire)) {
    rows_lost_.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  if (queued_ == queue_.size()) queue_.emplace_back();
  fill(queue_[queued_++]);
  if (each_row_ || queued_ == kWakeRows) queue_ready_.notify_one();
}

void RunDatabase::OnRecord(const LogColumns& columns, const LogRecord& record) {
  Enqueue([&](PendingRow& row) {
    row.kind = PendingRow::Kind::kRecord;
    row.columns = SnapshotLocked(columns);
    row.record = record;
  });
}

void RunDatabase::OnEntry(uint64_t seconds, std::wstring_view kind, std::wstring_view summary,
                          std::wstring_view group) {
  Enqueue([&](PendingRow& row) {
    row.kind = PendingRow::Kind::kEntry;
    row.seconds = seconds;
    row.wide[0] = kind;
    row.wide[1] = summary;
    row.wide[2] = group;
  });
}

void RunDatabase::OnDiagnosis(const DiagnosisRow& report) {
  Enqueue([&](PendingRow& row) {
    row.kind = PendingRow::Kind::kDiagnosis;
    row.diagnosis = report;
    row.wide[0] = report.text;
    row.text[0] = report.event;
    row.text[1] = report.title;
    row.text[2] = report.client;
    row.text[3] = report.server;
  });
}

void RunDatabase::OnNotice(const NoticeRow& notice) {
  Enqueue([&](PendingRow& row) {
    row.kind = PendingRow::Kind::kNotice;
    row.notice = notice;
    row.text[0] = notice.client;
    row.text[1] = notice.server;
    row.text[2] = notice.protocol;
    row.text[3] = notice.kind;
    row.text[4] = notice.text;
  });
}

void RunDatabase::OnAttachment(const AttachmentRow& attachment) {
  Enqueue([&](PendingRow& row) {
    row.kind = PendingRow::Kind::kAttachment;
    row.attachment = attachment;
  });
}

void RunDatabase::OnConnectionStart(const IPelkaFlow* flow, std::string_view protocol, std::string_view client,
                                    std::string_view server) {
  Enqueue([&](PendingRow& row) {
    row.kind = PendingRow::Kind::kConnectionStart;
    row.flow = flow;
    row.text[0] = protocol;
    row.text[1] = client;
    row.text[2] = server;
  });
}

void RunDatabase::OnConnectionEnd(const IPelkaFlow* flow, const ConnectionTally& tally, std::string_view ended) {
  Enqueue([&](PendingRow& row) {
    row.kind = PendingRow::Kind::kConnectionEnd;
    row.flow = flow;
    row.tally = tally;
    row.text[0] = ended;
  });
}

std::shared_ptr<const RunDatabase::MessageColumns> RunDatabase::SnapshotLocked(const LogColumns& columns) {
  if (columns_ && columns_->keys.size() == columns.size()) return columns_;
  auto snapshot = std::make_shared<MessageColumns>();
  for (const auto& column : columns.list()) {
    snapshot->keys.push_back(column->key());
    snapshot->fields.push_back(column->field());
  }
  columns_ = std::move(snapshot);
  return columns_;
}

void RunDatabase::Write(PendingRow& row) {
  switch (row.kind) {
    case PendingRow::Kind::kRecord: WriteRecord(row.columns, row.record); return;
    case PendingRow::Kind::kEntry: WriteEntry(row.seconds, row.wide[0], row.wide[1], row.wide[2]); return;
    case PendingRow::Kind::kDiagnosis: {
      DiagnosisRow report = row.diagnosis;
      report.text = row.wide[0];
      report.event = row.text[0];
      report.title = row.text[1];
      report.client = row.text[2];
      report.server = row.text[3];
      WriteDiagnosis(report);
      return;
    }
    case PendingRow::Kind::kNotice: {
      NoticeRow notice = row.notice;
      notice.client = row.text[0];
      notice.server = row.text[1];
      notice.protocol = row.text[2];
      notice.kind = row.text[3];
      notice.text = row.text[4];
      WriteNotice(notice);
      return;
    }
    case PendingRow::Kind::kAttachment: WriteAttachment(row.attachment); return;
    case PendingRow::Kind::kConnectionStart: WriteConnectionStart(row.flow, row.text[0], row.text[1], row.text[2]); return;
    case PendingRow::Kind::kConnectionEnd: WriteConnectionEnd(row.flow, row.tally, row.text[0]); return;
  }
}

void RunDatabase::WriterLoop() {
  std::unique_lock<std::mutex> lock(queue_mutex_);
  // Every row handed over is committed by this time: a crash loses at most
  // the last second.
  auto commit_by = std::chrono::steady_clock::now() + kBatchTime;
  for (;;) {
    queue_ready_.wait_until(lock, commit_by, [this] { return stop_ || flush_ || queued_ >= kWakeRows; });
    // The posting threads go on filling the slots this batch kept free.
    writing_.swap(queue_);
    const size_t count = std::exchange(queued_, 0);
    const bool commit = flush_ || stop_ || each_row_;
    flush_ = false;
    const bool stop = stop_;
    lock.unlock();
    {
      const std::lock_guard<std::mutex> db_lock(mutex_);
      for (size_t slot = 0; slot < count; ++slot) Write(writing_[slot]);
      const auto now = std::chrono::steady_clock::now();
      if (commit || pending_ >= kBatchRows || now >= commit_by) {
        CommitLocked();
        commit_by = now + kBatchTime;
      }
    }
    lock.lock();
    if (stop && queued_ == 0) return;
  }
}

void RunDatabase::StopWriter() {
  {
    const std::lock_guard<std::mutex> lock(queue_mutex_);
    accepting_ = false;
    stop_ = true;
  }
  queue_ready_.notify_one();
  if (writer_.joinable()) writer_.join();
}

void RunDatabase::AddStatistics(const HostStatService& statistics) {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const HostStatCategory* category : statistics.categories()) {
    for (const auto& item : category->items()) {
      for (const auto& counter : item->counters()) {
        if (!RowWritable()) continue;
        sqlite3_stmt* statement = statistic_insert_->handle;
        BindText(statement, 1, category->name());
        BindText(statement, 2, item->name());
        BindText(statement, 3, counter->name());
        BindNumber(statement, 4, counter->value());
        Step(statement);
      }
    }
  }
}

void RunDatabase::Commit() {
  {
    const std::lock_guard<std::mutex> lock(queue_mutex_);
    flush_ = true;
  }
  queue_ready_.notify_one();
}

bool RunDatabase::BeginClose(const RunTotals& totals) {
  StopWriter();
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!usable()) return false;
  WriteEnd(totals);
  CommitLocked();
  if (!usable()) return false;
  // A live run has them already. Built in one go at the end, a file run's
  // indices cost far less than kept up row by row.
  indexer_ = std::thread([this] {
    const std::lock_guard<std::mutex> index_lock(mutex_);
    if (usable() && Exec("BEGIN")) {
      in_transaction_ = true;
      if (Exec(kRunDatabaseIndexes)) CommitLocked();
    }
  });
  return true;
}

bool RunDatabase::Finish() {
  if (indexer_.joinable()) indexer_.join();
  const std::lock_guard<std::mutex> lock(mutex_);
  statements_.clear();
  messages_.reset();
  // The last connection checkpoints the log into the file and removes it.
  if (usable() && sqlite3_close(db_) != SQLITE_OK) return Fail("cannot close");
  db_ = nullptr;
  return error_.empty();
}

void RunDatabase::WriteEnd(const RunTotals& totals) {
  Statement end;
  if (Prepare("UPDATE run SET ended = ?, ended_unix = ?, packets = ?, bytes = ?, messages = ?, entries = ?, "
              "diagnosis_reports = ?, copies = ?, connections = ?, interrupted = ?, kernel_drops = ?",
              end)) {
    const uint64_t now = NowSeconds();
    BindText(end.handle, 1, LocalTimeText(now));
    int index = 2;
    for (const uint64_t value : {now, totals.packets, totals.bytes, totals.messages, totals.entries,
                                 totals.diagnosis_reports, totals.copies, totals.connections,
                                 uint64_t{totals.interrupted}})
      BindNumber(end.handle, index++, value);
    // NULL for a file: there is no kernel to drop anything.
    if (totals.kernel_drops >= 0) BindNumber(end.handle, index, static_cast<uint64_t>(totals.kernel_drops));
    Step(end.handle);
  }
}

std::string RunDatabase::error() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return error_;
}

uint64_t RunDatabase::rows_lost() const { return rows_lost_.load(std::memory_order_relaxed); }

bool RunDatabase::Exec(const char* sql) {
  return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK || Fail("cannot write");
}

bool RunDatabase::Prepare(const char* sql, Statement& statement) {
  return sqlite3_prepare_v2(db_, sql, -1, &statement.handle, nullptr) == SQLITE_OK || Fail("cannot prepare");
}

void RunDatabase::Step(sqlite3_stmt* statement) {
  if (!in_transaction_) {
    if (!Exec("BEGIN")) {
      rows_lost_.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    in_transaction_ = true;
  }
  const int result = sqlite3_step(statement);
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  ++pending_;
  if (result != SQLITE_DONE) Fail("cannot write");
}

void RunDatabase::CommitLocked() {
  if (in_transaction_ && usable() && !Exec("COMMIT")) return;
  in_transaction_ = false;
  pending_ = 0;
}

bool RunDatabase::RowWritable() {
  if (usable()) return true;
  rows_lost_.fetch_add(1, std::memory_order_relaxed);
  return false;
}

bool RunDatabase::Fail(const std::string& what) {
  if (error_.empty()) {
    error_ = path_ + ": " + what;
    if (db_) error_ += std::string(" (") + sqlite3_errmsg(db_) + ")";
  }
  // The open transaction is rolled back when the file closes: its rows are lost.
  rows_lost_.fetch_add(pending_, std::memory_order_relaxed);
  failed_.store(true, std::memory_order_release);
  pending_ = 0;
  in_transaction_ = false;
  statements_.clear();
  messages_.reset();
  if (db_) sqlite3_close_v2(db_);
  db_ = nullptr;
  return false;
}

}  // namespace pelka
