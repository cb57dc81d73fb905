// One log of the host's log service: its columns, records, summary entries
// and storage kinds, written to files as the module posts.
//
// - Every posted record becomes one line of the records file (emails.jsonl):
//   one JSON object whose keys follow the column declaration, standard columns
//   under the host's keys (capture/LogColumns.h; src_* is the client side).
//   Number and double columns and the ports are JSON numbers; a keyed field
//   the module left unset, and a MAC address the capture did not show, are
//   absent. timestamp is the record time as local "YYYY-MM-DD HH:MM:SS".
// - Every summary entry becomes one line of the entries file (entries.jsonl):
//   {"time": local time text, "kind", "summary", "group"}.
// - Export lines (capture/LogExport.h) are asked for in batches of
//   kExportBatch records (or of one, LogOutputs::export_each_record) as they
//   are posted and for the rest at Finish. Only
//   the records of a batch are kept, so memory does not grow with the capture.
// - Storage: the log is always saving (GetSaveMode 2); the storage kind keyed
//   "email_copy" is enabled only when copies are on; every storage kind's
//   folder is its key. With a copy store, the module writes its copies to
//   the store's staging folders instead, and each kept record's copy is moved
//   to its final name when the record is posted, the record then naming that
//   file (or nothing, when the copy could not be placed; capture/CopyStore.h).
// - Attachments: with a taker, the staged copy is read on the posting
//   thread and its bytes queued before the copy is placed. Without `copies`
//   the copy was made only for that: it is dropped and the record names no file,
//   as it would without the taker.
// - Conditions: with the user's e-mail conditions, a record that does not meet
//   them leaves no line, no export line, no entry and no copy
//   (capture/RecordConditions.h).
// - Threads: columns and storage kinds are declared before flows are handled.
//   Records and entries may then come from several threads at once: a
//   record's line is built by the thread that posts it, without a lock; the
//   open records, the batch being filled, the export and the entry lines each
//   have a lock of their own. With several threads, batches may be exported
//   in another order than they filled, unless they are written behind; the
//   header line is always first.
// - Write-behind (LogOutputs::write_behind): the record line is built, and
//   the batch exported, by the log's BatchWriter once the batch is full;
//   Finish waits until every line is written.
// - Cost: a record is made, filled and written without allocating once the
//   log has run a while: records and batches are reused after their export,
//   and lines are built in buffers the log keeps.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture/AttachmentTaker.h"
#include "capture/BatchWriter.h"
#include "capture/CopyStore.h"
#include "capture/EmailConditions.h"
#include "capture/JsonText.h"
#include "capture/LocalTime.h"
#include "capture/LogColumns.h"
#include "capture/LogExport.h"
#include "capture/LogRecord.h"
#include "capture/OutputFiles.h"
#include "capture/RecordConditions.h"
#include "capture/RunSink.h"
#include "host/LogInterfaces.h"

namespace pelka {

// Where a log writes. Any file may be null (nothing written there).
struct LogOutputs {
  OutputFile* records = nullptr;  // emails.jsonl
  OutputFile* entries = nullptr;  // entries.jsonl
  OutputFile* csv = nullptr;      // email_log.csv
  OutputFile* text = nullptr;     // email_log.txt
  // Export each record's lines as it is posted instead of in batches: for
  // input that arrives slowly, whose readers watch the files grow.
  bool export_each_record = false;
  RunSink* sink = nullptr;        // the records and entries once more (emails.sqlite)
  // --attachments: each kept record's message is handed over from its copy
  // (the copies are then made even without `copies`, and dropped again).
  AttachmentTaker* attachments = nullptr;
  // Build the record lines and export the full batches on a thread of their
  // own (BatchWriter), in posting order: for a run with one analysing thread
  // whose files nobody reads while they grow. Not with export_each_record.
  bool write_behind = false;
};

class HostLog final : public IPelkaLog {
 public:
  static constexpr int32_t kExportBatch = 32;

  // `conditions` (null: none) and `store` (null: copies stay where the
  // module writes them) stay the caller's and must outlive the log.
  HostLog(const LogOutputs& outputs, bool copies, const EmailConditions* conditions, CopyStore* store = nullptr);
  ~HostLog();

  uint16_t AddColumn(const char* key, const wchar_t* caption, uint32_t value_kind, uint32_t width, uint32_t flags,
                     uint32_t final_flag) override;
  void AddStandardColumn(const wchar_t* caption, uint32_t field, uint32_t width, uint32_t flags) override;
  void EndColumns() override {}
  uint32_t AddStorage(const char* name, const char* key, const char* third, const wchar_t* caption,
                      PelkaLogExportFn export_fn) override;
  uint32_t GetSaveMode() override { return kLogSaveModeSaving; }
  IPelkaLogStorage* GetStorage(int32_t index) override;
  uint32_t IsLogEnabled() override { return 1; }
  uint32_t AddEntry(uint64_t seconds, IPelkaFlow* flow, const wchar_t* kind, const wchar_t* summary,
                    const wchar_t* group) override;
  IPelkaLogRecord* NewRecord(uint64_t seconds, IPelkaFlow* flow, uint32_t reserved) override;
  uint32_t SetDouble(IPelkaLogRecord* record, uint16_t column, double value) override;
  uint32_t SetText(IPelkaLogRecord* record, uint16_t column, const wchar_t* value) override;
  uint32_t SetNumber(IPelkaLogRecord* record, uint16_t column, uint64_t value) override;
  uint32_t PostRecord(IPelkaLogRecord* record) override;

  // Exports the pending records; with none ever exported, the header alone.
  void Finish();
  // The export files were replaced by new ones: the next export writes the
  // header line again.
  void RestartExport() { exporter_.RestartHeader(); }

  // Records posted and kept (those the conditions refused are not counted).
  uint64_t records() const { return posted_.load(std::memory_order_relaxed); }
  // The same by the text of their "protocol" field (UTF-8), counted as they
  // are posted: what the run found, whether or not its line could be written.
  std::map<std::string, uint64_t> records_by_protocol() const;
  uint64_t entries() const { return entries_.load(std::memory_order_relaxed); }
  // Kept records whose copy path names a file.
  uint64_t copies() const { return copies_written_.load(std::memory_order_relaxed); }

 private:
  // What a record's line is built with: one per thread posting at a time,
  // kept for reuse.
  struct LineWriter {
    JsonObjectLine line;
    LocalTimeCache times;
  };

  LogRecord* FindOpen(IPelkaLogRecord* record);
  template <typename SetValue>
  uint32_t Set(IPelkaLogRecord* record, uint16_t column, SetValue set_value);
  std::unique_ptr<LogRecord> TakeOpen(IPelkaLogRecord* record);
  void Recycle(std::unique_ptr<LogRecord> record);
  void WriteRecordLine(const LogRecord& record);
  // Hands the record's staged copy to the attachment taker, and moves it to
  // its final name, which the record then holds, or drops it when only the
  // taker wanted it.
  void HandleCopy(LogRecord& record);
  // Reads the staged copy `staged` and queues it for the attachment taker.
  void QueueMessage(const LogRecord& record, const std::string& staged);
  void BuildRecordLine(const LogRecord& record, LineWriter& writer);
  // With mutex_ held: the batch being filled, replaced by an empty one, and
  // its place in the order batches are taken (the BatchWriter's sequence).
  std::unique_ptr<LogRecordSet> TakeBatch(uint64_t* sequence);
  // Exports a batch taken out and keeps it for reuse.
  void ExportBatch(std::unique_ptr<LogRecordSet> batch);
  // On the BatchWriter's thread: the batch's record lines, then its export.
  void WriteBatch(std::unique_ptr<LogRecordSet> batch);

  LogOutputs outputs_;
  bool copies_;
  CopyStore* store_;  // set when copies are staged, for the user or for the attachment taker
  LogColumns columns_;
  int32_t copy_path_column_ = -1;
  int32_t protocol_column_ = -1;
  int32_t number_column_ = -1;
  std::vector<std::unique_ptr<LogStorage>> storages_;
  std::unique_ptr<RecordConditions> conditions_;  // null: every record is kept
  LogExporter exporter_;

  // Records are opened, filled and posted by several threads at once; only
  // moments of that need a lock. The export of a batch takes long: the full
  // batch is taken out and exported under the exporter's lock, so that the
  // other threads go on posting their records meanwhile.
  // Lock order: mutex_ before open_mutex_; the exporter's alone.
  std::mutex open_mutex_;  // guards the open and spare records and the line writers
  std::vector<std::unique_ptr<LogRecord>> open_;
  std::vector<std::unique_ptr<LogRecord>> spare_;  // exported or refused records, for reuse
  std::vector<std::unique_ptr<LineWriter>> writers_;

  std::mutex mutex_;  // guards the batch being filled and the spare ones
  std::unique_ptr<LogRecordSet> batch_;
  std::vector<std::unique_ptr<LogRecordSet>> spare_batches_;
  uint64_t batches_taken_ = 0;

  std::mutex entry_mutex_;  // guards the buffers of the entry lines
  LocalTimeCache entry_times_;
  JsonObjectLine entry_line_;

  mutable std::mutex found_mutex_;  // guards found_by_protocol_
  std::map<std::wstring, uint64_t, std::less<>> found_by_protocol_;

  std::atomic<uint64_t> posted_{0};
  std::atomic<uint64_t> entries_{0};
  std::atomic<uint64_t> copies_written_{0};

  // Last: it is ended, after writing what it holds, before the rest goes.
  std::unique_ptr<BatchWriter> writer_;  // null: the posting thread writes
};

}  // namespace pelka
