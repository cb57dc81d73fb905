// The host's log service: logs with their columns, records, summary entries
// and storage kinds, written to files as the module posts.
//
// - Every posted record becomes one line of the records file (emails.jsonl):
//   one JSON object whose keys follow the column declaration, standard columns
//   under the host's keys (timestamp, src_mac, src_ip4, src_port, dst_mac,
//   dst_ip4, dst_port; src_* is the client side). Number and double columns
//   and the ports are JSON numbers; a keyed field the module left unset, and a
//   MAC address the capture did not show, are absent. timestamp is the record
//   time as local "YYYY-MM-DD HH:MM:SS".
// - Every summary entry becomes one line of the entries file (entries.jsonl):
//   {"time": local time text, "kind", "summary", "group"}.
// - The export lines: the first storage kind with an export callback is asked
//   for both forms (comma-separated into the CSV file, text into the text
//   file) over the posted records, in batches of kExportBatch as records are
//   posted and for the rest at Finish. Only the records of a batch are kept,
//   so memory does not grow with the capture; the export's field texts are
//   made from them when asked for. The first batch (or, with no record at
//   all, Finish) asks for the header line.
// - Storage: the log is always saving (GetSaveMode 2); the storage kind keyed
//   "email_copy" is enabled only when copies are on; every storage kind's
//   folder is its key; the storage root is the output directory.
// - Threads: logs, columns and storage kinds are made before flows are
//   handled. Records and entries may then come from several threads at once:
//   a record's line is built by the thread that posts it, without a lock;
//   the open records, the batch being filled, the export (the export
//   callback is only ever called under its lock) and the entry lines each
//   have a lock of their own. With several threads, batches may be exported
//   in another order than they filled; the header line is always first.
// - Cost: a record is made, filled and written without allocating once the
//   log has run a while. Records are reused after their export, their field
//   texts are kept in one buffer per record, and the lines are built in
//   buffers the log keeps.
#pragma once

#include <cstdint>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "capture/OutputFiles.h"
#include "host/LogInterfaces.h"

namespace pelka {

// Where the log service writes. Any file may be null (nothing written there).
struct LogOutputs {
  OutputFile* records = nullptr;   // emails.jsonl
  OutputFile* entries = nullptr;   // entries.jsonl
  OutputFile* csv = nullptr;       // email_log.csv
  OutputFile* text = nullptr;      // email_log.txt
};

// Local time "YYYY-MM-DD HH:MM:SS" of whole seconds since 1970; empty when the
// time cannot be converted.
std::string LocalTimeText(uint64_t seconds);

class HostLog;

class HostLogService final : public IPelkaLogService {
 public:
  // `storage_root`: absolute directory ending with '/'.
  HostLogService(LogOutputs outputs, std::string storage_root, bool copies);
  ~HostLogService();
  HostLogService(const HostLogService&) = delete;
  HostLogService& operator=(const HostLogService&) = delete;

  uint32_t CreateLog(const char* name, const wchar_t* caption, uint32_t capacity, int32_t icon,
                     IPelkaLog** log) override;
  uint32_t GetStorageRoot(const wchar_t** root) override;

  // Exports what is still pending of every log.
  void Finish();

  uint64_t records() const;
  uint64_t entries() const;
  // Posted records whose copy path column names a file.
  uint64_t copies() const;

 private:
  LogOutputs outputs_;
  std::wstring storage_root_;
  bool copies_;
  std::vector<std::unique_ptr<HostLog>> logs_;
};

// One log. Column identifiers are the positions of the declaration.
class HostLog final : public IPelkaLog {
 public:
  static constexpr int32_t kExportBatch = 32;

  HostLog(const LogOutputs& outputs, bool copies);
  ~HostLog();

  uint16_t AddColumn(const char* key, const wchar_t* caption, uint32_t value_kind, uint32_t width, uint32_t flags,
                     uint32_t final_flag) override;
  void AddStandardColumn(const wchar_t* caption, uint32_t field, uint32_t width, uint32_t flags) override;
  void EndColumns() override;
  uint32_t AddStorage(const char* name, const char* key, const char* third, const wchar_t* caption,
                      PelkaLogExportFn export_fn) override;
  uint32_t GetSaveMode() override;
  IPelkaLogStorage* GetStorage(int32_t index) override;
  uint32_t IsLogEnabled() override;
  uint32_t AddEntry(uint64_t seconds, IPelkaFlow* flow, const wchar_t* kind, const wchar_t* summary,
                    const wchar_t* group) override;
  IPelkaLogRecord* NewRecord(uint64_t seconds, IPelkaFlow* flow, uint32_t reserved) override;
  uint32_t SetDouble(IPelkaLogRecord* record, uint16_t column, double value) override;
  uint32_t SetText(IPelkaLogRecord* record, uint16_t column, const wchar_t* value) override;
  uint32_t SetNumber(IPelkaLogRecord* record, uint16_t column, uint64_t value) override;
  uint32_t PostRecord(IPelkaLogRecord* record) override;

  // Exports the pending records; with none ever exported, the header alone.
  void Finish();

  uint64_t records() const { return posted_.load(std::memory_order_relaxed); }
  uint64_t entries() const { return entries_.load(std::memory_order_relaxed); }
  uint64_t copies() const { return copies_written_.load(std::memory_order_relaxed); }

 private:
  class Column;
  class Columns;
  class Storage;
  class Record;
  class Batch;

  // Local time texts of the last second asked for: records come in time
  // order, many in the same second.
  class TimeTexts {
   public:
    std::string_view Text(uint64_t seconds);

   private:
    bool valid_ = false;
    uint64_t seconds_ = 0;
    std::string text_;
  };

  // What a record's line is built with: one per thread posting at a time,
  // kept for reuse.
  struct LineWriter {
    JsonObjectLine line;
    TimeTexts times;
  };

  Record* FindOpen(IPelkaLogRecord* record);
  template <typename SetValue>
  uint32_t Set(IPelkaLogRecord* record, uint16_t column, SetValue set_value);
  void WriteRecordLine(const Record& record);
  void BuildRecordLine(const Record& record, LineWriter& writer);
  // With mutex_ held: the batch being filled, replaced by an empty one.
  std::unique_ptr<Batch> TakeBatch();
  // Exports a batch taken out (an empty one gives the header alone while no
  // line was ever exported) and keeps the batch for reuse.
  void ExportBatch(std::unique_ptr<Batch> batch);
  // With export_mutex_ held.
  void Export(Batch& batch, bool header);

  LogOutputs outputs_;
  bool copies_;
  std::unique_ptr<Columns> columns_;
  int32_t copy_path_column_ = -1;
  std::vector<std::unique_ptr<Storage>> storages_;

  // Records are opened, filled and posted by several threads at once; only
  // moments of that need a lock. The export of a batch takes long: the full
  // batch is taken out and exported under a lock of its own, so that the
  // other threads go on posting their records meanwhile.
  // Lock order: mutex_ before open_mutex_; export_mutex_ alone.
  std::mutex open_mutex_;  // guards the open and spare records and the line writers
  std::vector<std::unique_ptr<Record>> open_;
  std::vector<std::unique_ptr<Record>> spare_;  // exported records, for reuse
  std::vector<std::unique_ptr<LineWriter>> writers_;

  std::mutex mutex_;  // guards the batch being filled and the spare ones
  std::unique_ptr<Batch> batch_;
  std::vector<std::unique_ptr<Batch>> spare_batches_;

  std::mutex export_mutex_;  // guards the export and its buffers
  bool header_written_ = false;
  TimeTexts export_times_;
  std::wstring export_lines_;
  std::string export_utf8_;

  std::mutex entry_mutex_;  // guards the buffers of the entry lines
  TimeTexts entry_times_;
  JsonObjectLine entry_line_;

  std::atomic<uint64_t> posted_{0};
  std::atomic<uint64_t> entries_{0};
  std::atomic<uint64_t> copies_written_{0};
};

}  // namespace pelka
