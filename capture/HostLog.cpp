#include "capture/HostLog.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <typeinfo>

#include "capture/HostFlow.h"
#include "host/CodePage.h"

namespace pelka {
namespace {

constexpr uint32_t kStatusRefused = 1;
constexpr char kCopyStorageKey[] = "email_copy";
constexpr char kCopyPathKey[] = "email_file_path";
constexpr char kProtocolKey[] = "protocol";
constexpr char kNumberKey[] = "email_number";

}  // namespace

HostLog::HostLog(const LogOutputs& outputs, bool copies, const EmailConditions* conditions, CopyStore* store)
    : outputs_(outputs),
      copies_(copies),
      store_(copies || outputs.attachments ? store : nullptr),
      conditions_(conditions ? std::make_unique<RecordConditions>(*conditions) : nullptr),
      exporter_(outputs.csv, outputs.text),
      batch_(exporter_.NewSet(columns_)) {
  if (outputs.write_behind && !outputs.export_each_record)
    writer_ = std::make_unique<BatchWriter>([this](std::unique_ptr<LogRecordSet> batch) { WriteBatch(std::move(batch)); });
}

HostLog::~HostLog() = default;

uint16_t HostLog::AddColumn(const char* key, const wchar_t* caption, uint32_t value_kind, uint32_t, uint32_t,
                            uint32_t) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::lock_guard<std::mutex> open_lock(open_mutex_);
  if (!key || !open_.empty() || columns_.size() >= 0x7FFF) return 0xFFFF;
  const auto id = static_cast<uint16_t>(columns_.size());
  columns_.Add(std::make_unique<LogColumn>(id, key, caption ? caption : L"", value_kind, 0));
  if (copy_path_column_ < 0 && std::strcmp(key, kCopyPathKey) == 0) copy_path_column_ = id;
  if (protocol_column_ < 0 && std::strcmp(key, kProtocolKey) == 0) protocol_column_ = id;
  if (number_column_ < 0 && std::strcmp(key, kNumberKey) == 0) number_column_ = id;
  if (conditions_) conditions_->NoteColumn(key, id);
  return id;
}

void HostLog::AddStandardColumn(const wchar_t* caption, uint32_t field, uint32_t, uint32_t) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::lock_guard<std::mutex> open_lock(open_mutex_);
  if (!open_.empty() || columns_.size() >= 0x7FFF) return;
  const auto id = static_cast<uint16_t>(columns_.size());
  columns_.Add(std::make_unique<LogColumn>(id, StandardColumnKey(field), caption ? caption : L"", 0, field));
}

uint32_t HostLog::AddStorage(const char* name, const char* key, const char*, const wchar_t*,
                             PelkaLogExportFn export_fn) {
  const std::string storage_key = key ? key : (name ? name : "");
  const bool is_copy = storage_key == kCopyStorageKey;
  storages_.push_back(
      std::make_unique<LogStorage>(storage_key, !is_copy || copies_ || store_, export_fn, is_copy ? store_ : nullptr));
  return 0;
}

IPelkaLogStorage* HostLog::GetStorage(int32_t index) {
  if (index < 0 || static_cast<size_t>(index) >= storages_.size()) return nullptr;
  return storages_[static_cast<size_t>(index)].get();
}

uint32_t HostLog::AddEntry(uint64_t seconds, IPelkaFlow* flow, const wchar_t* kind, const wchar_t* summary,
                           const wchar_t* group) {
  if (conditions_ && conditions_->TakeEntryDrop(flow)) return 0;
  entries_.fetch_add(1, std::memory_order_relaxed);
  if (outputs_.sink)
    outputs_.sink->OnEntry(seconds, kind ? kind : L"", summary ? summary : L"", group ? group : L"");
  if (!outputs_.entries) return 0;
  const std::lock_guard<std::mutex> lock(entry_mutex_);
  JsonObjectLine& line = entry_line_;
  line.Clear();
  line.Text("time", entry_times_.Text(seconds));
  line.Text("kind", std::wstring_view(kind ? kind : L""));
  line.Text("summary", std::wstring_view(summary ? summary : L""));
  line.Text("group", std::wstring_view(group ? group : L""));
  outputs_.entries->WriteLine(line.Finish());
  return 0;
}

IPelkaLogRecord* HostLog::NewRecord(uint64_t seconds, IPelkaFlow* flow, uint32_t) {
  FlowView view;
  FillFlowView(flow, view);
  if (flow && typeid(*flow) == typeid(HostFlow)) static_cast<HostFlow*>(flow)->CountRecord();
  const std::lock_guard<std::mutex> lock(open_mutex_);
  if (spare_.empty()) {
    open_.push_back(std::make_unique<LogRecord>());
  } else {
    open_.push_back(std::move(spare_.back()));
    spare_.pop_back();
  }
  LogRecord& record = *open_.back();
  record.Reset(seconds, flow, view, columns_.size());
  return &record;
}

LogRecord* HostLog::FindOpen(IPelkaLogRecord* record) {
  for (const auto& open : open_)
    if (open.get() == record) return open.get();
  return nullptr;
}

template <typename SetValue>
uint32_t HostLog::Set(IPelkaLogRecord* handle, uint16_t column, SetValue set_value) {
  const std::lock_guard<std::mutex> lock(open_mutex_);
  LogRecord* record = FindOpen(handle);
  if (!record || column >= record->field_count() || columns_[column].field() != 0) return kStatusRefused;
  set_value(*record);
  return 0;
}

uint32_t HostLog::SetDouble(IPelkaLogRecord* record, uint16_t column, double value) {
  return Set(record, column, [column, value](LogRecord& open) { open.SetDouble(column, value); });
}

uint32_t HostLog::SetText(IPelkaLogRecord* record, uint16_t column, const wchar_t* value) {
  const std::wstring_view text(value ? value : L"");
  return Set(record, column, [column, text](LogRecord& open) { open.SetText(column, text); });
}

uint32_t HostLog::SetNumber(IPelkaLogRecord* record, uint16_t column, uint64_t value) {
  return Set(record, column, [column, value](LogRecord& open) { open.SetNumber(column, value); });
}

void HostLog::BuildRecordLine(const LogRecord& record, LineWriter& writer) {
  JsonObjectLine& line = writer.line;
  line.Clear();
  for (const auto& column : columns_.list()) {
    const uint32_t field = column->field();
    if (field == kLogFieldClientPort || field == kLogFieldServerPort) {
      line.Number(column->key(), record.view().port[field == kLogFieldClientPort ? 0 : 1]);
    } else if (field != 0) {
      char digits[8];
      const std::string_view time =
          field == kLogFieldDateTime ? writer.times.Text(record.seconds()) : std::string_view();
      const std::string_view text = record.StandardText(field, time, digits);
      // A MAC address the capture did not show is left out.
      if (!text.empty() || field == kLogFieldDateTime) line.Text(column->key(), text);
    } else {
      const LogRecord::Field& value = record.field(column->id());
      switch (value.kind) {
        case LogRecord::Kind::kText: line.Text(column->key(), record.Text(value)); break;
        case LogRecord::Kind::kNumber: line.Number(column->key(), value.number); break;
        case LogRecord::Kind::kDouble: line.Double(column->key(), value.real); break;
        case LogRecord::Kind::kUnset: break;
      }
    }
  }
}

void HostLog::WriteRecordLine(const LogRecord& record) {
  std::unique_ptr<LineWriter> writer;
  {
    const std::lock_guard<std::mutex> lock(open_mutex_);
    if (!writers_.empty()) {
      writer = std::move(writers_.back());
      writers_.pop_back();
    }
  }
  if (!writer) writer = std::make_unique<LineWriter>();
  BuildRecordLine(record, *writer);
  outputs_.records->WriteLine(writer->line.Finish());
  const std::lock_guard<std::mutex> lock(open_mutex_);
  writers_.push_back(std::move(writer));
}

void HostLog::HandleCopy(LogRecord& record) {
  const std::wstring_view named = record.TextAt(copy_path_column_);
  if (named.empty()) return;
  const std::string staged = WideToUtf8(named);
  // The taker gets the message before the copy moves, and in memory: the
  // copy it was made from is placed or dropped right away.
  if (outputs_.attachments) QueueMessage(record, staged);
  std::string placed;
  if (copies_) {
    placed = store_->Place(staged);
  } else {
    store_->Drop(staged);
  }
  record.SetText(static_cast<uint16_t>(copy_path_column_), Utf8ToWideText(placed));
}

void HostLog::QueueMessage(const LogRecord& record, const std::string& staged) {
  std::string message;
  if (!store_->ReadStaged(staged, &message)) {
    outputs_.attachments->CountUnreadable();
    return;
  }
  uint64_t number = 0;
  if (number_column_ >= 0 && record.field(static_cast<uint16_t>(number_column_)).kind == LogRecord::Kind::kNumber)
    number = record.field(static_cast<uint16_t>(number_column_)).number;
  outputs_.attachments->Queue(number, std::move(message));
}

std::unique_ptr<LogRecord> HostLog::TakeOpen(IPelkaLogRecord* handle) {
  const std::lock_guard<std::mutex> lock(open_mutex_);
  const auto found = std::find_if(open_.begin(), open_.end(), [handle](const auto& r) { return r.get() == handle; });
  if (found == open_.end()) return nullptr;
  std::unique_ptr<LogRecord> record = std::move(*found);
  open_.erase(found);
  return record;
}

void HostLog::Recycle(std::unique_ptr<LogRecord> record) {
  const std::lock_guard<std::mutex> lock(open_mutex_);
  spare_.push_back(std::move(record));
}

uint32_t HostLog::PostRecord(IPelkaLogRecord* handle) {
  std::unique_ptr<LogRecord> record = TakeOpen(handle);
  if (!record) return kStatusRefused;
  if (conditions_ && !conditions_->Admit(*record)) {
    Recycle(std::move(record));
    return 0;
  }
  posted_.fetch_add(1, std::memory_order_relaxed);
  {
    const std::lock_guard<std::mutex> lock(found_mutex_);
    const std::wstring_view protocol = record->TextAt(protocol_column_);
    const auto found = found_by_protocol_.find(protocol);
    if (found != found_by_protocol_.end()) {
      ++found->second;
    } else {
      found_by_protocol_.emplace(protocol, 1);
    }
  }
  if (store_) HandleCopy(*record);
  if (!record->TextAt(copy_path_column_).empty()) copies_written_.fetch_add(1, std::memory_order_relaxed);
  // The record is the caller's alone now: its line is built without a lock.
  if (outputs_.records && !writer_) WriteRecordLine(*record);
  if (outputs_.sink) outputs_.sink->OnRecord(columns_, *record);
  std::unique_ptr<LogRecordSet> full;
  uint64_t sequence = 0;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    batch_->Add(std::move(record));
    if (batch_->GetRecordCount() < (outputs_.export_each_record ? 1 : kExportBatch)) return 0;
    full = TakeBatch(&sequence);
  }
  if (writer_) {
    writer_->Hand(sequence, std::move(full));
  } else {
    ExportBatch(std::move(full));
  }
  return 0;
}

std::unique_ptr<LogRecordSet> HostLog::TakeBatch(uint64_t* sequence) {
  *sequence = batches_taken_++;
  std::unique_ptr<LogRecordSet> taken;
  if (spare_batches_.empty()) {
    taken = exporter_.NewSet(columns_);
  } else {
    taken = std::move(spare_batches_.back());
    spare_batches_.pop_back();
  }
  batch_.swap(taken);
  return taken;
}

void HostLog::ExportBatch(std::unique_ptr<LogRecordSet> batch) {
  exporter_.Export(*batch, storages_);
  {
    const std::lock_guard<std::mutex> lock(open_mutex_);
    batch->Clear(spare_);
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  spare_batches_.push_back(std::move(batch));
}

std::map<std::string, uint64_t> HostLog::records_by_protocol() const {
  std::map<std::string, uint64_t> counts;
  const std::lock_guard<std::mutex> lock(found_mutex_);
  for (const auto& [protocol, count] : found_by_protocol_) counts[WideToUtf8(protocol)] += count;
  return counts;
}

void HostLog::WriteBatch(std::unique_ptr<LogRecordSet> batch) {
  if (outputs_.records)
    for (const std::unique_ptr<LogRecord>& record : batch->records()) WriteRecordLine(*record);
  ExportBatch(std::move(batch));
}

void HostLog::Finish() {
  std::unique_ptr<LogRecordSet> last;
  uint64_t sequence = 0;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    last = TakeBatch(&sequence);
  }
  if (!writer_) {
    ExportBatch(std::move(last));
    return;
  }
  writer_->Hand(sequence, std::move(last));
  writer_->Drain();
}

}  // namespace pelka
