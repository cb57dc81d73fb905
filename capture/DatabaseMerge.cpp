#include "capture/DatabaseMerge.h"

#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "capture/ReadOnlyDatabase.h"
#include "capture/RunDatabaseSchema.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;

// Tables whose rows are put in time order across the folders, like their
// JSON lines; a table a folder's database lacks (an older run) adds nothing.
const char* const kTimedTables[] = {"entries", "diagnosis", "notices"};

std::string Quoted(const std::string& name) { return "\"" + name + "\""; }

std::string Joined(const std::vector<std::string>& names, const std::string& prefix = "") {
  std::string joined;
  for (const std::string& name : names) joined += (joined.empty() ? "" : ", ") + prefix + Quoted(name);
  return joined;
}

class MergedDatabase {
 public:
  ~MergedDatabase() {
    if (db_) sqlite3_close_v2(db_);
  }

  bool Create(const std::string& path) {
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_URI;
    if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) return Fail("cannot create " + path);
    const std::string version = "PRAGMA user_version = " + std::to_string(kRunDatabaseVersion);
    // A database is attached and detached outside a transaction: each
    // folder's rows are one transaction of their own.
    return Exec("PRAGMA temp_store = MEMORY; BEGIN") && Exec(kRunDatabaseTables) && Exec(version) &&
           Exec("CREATE TEMP TABLE record_map (folder INTEGER, old_number INTEGER, new_number INTEGER, "
                "copy_path TEXT, PRIMARY KEY (folder, old_number))") &&
           Exec("CREATE TEMP TABLE staged_run AS SELECT * FROM main.run WHERE 0") &&
           Exec("CREATE TEMP TABLE staged_statistics AS SELECT 0 AS position, * FROM main.statistics WHERE 0") &&
           Exec("CREATE TEMP TABLE staged_attachments AS SELECT * FROM main.attachments WHERE 0") &&
           StageTimedTables() && Exec("COMMIT");
  }

  bool MapRecords(const std::vector<MergedRecord>& records) {
    sqlite3_stmt* insert = nullptr;
    if (sqlite3_prepare_v2(db_, "INSERT OR IGNORE INTO record_map VALUES (?, ?, ?, ?)", -1, &insert, nullptr) !=
        SQLITE_OK)
      return Fail(sqlite3_errmsg(db_));
    bool ok = true;
    for (const MergedRecord& record : records) {
      sqlite3_bind_int64(insert, 1, static_cast<sqlite3_int64>(record.folder));
      sqlite3_bind_int64(insert, 2, static_cast<sqlite3_int64>(record.old_number));
      sqlite3_bind_int64(insert, 3, static_cast<sqlite3_int64>(record.new_number));
      sqlite3_bind_text(insert, 4, record.copy_path.data(), static_cast<int>(record.copy_path.size()),
                        SQLITE_TRANSIENT);
      ok = ok && sqlite3_step(insert) == SQLITE_DONE;
      sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    return ok || Fail(sqlite3_errmsg(db_));
  }

  // Adds one folder's database; false only when the merged file fails. A
  // source that cannot be read is a warning.
  bool Add(size_t folder, const std::string& path, DatabaseMergeReport* report) {
    if (!Attach(path)) {
      report->warnings.push_back(path + " cannot be read (" + error_ + "): its rows are not in the merged database");
      error_.clear();
      return true;
    }
    if (const int64_t version = Number("PRAGMA src.user_version"); version != kRunDatabaseVersion) {
      report->warnings.push_back(path + " has schema version " + std::to_string(version) + ", not " +
                                 std::to_string(kRunDatabaseVersion) + ": its rows are not in the merged database");
      return Exec("DETACH src");
    }
    const std::string f = std::to_string(folder);
    const int64_t offset = Number("SELECT ifnull(max(id), 0) FROM main.connections");
    const bool ok = Exec("BEGIN") && Exec("INSERT INTO staged_run SELECT * FROM src.run") && AddConnections(offset) &&
                    AddMessages(f, offset, report) && StageAttachments(f) &&
                    Exec("INSERT INTO staged_statistics SELECT " + f + " * 4294967296 + rowid, * FROM src.statistics") &&
                    StageTimedRows(f) && Exec("COMMIT");
    ++report->databases;
    return ok && Exec("DETACH src");
  }

  bool Finish() {
    return Exec("BEGIN") && Exec("INSERT INTO main.run SELECT (SELECT started FROM staged_run ORDER BY started_unix LIMIT 1), "
                "(SELECT ended FROM staged_run ORDER BY ended_unix DESC LIMIT 1), min(started_unix), "
                "max(ended_unix), group_concat(command_line, char(10)), group_concat(captures, char(10)), "
                "group_concat(DISTINCT options), sum(packets), sum(bytes), sum(messages), sum(entries), "
                "sum(diagnosis_reports), sum(copies), sum(connections), max(interrupted), sum(kernel_drops) "
                "FROM staged_run") &&
           Exec("INSERT INTO main.statistics SELECT category, item, counter, sum(value) FROM staged_statistics "
                "GROUP BY category, item, counter ORDER BY min(position)") &&
           WriteTimedTables() && WriteAttachments() && Exec(kRunDatabaseIndexes) && Exec("COMMIT");
  }

  const std::string& error() const { return error_; }

 private:
  bool Fail(const std::string& what) {
    if (error_.empty()) error_ = what;
    return false;
  }

  bool Exec(const std::string& sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) == SQLITE_OK) return true;
    Fail(message ? message : sqlite3_errmsg(db_));
    sqlite3_free(message);
    return false;
  }

  int64_t Number(const std::string& sql) {
    sqlite3_stmt* query = nullptr;
    int64_t value = -1;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &query, nullptr) == SQLITE_OK && sqlite3_step(query) == SQLITE_ROW)
      value = sqlite3_column_int64(query, 0);
    sqlite3_finalize(query);
    return value;
  }

  std::vector<std::string> Columns(const std::string& schema, const std::string& table) {
    std::vector<std::string> names;
    sqlite3_stmt* query = nullptr;
    const std::string sql = "PRAGMA " + schema + ".table_info(" + Quoted(table) + ")";
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &query, nullptr) == SQLITE_OK) {
      while (sqlite3_step(query) == SQLITE_ROW) names.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(query, 1)));
    }
    sqlite3_finalize(query);
    return names;
  }

  bool Attach(const std::string& path) {
    sqlite3_stmt* attach = nullptr;
    const std::string uri = ReadOnlyDatabaseUri(path);
    bool ok = sqlite3_prepare_v2(db_, "ATTACH DATABASE ? AS src", -1, &attach, nullptr) == SQLITE_OK &&
              sqlite3_bind_text(attach, 1, uri.c_str(), -1, SQLITE_TRANSIENT) == SQLITE_OK &&
              sqlite3_step(attach) == SQLITE_DONE;
    if (!ok) Fail(sqlite3_errmsg(db_));
    sqlite3_finalize(attach);
    // A file that is not a database only shows when it is first read.
    if (ok && Number("SELECT count(*) FROM src.sqlite_schema") < 0) {
      Fail(sqlite3_errmsg(db_));
      Exec("DETACH src");
      return false;
    }
    return ok;
  }

  bool AddConnections(int64_t offset) {
    std::vector<std::string> columns = Columns("main", "connections");
    columns.erase(columns.begin());  // id
    return Exec("INSERT INTO main.connections (id, " + Joined(columns) + ") SELECT id + " + std::to_string(offset) +
                ", " + Joined(columns) + " FROM src.connections");
  }

  // The messages' columns follow the keys the module declared, so a source
  // may have one more; the merged table gains it.
  bool AddMessages(const std::string& f, int64_t offset, DatabaseMergeReport* report) {
    const std::vector<std::string> have = Columns("main", "messages");
    const std::set<std::string> known(have.begin(), have.end());
    const std::set<std::string> rewritten = {"id", "email_number", "email_file_path", "connection_id"};
    std::vector<std::string> copied;
    for (const std::string& column : Columns("src", "messages")) {
      if (!known.count(column) && !Exec("ALTER TABLE main.messages ADD COLUMN " + Quoted(column))) return false;
      if (!rewritten.count(column)) copied.push_back(column);
    }
    const bool ok = Exec(
        "INSERT INTO main.messages (id, email_number, email_file_path, connection_id, " + Joined(copied) +
        ") SELECT r.new_number, r.new_number, CASE WHEN s.email_file_path IS NULL THEN NULL ELSE r.copy_path END, "
        "s.connection_id + " + std::to_string(offset) + ", " + Joined(copied, "s.") +
        " FROM src.messages s JOIN record_map r ON r.folder = " + f + " AND r.old_number = s.email_number");
    const int64_t added = sqlite3_changes64(db_);
    report->messages_missing += static_cast<uint64_t>(Number("SELECT count(*) FROM src.messages") - added);
    return ok;
  }

  // Attachments follow their message to its new number, and are written in
  // the order of the merged messages.
  bool StageAttachments(const std::string& f) {
    std::vector<std::string> columns = Columns("main", "attachments");
    columns.erase(columns.begin(), columns.begin() + 2);  // id, email_number
    return Exec("INSERT INTO staged_attachments (email_number, " + Joined(columns) + ") SELECT r.new_number, " +
                Joined(columns, "a.") + " FROM src.attachments a JOIN record_map r ON r.folder = " + f +
                " AND r.old_number = a.email_number");
  }

  bool WriteAttachments() {
    std::vector<std::string> columns = Columns("main", "attachments");
    columns.erase(columns.begin());  // id: numbered again in the merged order
    return Exec("INSERT INTO main.attachments (" + Joined(columns) + ") SELECT " + Joined(columns) +
                " FROM staged_attachments ORDER BY email_number, part");
  }

  bool StageTimedTables() {
    for (const char* table : kTimedTables) {
      if (Columns("main", table).empty()) continue;
      if (!Exec(std::string("CREATE TEMP TABLE staged_") + table + " AS SELECT 0 AS folder, * FROM main." + table +
                " WHERE 0"))
        return false;
    }
    return true;
  }

  bool StageTimedRows(const std::string& f) {
    for (const char* table : kTimedTables) {
      std::vector<std::string> columns = Columns("main", table);
      if (columns.empty() || Columns("src", table).empty()) continue;
      if (!Exec(std::string("INSERT INTO staged_") + table + " (folder, " + Joined(columns) + ") SELECT " + f +
                ", " + Joined(columns) + " FROM src." + table))
        return false;
    }
    return true;
  }

  bool WriteTimedTables() {
    for (const char* table : kTimedTables) {
      std::vector<std::string> columns = Columns("main", table);
      if (columns.empty()) continue;
      const bool timed = std::find(columns.begin(), columns.end(), "time") != columns.end();
      columns.erase(columns.begin());  // id: numbered again in the merged order
      if (!Exec(std::string("INSERT INTO main.") + table + " (" + Joined(columns) + ") SELECT " + Joined(columns) +
                " FROM staged_" + table + " ORDER BY " + (timed ? "time, " : "") + "folder, id"))
        return false;
    }
    return true;
  }

  sqlite3* db_ = nullptr;
  std::string error_;
};

}  // namespace

std::string MergeDatabases(const std::vector<std::string>& folders, const std::vector<MergedRecord>& records,
                           const std::string& out_path, DatabaseMergeReport* report) {
  std::vector<size_t> with_database;
  for (size_t f = 0; f < folders.size(); ++f) {
    std::error_code error;
    if (fs::is_regular_file(fs::path(folders[f]) / "emails.sqlite", error)) {
      with_database.push_back(f);
    } else {
      report->warnings.push_back(folders[f] + " holds no emails.sqlite (a run with --no-db?): its rows are not in "
                                              "the merged database");
    }
  }
  if (with_database.empty()) return {};
  MergedDatabase merged;
  bool ok = merged.Create(out_path) && merged.MapRecords(records);
  for (size_t i = 0; ok && i < with_database.size(); ++i) {
    const size_t f = with_database[i];
    ok = merged.Add(f, (fs::path(folders[f]) / "emails.sqlite").string(), report);
  }
  if (ok && report->messages_missing) {
    report->warnings.push_back(std::to_string(report->messages_missing) +
                               " database rows of messages match no record of their folder and were left out");
  }
  return ok && merged.Finish() ? std::string() : "cannot write " + out_path + ": " + merged.error();
}

}  // namespace pelka
