// The statements of emails.sqlite (capture/RunDatabase.h): binding values,
// and the insert of a message row made for the columns its log declared.
// Only RunDatabase.cpp includes this.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "capture/LocalTime.h"
#include "capture/LogRecord.h"
#include "capture/RunDatabase.h"
#include "host/CodePage.h"

namespace pelka {
namespace run_database {

inline constexpr char kSenderKey[] = "email_sender_email";
inline constexpr char kReceiverKey[] = "email_receive_email";

inline void BindText(sqlite3_stmt* statement, int index, std::string_view text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

// For a text that stays as it is until the statement has run: SQLite takes
// no copy of it.
inline void BindKeptText(sqlite3_stmt* statement, int index, std::string_view text) {
  sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

// `text` in UTF-8, into `out`, whose room serves the next row too.
inline std::string_view Utf8Into(std::wstring_view text, std::string& out) {
  WideToMultiByte(kCodePageUtf8, text, out);
  return out;
}

// An empty text is a field the JSON object leaves out.
inline void BindTextOrNull(sqlite3_stmt* statement, int index, std::string_view text) {
  if (text.empty()) {
    sqlite3_bind_null(statement, index);
  } else {
    BindText(statement, index, text);
  }
}

inline void BindNumber(sqlite3_stmt* statement, int index, uint64_t value) {
  sqlite3_bind_int64(statement, index, static_cast<sqlite3_int64>(value));
}

// The domain of the first address in a list ("a@Example.com, b@c.org"),
// lower-case, in `out`; empty when it has none.
inline std::string_view FirstDomain(std::wstring_view addresses, std::string& out) {
  out.clear();
  const size_t at = addresses.find(L'@');
  if (at == std::wstring_view::npos) return out;
  const size_t end = addresses.find_first_of(L",; >", at + 1);
  Utf8Into(addresses.substr(at + 1, end == std::wstring_view::npos ? std::wstring_view::npos : end - at - 1), out);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

}  // namespace run_database

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

  bool Make(RunDatabase& database, std::shared_ptr<const MessageColumns> columns) {
    columns_ = std::move(columns);
    std::set<std::string> known;
    if (!KnownColumns(database, known)) return false;
    std::string names = "time_unix, sender_domain, receiver_domain, connection_id";
    std::string values = "?, ?, ?, ?";
    for (size_t id = 0; id < columns_->keys.size(); ++id) {
      const std::string& key = columns_->keys[id];
      const std::string quoted = Quoted(key);
      if (!known.count(key)) {
        if (!database.Exec(("ALTER TABLE messages ADD COLUMN " + quoted).c_str())) return false;
        known.insert(key);
      }
      names += ", " + quoted;
      values += ", ?";
      if (key == run_database::kSenderKey) sender_ = static_cast<int32_t>(id);
      if (key == run_database::kReceiverKey) receiver_ = static_cast<int32_t>(id);
    }
    const std::string sql = "INSERT INTO messages (" + names + ") VALUES (" + values + ")";
    return database.Prepare(sql.c_str(), statement_);
  }

  bool Fits(const MessageColumns* columns) const { return columns_.get() == columns; }

  // Binds the record's fields as its emails.jsonl line writes them.
  // `connection` is the row of the record's connection, 0 for none.
  sqlite3_stmt* Bind(const LogRecord& record, LocalTimeCache& times, int64_t connection) {
    sqlite3_stmt* statement = statement_.handle;
    texts_.resize(columns_->fields.size() + 2);
    run_database::BindNumber(statement, 1, record.seconds());
    BindKeptOrNull(statement, 2, run_database::FirstDomain(record.TextAt(sender_), texts_[0]));
    BindKeptOrNull(statement, 3, run_database::FirstDomain(record.TextAt(receiver_), texts_[1]));
    if (connection != 0) run_database::BindNumber(statement, 4, static_cast<uint64_t>(connection));
    for (size_t id = 0; id < columns_->fields.size(); ++id) {
      const int index = kFirstColumn + static_cast<int>(id);
      const uint32_t field = columns_->fields[id];
      if (field == kLogFieldClientPort || field == kLogFieldServerPort) {
        run_database::BindNumber(statement, index, record.view().port[field == kLogFieldClientPort ? 0 : 1]);
      } else if (field == kLogFieldDateTime) {
        run_database::BindText(statement, index, times.Text(record.seconds()));
      } else if (field != 0) {
        char digits[8];
        run_database::BindTextOrNull(statement, index, record.StandardText(field, {}, digits));
      } else {
        BindField(statement, index, record, record.field(id), texts_[id + 2]);
      }
    }
    return statement;
  }

 private:
  // Texts are bound without a copy: the statement runs before the next row
  // reuses their room.
  static void BindKeptOrNull(sqlite3_stmt* statement, int index, std::string_view text) {
    if (text.empty()) {
      sqlite3_bind_null(statement, index);
    } else {
      run_database::BindKeptText(statement, index, text);
    }
  }

  static void BindField(sqlite3_stmt* statement, int index, const LogRecord& record, const LogRecord::Field& value,
                        std::string& utf8) {
    switch (value.kind) {
      case LogRecord::Kind::kText:
        run_database::BindKeptText(statement, index, run_database::Utf8Into(record.Text(value), utf8));
        return;
      case LogRecord::Kind::kNumber: run_database::BindNumber(statement, index, value.number); return;
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
  std::shared_ptr<const MessageColumns> columns_;
  std::vector<std::string> texts_;  // the row's UTF-8 texts: the domains, then one per column
  int32_t sender_ = -1;
  int32_t receiver_ = -1;
};


}  // namespace pelka
