// The export lines of a host log: the records waiting for export, and the
// export that turns them into the comma-separated and text files.
//
// The first storage kind with an export callback is asked for both forms
// (comma-separated into the CSV file, text into the text file), converted to
// UTF-8. The first export asks for the header line too, also when it has no
// record. The callback is only ever called under the exporter's lock, so it
// needs none of its own.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture/LocalTime.h"
#include "capture/LogColumns.h"
#include "capture/LogRecord.h"
#include "capture/OutputFiles.h"
#include "host/LogInterfaces.h"

namespace pelka {

// Records waiting for export, whose field texts the export callback reads.
// Texts are made when asked for, in the caller-owned form the interface
// promises. Read by the export only.
class LogRecordSet final : public IPelkaLogRecordSet {
 public:
  LogRecordSet(LogColumns& columns, LocalTimeCache& times) : columns_(columns), times_(times) {}

  IPelkaLogColumns* GetColumns() override { return &columns_; }
  int32_t GetRecordCount() override { return static_cast<int32_t>(records_.size()); }
  // Null for a record or column out of range and for an unset field.
  wchar_t* GetFieldText(int32_t index, uint16_t column, uint32_t reserved) override;

  void Add(std::unique_ptr<LogRecord> record) { records_.push_back(std::move(record)); }
  // Hands the records over for reuse and leaves the set empty.
  void Clear(std::vector<std::unique_ptr<LogRecord>>& spare);
  bool empty() const { return records_.empty(); }
  const std::vector<std::unique_ptr<LogRecord>>& records() const { return records_; }

 private:
  LogColumns& columns_;
  LocalTimeCache& times_;
  std::vector<std::unique_ptr<LogRecord>> records_;
  std::string number_text_;
};

class LogExporter {
 public:
  // Either file may be null (that form is not asked for).
  LogExporter(OutputFile* csv, OutputFile* text) : csv_(csv), text_(text) {}

  // A set of records of this exporter's log, whose field times it formats.
  std::unique_ptr<LogRecordSet> NewSet(LogColumns& columns) {
    return std::make_unique<LogRecordSet>(columns, times_);
  }

  // Exports the set with the callback of the first storage kind that has
  // one. An empty set writes the header alone while none was written yet,
  // and nothing after.
  void Export(LogRecordSet& set, const std::vector<std::unique_ptr<LogStorage>>& storages);
  // New files: the next export starts with the header line again.
  void RestartHeader() {
    const std::lock_guard<std::mutex> lock(mutex_);
    header_written_ = false;
  }

 private:
  OutputFile* csv_;
  OutputFile* text_;
  std::mutex mutex_;  // guards everything below and the calls of the callback
  bool header_written_ = false;
  LocalTimeCache times_;
  std::wstring lines_;
  std::string utf8_;
};

}  // namespace pelka
