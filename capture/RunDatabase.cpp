#include "capture/RunDatabase.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <set>

#include "capture/HostStatistics.h"
#include "capture/LogColumns.h"
#include "capture/LogRecord.h"
#include "capture/RunDatabaseSchema.h"
#include "host/CodePage.h"

namespace pelka {
namespace {

constexpr char kSenderKey[] = "email_sender_email";
constexpr char kReceiverKey[] = "email_receive_email";

void BindText(sqlite3_stmt* statement, int index, std::string_view text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

// An empty text is a field the JSON object leaves out.
void BindTextOrNull(sqlite3_stmt* statement, int index, std::string_view text) {
  if (text.empty()) {
    sqlite3_bind_null(statement, index);
  } else {
    BindText(statement, index, text);
  }
}

void BindNumber(sqlite3_stmt* statement, int index, uint64_t value) {
  sqlite3_bind_int64(statement, index, static_cast<sqlite3_int64>(value));
}

// The domain of the first address in a list ("a@Example.com, b@c.org"),
// lower-case; empty when it has none.
std::string FirstDomain(std::wstring_view addresses) {
  const std::string text = WideToUtf8(addresses);
  const size_t at = text.find('@');
  if (at == std::string::npos) return {};
  const size_t end = text.find_first_of(",; >", at + 1);
  std::string domain = text.substr(at + 1, end == std::string::npos ? std::string::npos : end - at - 1);
  for (char& c : domain)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return domain;
}

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

struct RunDatabase::Statement {
  Statement() = default;
  ~Statement() { sqlite3_finalize(handle); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  sqlite3_stmt* handle = nullptr;
};

// The insert of one message row, made for the columns the log declared:
// column i of the log is parameter kFirstColumn + i.
class RunDatabase::MessageInsert {
 public:
  static constexpr int kFirstColumn = 5;  // after time_unix, sender_domain, receiver_domain, connection_id

  bool Make(RunDatabase& database, const LogColumns& columns) {
    column_count_ = columns.size();
    std::set<std::string> known;
    if (!KnownColumns(database, known)) return false;
    std::string names = "time_unix, sender_domain, receiver_domain, connection_id";
    std::string values = "?, ?, ?, ?";
    for (const auto& column : columns.list()) {
      const std::string quoted = Quoted(column->key());
      if (!known.count(column->key())) {
        if (!database.Exec(("ALTER TABLE messages ADD COLUMN " + quoted).c_str())) return false;
        known.insert(column->key());
      }
      names += ", " + quoted;
      values += ", ?";
      if (column->key() == kSenderKey) sender_ = column->id();
      if (column->key() == kReceiverKey) receiver_ = column->id();
    }
    const std::string sql = "INSERT INTO messages (" + names + ") VALUES (" + values + ")";
    return database.Prepare(sql.c_str(), statement_);
  }

  bool Fits(const LogColumns& columns) const { return columns.size() == column_count_; }

  // Binds the record's fields as its emails.jsonl line writes them.
  // `connection` is the row of the record's connection, 0 for none.
  sqlite3_stmt* Bind(const LogColumns& columns, const LogRecord& record, LocalTimeCache& times, int64_t connection) {
    sqlite3_stmt* statement = statement_.handle;
    BindNumber(statement, 1, record.seconds());
    BindTextOrNull(statement, 2, FirstDomain(record.TextAt(sender_)));
    BindTextOrNull(statement, 3, FirstDomain(record.TextAt(receiver_)));
    if (connection != 0) BindNumber(statement, 4, static_cast<uint64_t>(connection));
    for (const auto& column : columns.list()) {
      const int index = kFirstColumn + column->id();
      const uint32_t field = column->field();
      if (field == kLogFieldClientPort || field == kLogFieldServerPort) {
        BindNumber(statement, index, record.view().port[field == kLogFieldClientPort ? 0 : 1]);
      } else if (field == kLogFieldDateTime) {
        BindText(statement, index, times.Text(record.seconds()));
      } else if (field != 0) {
        char digits[8];
        BindTextOrNull(statement, index, record.StandardText(field, {}, digits));
      } else {
        BindField(statement, index, record, record.field(column->id()));
      }
    }
    return statement;
  }

 private:
  static void BindField(sqlite3_stmt* statement, int index, const LogRecord& record, const LogRecord::Field& value) {
    switch (value.kind) {
      case LogRecord::Kind::kText: BindText(statement, index, WideToUtf8(record.Text(value))); return;
      case LogRecord::Kind::kNumber: BindNumber(statement, index, value.number); return;
      case LogRecord::Kind::kDouble: sqlite3_bind_double(statement, index, value.real); return;
      case LogRecord::Kind::kUnset: sqlite3_bind_null(statement, index); return;
    }
  }

  static std::string Quoted(const std::string& key) {
    std::string quoted = "\"";
    for (const char c : key) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
  }

  static bool KnownColumns(RunDatabase& database, std::set<std::string>& known) {
    Statement info;
    if (!database.Prepare("PRAGMA table_info(messages)", info)) return false;
    while (sqlite3_step(info.handle) == SQLITE_ROW)
      known.insert(reinterpret_cast<const char*>(sqlite3_column_text(info.handle, 1)));
    return true;
  }

  Statement statement_;
  size_t column_count_ = 0;
  int32_t sender_ = -1;
  int32_t receiver_ = -1;
};

RunDatabase::RunDatabase() = default;

RunDatabase::~RunDatabase() {
  const std::lock_guard<std::mutex> lock(mutex_);
  statements_.clear();
  messages_.reset();
  if (db_) sqlite3_close_v2(db_);
}

bool RunDatabase::Open(const std::string& path, const RunDescription& run) {
  const std::lock_guard<std::mutex> lock(mutex_);
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
  if (!Exec("PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA temp_store = MEMORY;")) return false;
  const std::string version = "PRAGMA user_version = " + std::to_string(kRunDatabaseVersion);
  if (!Exec("BEGIN") || !Exec(kRunDatabaseSchema) || !Exec(version.c_str())) return false;
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
       {&entry_insert_, &diagnosis_insert_, &statistic_insert_, &connection_insert_, &connection_update_}) {
    statements_.push_back(std::make_unique<Statement>());
    *statement = statements_.back().get();
  }
  if (!Prepare("INSERT INTO entries (time_unix, time, kind, summary, \"group\") VALUES (?, ?, ?, ?, ?)",
               *entry_insert_) ||
      !Prepare("INSERT INTO diagnosis (event, title, text, code1, code2, packet, time, related_packet, client, "
               "server) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
               *diagnosis_insert_) ||
      !Prepare("INSERT INTO statistics (category, item, counter, value) VALUES (?, ?, ?, ?)", *statistic_insert_) ||
      !Prepare("INSERT INTO connections (protocol, client, server) VALUES (?, ?, ?)", *connection_insert_) ||
      !Prepare("UPDATE connections SET first_time = ?, last_time = ?, client_packets = ?, client_bytes = ?, "
               "server_packets = ?, server_bytes = ?, records = ?, ended = ? WHERE id = ?",
               *connection_update_))
    return false;
  CommitLocked();
  return usable();
}

void RunDatabase::OnRecord(const LogColumns& columns, const LogRecord& record) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (usable() && (!messages_ || !messages_->Fits(columns))) {
    auto insert = std::make_unique<MessageInsert>();
    if (insert->Make(*this, columns)) messages_ = std::move(insert);
  }
  if (!usable()) {
    ++rows_lost_;
    return;
  }
  int64_t connection = 0;
  if (const auto open = connections_.find(record.flow()); open != connections_.end()) {
    connection = open->second.row;
    ++open->second.records;
  }
  Step(messages_->Bind(columns, record, times_, connection));
}

void RunDatabase::OnEntry(uint64_t seconds, std::wstring_view kind, std::wstring_view summary,
                          std::wstring_view group) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!usable()) {
    ++rows_lost_;
    return;
  }
  sqlite3_stmt* statement = entry_insert_->handle;
  BindNumber(statement, 1, seconds);
  BindText(statement, 2, times_.Text(seconds));
  BindText(statement, 3, WideToUtf8(kind));
  BindText(statement, 4, WideToUtf8(summary));
  BindText(statement, 5, WideToUtf8(group));
  Step(statement);
}

void RunDatabase::OnDiagnosis(const DiagnosisRow& report) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!usable()) {
    ++rows_lost_;
    return;
  }
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

void RunDatabase::OnConnectionStart(const IPelkaFlow* flow, std::string_view protocol, std::string_view client,
                                    std::string_view server) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!usable()) {
    ++rows_lost_;
    return;
  }
  sqlite3_stmt* statement = connection_insert_->handle;
  BindText(statement, 1, protocol);
  BindText(statement, 2, client);
  BindText(statement, 3, server);
  Step(statement);
  if (usable()) connections_[flow] = {sqlite3_last_insert_rowid(db_), 0};
}

void RunDatabase::OnConnectionEnd(const IPelkaFlow* flow, const ConnectionTally& tally, std::string_view ended) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto open = connections_.find(flow);
  if (open == connections_.end()) return;  // its start was lost, and counted
  const OpenConnection connection = open->second;
  // The flow object may be reused for a later connection.
  connections_.erase(open);
  if (!usable()) {
    ++rows_lost_;
    return;
  }
  sqlite3_stmt* statement = connection_update_->handle;
  int index = 1;
  for (const uint64_t value : {tally.first_time, tally.last_time, tally.packets[0], tally.bytes[0], tally.packets[1],
                               tally.bytes[1], connection.records})
    BindNumber(statement, index++, value);
  BindText(statement, index++, ended);
  BindNumber(statement, index, static_cast<uint64_t>(connection.row));
  Step(statement);
}

void RunDatabase::AddStatistics(const HostStatService& statistics) {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const HostStatCategory* category : statistics.categories()) {
    for (const auto& item : category->items()) {
      for (const auto& counter : item->counters()) {
        if (!usable()) {
          ++rows_lost_;
          continue;
        }
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
  const std::lock_guard<std::mutex> lock(mutex_);
  CommitLocked();
}

bool RunDatabase::Close(const RunTotals& totals) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!usable()) return false;
  WriteEnd(totals);
  CommitLocked();
  statements_.clear();
  messages_.reset();
  if (usable() && sqlite3_close(db_) != SQLITE_OK) return Fail("cannot close");
  db_ = nullptr;
  return error_.empty();
}

void RunDatabase::WriteEnd(const RunTotals& totals) {
  Statement end;
  if (Prepare("UPDATE run SET ended = ?, ended_unix = ?, packets = ?, bytes = ?, messages = ?, entries = ?, "
              "diagnosis_reports = ?, copies = ?, connections = ?, interrupted = ?",
              end)) {
    const uint64_t now = NowSeconds();
    BindText(end.handle, 1, LocalTimeText(now));
    int index = 2;
    for (const uint64_t value : {now, totals.packets, totals.bytes, totals.messages, totals.entries,
                                 totals.diagnosis_reports, totals.copies, totals.connections,
                                 uint64_t{totals.interrupted}})
      BindNumber(end.handle, index++, value);
    Step(end.handle);
  }
}

std::string RunDatabase::error() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return error_;
}

uint64_t RunDatabase::rows_lost() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return rows_lost_;
}

bool RunDatabase::Exec(const char* sql) {
  return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK || Fail("cannot write");
}

bool RunDatabase::Prepare(const char* sql, Statement& statement) {
  return sqlite3_prepare_v2(db_, sql, -1, &statement.handle, nullptr) == SQLITE_OK || Fail("cannot prepare");
}

void RunDatabase::Step(sqlite3_stmt* statement) {
  if (!in_transaction_) {
    if (!Exec("BEGIN")) {
      ++rows_lost_;
      return;
    }
    in_transaction_ = true;
  }
  const int result = sqlite3_step(statement);
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  ++pending_;
  if (result != SQLITE_DONE) {
    Fail("cannot write");
    return;
  }
  if (each_row_ || pending_ >= kBatchRows || std::chrono::steady_clock::now() - last_commit_ >= kBatchTime)
    CommitLocked();
}

void RunDatabase::CommitLocked() {
  if (in_transaction_ && usable() && !Exec("COMMIT")) return;
  in_transaction_ = false;
  pending_ = 0;
  last_commit_ = std::chrono::steady_clock::now();
}

bool RunDatabase::Fail(const std::string& what) {
  if (error_.empty()) {
    error_ = path_ + ": " + what;
    if (db_) error_ += std::string(" (") + sqlite3_errmsg(db_) + ")";
  }
  // The open transaction is rolled back when the file closes: its rows are lost.
  rows_lost_ += pending_;
  pending_ = 0;
  in_transaction_ = false;
  statements_.clear();
  messages_.reset();
  if (db_) sqlite3_close_v2(db_);
  db_ = nullptr;
  return false;
}

}  // namespace pelka
