// emails.sqlite: the run's outputs as one SQLite database, for questions that
// need a query (who sent the most, which server answered slowly and when).
//
// It holds the same rows as emails.jsonl (table messages), entries.jsonl
// (entries), diagnosis.jsonl (diagnosis) and statistics.json (statistics),
// fed by the same writers through RunSink, one row per mail connection
// (connections, fed by the host's flow sink) and one row on the run itself
// (run). The schema is in capture/RunDatabaseSchema.h; PRAGMA user_version
// carries its version.
//
// The threads that post hand each row over (a copy of its values, into a
// slot of a queue whose slots are filled again and again, so that handing a
// row over allocates nothing once the queue has grown) to a writer thread of
// the database's own, which writes them as they come (in
// slices of kWakeRows rows) and commits every kBatchRows rows or one second
// (or each row, for input that arrives slowly): the analysis never waits for
// SQLite, and at the end of a run only the last slice is left. Commit and Close
// commit whatever waits. The journal is a
// write-ahead log, so the sqlite3 shell can query the file while a live run
// adds to it, and a crash loses at most the last second.
//
// The first failure (the file cannot be made, a write fails) is kept in
// error(); the database is then closed, and the rows that did not reach it
// are counted (rows_lost()). The other outputs do not depend on it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capture/AttachmentTaker.h"
#include "capture/FlowSink.h"
#include "capture/LocalTime.h"
#include "capture/RunSink.h"

struct sqlite3;
struct sqlite3_stmt;

namespace pelka {

class HostStatService;
class IPelkaFlow;

// What the host saw of one mail connection, for the table connections.
// Side 0 is the client, 1 the server; bytes are TCP payload delivered.
//
// A reply time runs from the client's last data packet to the server's next
// one: the server's own time to answer, whatever the request's length. Data
// the server sends unasked (a greeting, the rest of a long answer) is none.
struct ConnectionTally {
  // Upper bounds of the reply-time bands, in microseconds; the last band has none.
  static constexpr uint64_t kReplyBandLimits[] = {10'000, 100'000, 1'000'000, 10'000'000};
  static constexpr size_t kReplyBands = std::size(kReplyBandLimits) + 1;

  uint64_t first_time = 0;  // microseconds since 1970
  uint64_t last_time = 0;
  uint64_t packets[2] = {0, 0};
  uint64_t bytes[2] = {0, 0};
  uint64_t replies[kReplyBands] = {};
  uint64_t request_time = 0;  // of the client's last data packet not answered yet
  bool awaiting_reply = false;

  void Count(uint64_t time, uint32_t direction, uint32_t length) {
    if (packets[0] + packets[1] == 0) first_time = time;
    last_time = time;
    const int side = direction == 2 ? 1 : 0;
    ++packets[side];
    bytes[side] += length;
    if (length == 0) return;
    if (side == 0) {
      request_time = time;
      awaiting_reply = true;
    } else if (awaiting_reply) {
      awaiting_reply = false;
      const uint64_t took = time > request_time ? time - request_time : 0;
      size_t band = 0;
      while (band < kReplyBands - 1 && took >= kReplyBandLimits[band]) ++band;
      ++replies[band];
    }
  }
};

// connections' reply-time columns, one per band of ConnectionTally.
inline constexpr const char* kReplyBandColumns[ConnectionTally::kReplyBands] = {
    "replies_under_10ms", "replies_under_100ms", "replies_under_1s", "replies_under_10s", "replies_10s_or_more"};

// One coverage notice, as its notices.jsonl line holds it (time is the local
// time text; time_us the packet's time in microseconds since 1970).
struct NoticeRow {
  std::string_view time;
  std::string_view client;
  std::string_view server;
  std::string_view protocol;
  uint64_t packet = 0;
  uint64_t time_us = 0;
  std::string_view kind;
  std::string_view text;
};

// What a run was asked to do, for the table run.
struct RunDescription {
  std::string command_line;  // the arguments, separated by spaces
  std::string captures;      // the capture files (one per line) or the interface
  std::string options;       // the settings of the run, "name=value" separated by spaces
};

// What a run did, for the table run.
struct RunTotals {
  uint64_t packets = 0;
  uint64_t bytes = 0;
  uint64_t messages = 0;
  uint64_t entries = 0;
  uint64_t diagnosis_reports = 0;
  uint64_t copies = 0;
  uint64_t connections = 0;  // mail connections the module followed
  bool interrupted = false;  // ended by a signal or a limit
  int64_t kernel_drops = -1;  // packets the kernel dropped; live capture only
};

// connections.ended: "closed", "reset", "idle", "evicted", "replaced" or
// "end of input".
const char* ConnectionEndText(FlowEndReason reason);
// connections.protocol of a flow's application protocol: the statistics'
// item names "SMTP", "POP3", "IMAP4".
const char* ConnectionProtocolText(uint16_t application_protocol);

class RunDatabase final : public RunSink, public AttachmentSink {
 public:
  static constexpr uint32_t kBatchRows = 4096;
  static constexpr std::chrono::seconds kBatchTime{1};
  // The writer thread takes the rows that wait in slices this big, so that
  // it keeps pace with the analysis and little is left to write when the
  // run ends; a transaction still spans kBatchRows rows or kBatchTime.
  static constexpr uint32_t kWakeRows = 256;

  RunDatabase();
  ~RunDatabase() override;
  RunDatabase(const RunDatabase&) = delete;
  RunDatabase& operator=(const RunDatabase&) = delete;

  // Creates the database at `path` afresh (an older one and its journal are
  // removed) and writes the run's start. A symbolic link at `path` is refused,
  // never followed. False with error() when it cannot be made. After Close
  // it may be opened again, at another path, unless it failed.
  bool Open(const std::string& path, const RunDescription& run);

  // Commits every row as it comes (an interface, a pipe): with traffic that
  // brings no mail, nothing else would commit a lone record soon.
  void CommitEachRow(bool each_row) {
    const std::lock_guard<std::mutex> lock(queue_mutex_);
    each_row_ = each_row;
  }

  void OnRecord(const LogColumns& columns, const LogRecord& record) override;
  void OnEntry(uint64_t seconds, std::wstring_view kind, std::wstring_view summary,
               std::wstring_view group) override;
  void OnDiagnosis(const DiagnosisRow& report) override;
  void OnNotice(const NoticeRow& notice);
  void OnAttachment(const AttachmentRow& row) override;

  // A connection the module took, after it chose the sides: its row is made
  // now, so that the records posted on it name it (messages.connection_id).
  void OnConnectionStart(const IPelkaFlow* flow, std::string_view protocol, std::string_view client,
                         std::string_view server);
  // Its end: the tally, the records posted on it and why it ended.
  void OnConnectionEnd(const IPelkaFlow* flow, const ConnectionTally& tally, std::string_view ended);

  // One row per counter of statistics.json, in its order.
  void AddStatistics(const HostStatService& statistics);
  // Has the rows that wait committed soon (a live capture without traffic).
  void Commit();
  // Writes the run's end and totals and commits them, so that a reader of
  // the file sees every row from now on, then builds the indices on a thread
  // of their own: the caller goes on (writes the report) meanwhile. False
  // when any write of the run failed.
  bool BeginClose(const RunTotals& totals);
  // Waits for the indices and closes the file (Open and the destructor do
  // too). False when any write of the run failed.
  bool Finish();
  // Both at once.
  bool Close(const RunTotals& totals) { return BeginClose(totals) && Finish(); }

  // Empty while all is well; read it once the writers are done.
  std::string error() const;
  uint64_t rows_lost() const;

 private:
  struct Statement;
  class MessageInsert;
  // The columns of the messages' log, as they were when a record came.
  struct MessageColumns {
    std::vector<std::string> keys;
    std::vector<uint32_t> fields;  // kLogField..., 0 for a keyed column
  };

  struct PendingRow;

  // Posting side: fills the next free slot of the queue for the writer
  // thread (`fill` takes a PendingRow&), with queue_mutex_ held.
  std::shared_ptr<const MessageColumns> SnapshotLocked(const LogColumns& columns);
  template <typename Fill>
  void Enqueue(Fill fill);
  void WriterLoop();
  void Write(PendingRow& row);
  void StopWriter();

  // Writer side, with mutex_ held.
  void WriteRecord(const std::shared_ptr<const MessageColumns>& columns, const LogRecord& record);
  void WriteEntry(uint64_t seconds, std::wstring_view kind, std::wstring_view summary, std::wstring_view group);
  void WriteDiagnosis(const DiagnosisRow& report);
  void WriteNotice(const NoticeRow& notice);
  void WriteAttachment(const AttachmentRow& row);
  void WriteConnectionStart(const IPelkaFlow* flow, std::string_view protocol, std::string_view client,
                            std::string_view server);
  void WriteConnectionEnd(const IPelkaFlow* flow, const ConnectionTally& tally, std::string_view ended);

  void WriteEnd(const RunTotals& totals);
  bool Exec(const char* sql);
  bool Prepare(const char* sql, Statement& statement);
  // Runs a bound insert and counts its row; with mutex_ held.
  void Step(sqlite3_stmt* statement);
  void CommitLocked();
  bool Fail(const std::string& what);
  bool usable() const { return db_ != nullptr; }
  // With mutex_ held: usable, or else the row about to be written is counted lost.
  bool RowWritable();

  // The rows handed over and not yet written, and the writer's orders.
  std::mutex queue_mutex_;
  std::condition_variable queue_ready_;
  std::vector<PendingRow> queue_;  // slots [0, queued_) wait; the rest are kept for reuse
  size_t queued_ = 0;
  std::vector<PendingRow> writing_;  // the writer's batch; swapped with queue_
  std::shared_ptr<const MessageColumns> columns_;
  bool accepting_ = false;  // open, and not closing
  bool stop_ = false;
  bool flush_ = false;
  bool each_row_ = false;
  std::thread writer_;
  std::thread indexer_;  // builds the indices after Close

  mutable std::mutex mutex_;  // the database itself: one writer at a time
  sqlite3* db_ = nullptr;
  std::string path_;
  std::string error_;
  std::atomic<bool> failed_{false};
  std::atomic<uint64_t> rows_lost_{0};
  uint64_t pending_ = 0;  // rows of the open transaction
  bool in_transaction_ = false;
  LocalTimeCache times_;
  std::string utf8_[3];  // the writer's room for a row's texts in UTF-8
  std::vector<std::unique_ptr<Statement>> statements_;
  Statement* entry_insert_ = nullptr;
  Statement* diagnosis_insert_ = nullptr;
  Statement* notice_insert_ = nullptr;
  Statement* attachment_insert_ = nullptr;
  Statement* statistic_insert_ = nullptr;
  Statement* connection_insert_ = nullptr;
  Statement* connection_update_ = nullptr;
  // The open connections by flow object: their row and records so far.
  struct OpenConnection {
    int64_t row = 0;
    uint64_t records = 0;
  };
  std::map<const IPelkaFlow*, OpenConnection> connections_;
  std::unique_ptr<MessageInsert> messages_;
};

}  // namespace pelka
