#include "capture/HostLog.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <optional>

#include "capture/HostFlow.h"
#include "capture/OutputFiles.h"
#include "host/CodePage.h"

namespace pelka {
namespace {

constexpr uint32_t kStatusRefused = 1;
constexpr char kCopyStorageKey[] = "email_copy";
constexpr char kCopyPathKey[] = "email_file_path";

// Host keys of the standard fields (kLogField...), indexed by field number.
const char* StandardKey(uint32_t field) {
  static const char* const kKeys[] = {"", "timestamp", "src_mac", "dst_mac", "src_ip4",
                                      "dst_ip4", "src_port", "dst_port"};
  return field < std::size(kKeys) ? kKeys[field] : "";
}

// What a record keeps of its flow at NewRecord.
struct FlowView {
  std::string address[2];  // [0] client, [1] server
  std::string mac[2];
  uint16_t port[2] = {0, 0};
};

std::string Ipv4Text(uint32_t address) {
  return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xFF) + "." +
         std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF);
}

FlowView ViewOf(IPelkaFlow* flow) {
  FlowView view;
  if (!flow) return view;
  if (const auto* host_flow = dynamic_cast<const HostFlow*>(flow)) {
    const TrackedFlow& tracked = host_flow->tracked();
    const FlowEndpoint* sides[2] = {&tracked.client(), &tracked.server()};
    for (int i = 0; i < 2; ++i) {
      view.address[i] = AddressText(sides[i]->address);
      view.mac[i] = MacText(*sides[i]);
      view.port[i] = sides[i]->port;
    }
    return view;
  }
  view.address[0] = Ipv4Text(flow->GetClientAddress());
  view.address[1] = Ipv4Text(flow->GetServerAddress());
  view.port[0] = flow->GetClientPort();
  view.port[1] = flow->GetServerPort();
  return view;
}

}  // namespace

std::string LocalTimeText(uint64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  if (!localtime_r(&time, &local)) return {};
  char text[32];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  return std::string(text, length);
}

// --- Columns -------------------------------------------------------------------

class HostLog::Column final : public IPelkaLogColumn {
 public:
  Column(uint16_t id, std::string key, std::wstring caption, uint32_t kind, uint32_t field)
      : id_(id), key_(std::move(key)), caption_(std::move(caption)), kind_(kind), field_(field) {}
  uint16_t GetId() override { return id_; }
  const wchar_t* GetCaption() override { return caption_.c_str(); }

  uint16_t id() const { return id_; }
  const std::string& key() const { return key_; }
  uint32_t kind() const { return kind_; }
  // kLogField... for a standard column, 0 for a keyed one.
  uint32_t field() const { return field_; }

 private:
  uint16_t id_;
  std::string key_;
  std::wstring caption_;
  uint32_t kind_;
  uint32_t field_;
};

class HostLog::Columns final : public IPelkaLogColumns {
 public:
  IPelkaLogColumn* GetColumnAt(int32_t position) override {
    if (position < 0 || static_cast<size_t>(position) >= list.size()) return nullptr;
    return list[static_cast<size_t>(position)].get();
  }
  IPelkaLogColumn* FindColumn(const char* key) override {
    if (!key) return nullptr;
    for (const auto& column : list)
      if (column->key() == key) return column.get();
    return nullptr;
  }
  const Column* Find(const char* key) { return static_cast<const Column*>(FindColumn(key)); }

  std::vector<std::unique_ptr<Column>> list;
};

// --- Storage kinds ---------------------------------------------------------------

class HostLog::Storage final : public IPelkaLogStorage {
 public:
  Storage(std::string key, bool enabled, PelkaLogExportFn export_fn)
      : key_(std::move(key)), enabled_(enabled), export_fn_(export_fn) {}
  uint32_t IsStorageEnabled() override { return enabled_ ? 1 : 0; }
  const char* GetFolderName() override { return key_.c_str(); }
  PelkaLogExportFn export_fn() const { return export_fn_; }

 private:
  std::string key_;
  bool enabled_;
  PelkaLogExportFn export_fn_;
};

// --- Records ---------------------------------------------------------------------

class HostLog::Record final : public IPelkaLogRecord {
 public:
  Record(uint64_t seconds, FlowView flow, size_t columns) : seconds(seconds), flow(std::move(flow)), values(columns) {}
  ~Record() = default;

  uint64_t seconds;
  FlowView flow;
  std::vector<Value> values;
};

// The field texts of the records waiting for export, as the export reads them.
class HostLog::Batch final : public IPelkaLogRecordSet {
 public:
  explicit Batch(Columns& columns) : columns_(columns) {}

  IPelkaLogColumns* GetColumns() override { return &columns_; }
  int32_t GetRecordCount() override { return static_cast<int32_t>(records_.size()); }
  wchar_t* GetFieldText(int32_t record, uint16_t column, uint32_t) override {
    if (record < 0 || static_cast<size_t>(record) >= records_.size()) return nullptr;
    const auto& fields = records_[static_cast<size_t>(record)];
    if (column >= fields.size() || !fields[column]) return nullptr;
    const std::wstring& text = *fields[column];
    auto buffer = std::make_unique<wchar_t[]>(text.size() + 1);
    std::copy(text.begin(), text.end(), buffer.get());
    return buffer.release();
  }

  void Add(const Record& record) {
    std::vector<std::optional<std::wstring>> fields(columns_.list.size());
    for (size_t i = 0; i < fields.size(); ++i) fields[i] = FieldText(*columns_.list[i], record);
    records_.push_back(std::move(fields));
  }
  void Clear() { records_.clear(); }
  bool empty() const { return records_.empty(); }

 private:
  static std::optional<std::wstring> FieldText(const Column& column, const Record& record) {
    if (column.field() != 0) return Utf8ToWideText(StandardText(column.field(), record));
    const Value& value = record.values[column.id()];
    if (const auto* text = std::get_if<std::wstring>(&value)) return *text;
    if (const auto* number = std::get_if<uint64_t>(&value)) return std::to_wstring(*number);
    if (const auto* real = std::get_if<double>(&value)) return Utf8ToWideText(FormatDouble(*real));
    return std::nullopt;
  }

  Columns& columns_;
  std::vector<std::vector<std::optional<std::wstring>>> records_;

 public:
  static std::string StandardText(uint32_t field, const Record& record) {
    switch (field) {
      case kLogFieldDateTime: return LocalTimeText(record.seconds);
      case kLogFieldClientMac: return record.flow.mac[0];
      case kLogFieldServerMac: return record.flow.mac[1];
      case kLogFieldClientAddress: return record.flow.address[0];
      case kLogFieldServerAddress: return record.flow.address[1];
      case kLogFieldClientPort: return std::to_string(record.flow.port[0]);
      case kLogFieldServerPort: return std::to_string(record.flow.port[1]);
      default: return {};
    }
  }
};

// --- The log -----------------------------------------------------------------------

HostLog::HostLog(const LogOutputs& outputs, bool copies)
    : outputs_(outputs), copies_(copies), columns_(std::make_unique<Columns>()),
      batch_(std::make_unique<Batch>(*columns_)) {}

HostLog::~HostLog() = default;

uint16_t HostLog::AddColumn(const char* key, const wchar_t* caption, uint32_t value_kind, uint32_t, uint32_t,
                            uint32_t) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!key || !open_.empty() || columns_->list.size() >= 0x7FFF) return 0xFFFF;
  const auto id = static_cast<uint16_t>(columns_->list.size());
  columns_->list.push_back(std::make_unique<Column>(id, key, caption ? caption : L"", value_kind, 0));
  return id;
}

void HostLog::AddStandardColumn(const wchar_t* caption, uint32_t field, uint32_t, uint32_t) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!open_.empty() || columns_->list.size() >= 0x7FFF) return;
  const auto id = static_cast<uint16_t>(columns_->list.size());
  columns_->list.push_back(std::make_unique<Column>(id, StandardKey(field), caption ? caption : L"", 0, field));
}

void HostLog::EndColumns() {}

uint32_t HostLog::AddStorage(const char* name, const char* key, const char*, const wchar_t*,
                             PelkaLogExportFn export_fn) {
  const std::string storage_key = key ? key : (name ? name : "");
  const bool enabled = storage_key != kCopyStorageKey || copies_;
  storages_.push_back(std::make_unique<Storage>(storage_key, enabled, export_fn));
  return 0;
}

uint32_t HostLog::GetSaveMode() { return kLogSaveModeSaving; }

IPelkaLogStorage* HostLog::GetStorage(int32_t index) {
  if (index < 0 || static_cast<size_t>(index) >= storages_.size()) return nullptr;
  return storages_[static_cast<size_t>(index)].get();
}

uint32_t HostLog::IsLogEnabled() { return 1; }

uint32_t HostLog::AddEntry(uint64_t seconds, IPelkaFlow*, const wchar_t* kind, const wchar_t* summary,
                           const wchar_t* group) {
  // Needs no lock of the log: the line is whole and the file takes turns.
  entries_.fetch_add(1, std::memory_order_relaxed);
  if (!outputs_.entries) return 0;
  JsonObjectLine line;
  line.Text("time", LocalTimeText(seconds));
  line.Text("kind", std::wstring_view(kind ? kind : L""));
  line.Text("summary", std::wstring_view(summary ? summary : L""));
  line.Text("group", std::wstring_view(group ? group : L""));
  outputs_.entries->WriteLine(line.Finish());
  return 0;
}

IPelkaLogRecord* HostLog::NewRecord(uint64_t seconds, IPelkaFlow* flow, uint32_t) {
  auto record = std::make_unique<Record>(seconds, ViewOf(flow), columns_->list.size());
  IPelkaLogRecord* handle = record.get();
  const std::lock_guard<std::mutex> lock(mutex_);
  open_.push_back(std::move(record));
  return handle;
}

HostLog::Record* HostLog::FindOpen(IPelkaLogRecord* record) {
  for (const auto& open : open_)
    if (open.get() == record) return open.get();
  return nullptr;
}

uint32_t HostLog::Set(IPelkaLogRecord* handle, uint16_t column, Value value) {
  const std::lock_guard<std::mutex> lock(mutex_);
  Record* record = FindOpen(handle);
  if (!record || column >= record->values.size() || columns_->list[column]->field() != 0) return kStatusRefused;
  record->values[column] = std::move(value);
  return 0;
}

uint32_t HostLog::SetDouble(IPelkaLogRecord* record, uint16_t column, double value) {
  return Set(record, column, value);
}

uint32_t HostLog::SetText(IPelkaLogRecord* record, uint16_t column, const wchar_t* value) {
  return Set(record, column, std::wstring(value ? value : L""));
}

uint32_t HostLog::SetNumber(IPelkaLogRecord* record, uint16_t column, uint64_t value) {
  return Set(record, column, value);
}

std::string HostLog::RecordLine(const Record& record) const {
  JsonObjectLine line;
  for (const auto& column : columns_->list) {
    const uint32_t field = column->field();
    if (field == kLogFieldClientPort || field == kLogFieldServerPort) {
      line.Number(column->key(), record.flow.port[field == kLogFieldClientPort ? 0 : 1]);
    } else if (field != 0) {
      const std::string text = Batch::StandardText(field, record);
      // A MAC address the capture did not show is left out.
      if (!text.empty() || field == kLogFieldDateTime) line.Text(column->key(), text);
    } else {
      const Value& value = record.values[column->GetId()];
      if (const auto* text = std::get_if<std::wstring>(&value)) line.Text(column->key(), std::wstring_view(*text));
      if (const auto* number = std::get_if<uint64_t>(&value)) line.Number(column->key(), *number);
      if (const auto* real = std::get_if<double>(&value)) line.Double(column->key(), *real);
    }
  }
  return line.Finish();
}

uint32_t HostLog::PostRecord(IPelkaLogRecord* handle) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = std::find_if(open_.begin(), open_.end(), [handle](const auto& r) { return r.get() == handle; });
  if (found == open_.end()) return kStatusRefused;
  const std::unique_ptr<Record> record = std::move(*found);
  open_.erase(found);

  posted_.fetch_add(1, std::memory_order_relaxed);
  if (const Column* copy_path = columns_->Find(kCopyPathKey)) {
    const auto* text = std::get_if<std::wstring>(&record->values[copy_path->id()]);
    if (text && !text->empty()) copies_written_.fetch_add(1, std::memory_order_relaxed);
  }
  if (outputs_.records) outputs_.records->WriteLine(RecordLine(*record));
  batch_->Add(*record);
  if (batch_->GetRecordCount() >= kExportBatch) Export(!header_written_);
  return 0;
}

void HostLog::Export(bool header) {
  const auto found = std::find_if(storages_.begin(), storages_.end(), [](const auto& s) { return s->export_fn(); });
  if (found != storages_.end()) {
    const PelkaLogExportFn export_fn = (*found)->export_fn();
    // The comma-separated form is 0; any other number asks for the text form.
    const std::pair<uint32_t, OutputFile*> forms[] = {{0, outputs_.csv}, {1, outputs_.text}};
    std::wstring lines;
    for (const auto& [format, file] : forms) {
      if (!file) continue;
      lines.clear();
      export_fn(batch_.get(), format, header ? 1 : 0, lines);
      if (!lines.empty()) file->Write(WideToUtf8(lines));
    }
    header_written_ = true;
  }
  batch_->Clear();
}

void HostLog::Finish() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!batch_->empty() || !header_written_) Export(!header_written_);
}

// --- The service ---------------------------------------------------------------------

HostLogService::HostLogService(LogOutputs outputs, std::string storage_root, bool copies)
    : outputs_(outputs), storage_root_(Utf8ToWideText(storage_root)), copies_(copies) {}

HostLogService::~HostLogService() = default;

uint32_t HostLogService::CreateLog(const char* name, const wchar_t*, uint32_t, int32_t, IPelkaLog** log) {
  if (!name || !log) return kStatusRefused;
  // One set of files: only the first log writes them; later logs are kept
  // so the module's calls land somewhere, but write nothing.
  logs_.push_back(std::make_unique<HostLog>(logs_.empty() ? outputs_ : LogOutputs{}, copies_));
  *log = logs_.back().get();
  return 0;
}

uint32_t HostLogService::GetStorageRoot(const wchar_t** root) {
  if (!root || storage_root_.empty()) return kStatusRefused;
  *root = storage_root_.c_str();
  return 0;
}

void HostLogService::Finish() {
  for (const auto& log : logs_) log->Finish();
}

uint64_t HostLogService::records() const {
  uint64_t total = 0;
  for (const auto& log : logs_) total += log->records();
  return total;
}

uint64_t HostLogService::entries() const {
  uint64_t total = 0;
  for (const auto& log : logs_) total += log->entries();
  return total;
}

uint64_t HostLogService::copies() const {
  uint64_t total = 0;
  for (const auto& log : logs_) total += log->copies();
  return total;
}

}  // namespace pelka
