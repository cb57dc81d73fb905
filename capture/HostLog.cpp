#include "capture/HostLog.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>
#include <typeinfo>

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
  char address[2][kAddressTextSize] = {};  // [0] client, [1] server
  char mac[2][kMacTextSize] = {};
  uint8_t address_length[2] = {0, 0};
  uint8_t mac_length[2] = {0, 0};
  uint16_t port[2] = {0, 0};

  std::string_view Address(int side) const { return {address[side], address_length[side]}; }
  std::string_view Mac(int side) const { return {mac[side], mac_length[side]}; }
};

// The address as dotted decimal; the text is at most 15 characters.
uint8_t WriteIpv4Text(uint32_t address, char (&text)[kAddressTextSize]) {
  char* out = text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    if (shift != 24) *out++ = '.';
    out = std::to_chars(out, text + sizeof text, (address >> shift) & 0xFF).ptr;
  }
  return static_cast<uint8_t>(out - text);
}

void FillView(IPelkaFlow* flow, FlowView& view) {
  if (!flow) return;
  // HostFlow is final: its dynamic type is compared, cheaper than a cast.
  if (typeid(*flow) == typeid(HostFlow)) {
    const TrackedFlow& tracked = static_cast<const HostFlow*>(flow)->tracked();
    const FlowEndpoint* sides[2] = {&tracked.client(), &tracked.server()};
    for (int i = 0; i < 2; ++i) {
      view.address_length[i] = static_cast<uint8_t>(WriteAddressText(sides[i]->address, view.address[i]));
      view.mac_length[i] = static_cast<uint8_t>(WriteMacText(*sides[i], view.mac[i]));
      view.port[i] = sides[i]->port;
    }
    return;
  }
  view.address_length[0] = WriteIpv4Text(flow->GetClientAddress(), view.address[0]);
  view.address_length[1] = WriteIpv4Text(flow->GetServerAddress(), view.address[1]);
  view.port[0] = flow->GetClientPort();
  view.port[1] = flow->GetServerPort();
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
  // The first declared column with the key: the export looks up twenty keys
  // for every batch, so keys are kept sorted beside the list.
  IPelkaLogColumn* FindColumn(const char* key) override {
    if (!key) return nullptr;
    const std::string_view wanted(key);
    const auto found = std::lower_bound(by_key_.begin(), by_key_.end(), wanted,
                                        [](const KeyEntry& entry, std::string_view k) { return entry.first < k; });
    return found != by_key_.end() && found->first == wanted ? found->second : nullptr;
  }

  void Add(std::unique_ptr<Column> column) {
    // Behind every column of the same key, so the first declared stays first.
    const KeyEntry entry{column->key(), column.get()};
    by_key_.insert(std::upper_bound(by_key_.begin(), by_key_.end(), entry,
                                    [](const KeyEntry& a, const KeyEntry& b) { return a.first < b.first; }),
                   entry);
    list.push_back(std::move(column));
  }

  std::vector<std::unique_ptr<Column>> list;

 private:
  using KeyEntry = std::pair<std::string_view, Column*>;  // views of the columns' own keys
  std::vector<KeyEntry> by_key_;
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

// A record's fields: texts kept one after another in one buffer, numbers in
// place. A record object is reused for later records once exported.
class HostLog::Record final : public IPelkaLogRecord {
 public:
  enum class Kind : uint8_t { kUnset, kText, kNumber, kDouble };
  struct Field {
    Kind kind = Kind::kUnset;
    size_t offset = 0;  // a text's place in texts
    size_t length = 0;
    uint64_t number = 0;
    double real = 0;
  };

  void Reset(uint64_t time, const FlowView& view, size_t columns) {
    seconds = time;
    flow = view;
    fields.assign(columns, Field{});
    texts.clear();
  }
  // A text set again leaves its old copy unused in the buffer.
  void SetText(uint16_t column, std::wstring_view text) {
    Field& field = fields[column];
    field.kind = Kind::kText;
    field.offset = texts.size();
    field.length = text.size();
    texts.append(text);
  }
  std::wstring_view Text(const Field& field) const { return std::wstring_view(texts).substr(field.offset, field.length); }

  // The text of a standard field: the local time, an address, a MAC address
  // or a port number (written into `digits`); empty for an unknown field.
  std::string_view StandardText(uint32_t field, std::string_view time, char (&digits)[8]) const {
    switch (field) {
      case kLogFieldDateTime: return time;
      case kLogFieldClientMac: return flow.Mac(0);
      case kLogFieldServerMac: return flow.Mac(1);
      case kLogFieldClientAddress: return flow.Address(0);
      case kLogFieldServerAddress: return flow.Address(1);
      case kLogFieldClientPort:
      case kLogFieldServerPort: {
        const uint16_t port = flow.port[field == kLogFieldClientPort ? 0 : 1];
        return {digits, static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, port).ptr - digits)};
      }
      default: return {};
    }
  }

  uint64_t seconds = 0;
  FlowView flow;
  std::vector<Field> fields;
  std::wstring texts;
};

// The records waiting for export, whose field texts the export reads. Texts
// are made when asked for; the set is only read under the log's lock.
class HostLog::Batch final : public IPelkaLogRecordSet {
 public:
  Batch(Columns& columns, TimeTexts& times) : columns_(columns), times_(times) {}

  IPelkaLogColumns* GetColumns() override { return &columns_; }
  int32_t GetRecordCount() override { return static_cast<int32_t>(records_.size()); }
  wchar_t* GetFieldText(int32_t index, uint16_t column, uint32_t) override {
    if (index < 0 || static_cast<size_t>(index) >= records_.size()) return nullptr;
    const Record& record = *records_[static_cast<size_t>(index)];
    // A column declared after the record was opened has no field in it.
    if (column >= record.fields.size()) return nullptr;
    if (const uint32_t field = columns_.list[column]->field(); field != 0) {
      char digits[8];
      const std::string_view time = field == kLogFieldDateTime ? times_.Text(record.seconds) : std::string_view();
      return Copy(record.StandardText(field, time, digits));
    }
    const Record::Field& value = record.fields[column];
    switch (value.kind) {
      case Record::Kind::kText: return Copy(record.Text(value));
      case Record::Kind::kNumber: {
        char digits[24];
        return Copy(std::string_view(digits, std::to_chars(digits, digits + sizeof digits, value.number).ptr));
      }
      case Record::Kind::kDouble:
        number_text_.clear();
        AppendDouble(number_text_, value.real);
        return Copy(number_text_);
      case Record::Kind::kUnset: return nullptr;
    }
    return nullptr;
  }

  void Add(std::unique_ptr<Record> record) { records_.push_back(std::move(record)); }
  // Hands the exported records over for reuse.
  void Clear(std::vector<std::unique_ptr<Record>>& spare) {
    for (auto& record : records_) spare.push_back(std::move(record));
    records_.clear();
  }
  bool empty() const { return records_.empty(); }

 private:
  // The caller's copy, allocated as the interface promises. Standard and
  // number texts are ASCII, so each byte is its own wide character.
  static wchar_t* Copy(std::string_view text) {
    auto* buffer = new wchar_t[text.size() + 1];
    std::copy(text.begin(), text.end(), buffer);
    buffer[text.size()] = L'\0';
    return buffer;
  }
  static wchar_t* Copy(std::wstring_view text) {
    auto* buffer = new wchar_t[text.size() + 1];
    std::copy(text.begin(), text.end(), buffer);
    buffer[text.size()] = L'\0';
    return buffer;
  }

  Columns& columns_;
  TimeTexts& times_;
  std::vector<std::unique_ptr<Record>> records_;
  std::string number_text_;
};

// --- The log -----------------------------------------------------------------------

std::string_view HostLog::TimeTexts::Text(uint64_t seconds) {
  if (!valid_ || seconds != seconds_) {
    text_ = LocalTimeText(seconds);
    seconds_ = seconds;
    valid_ = true;
  }
  return text_;
}

HostLog::HostLog(const LogOutputs& outputs, bool copies)
    : outputs_(outputs), copies_(copies), columns_(std::make_unique<Columns>()),
      batch_(std::make_unique<Batch>(*columns_, export_times_)) {}

HostLog::~HostLog() = default;

uint16_t HostLog::AddColumn(const char* key, const wchar_t* caption, uint32_t value_kind, uint32_t, uint32_t,
                            uint32_t) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::lock_guard<std::mutex> open_lock(open_mutex_);
  if (!key || !open_.empty() || columns_->list.size() >= 0x7FFF) return 0xFFFF;
  const auto id = static_cast<uint16_t>(columns_->list.size());
  columns_->Add(std::make_unique<Column>(id, key, caption ? caption : L"", value_kind, 0));
  if (copy_path_column_ < 0 && std::strcmp(key, kCopyPathKey) == 0) copy_path_column_ = id;
  return id;
}

void HostLog::AddStandardColumn(const wchar_t* caption, uint32_t field, uint32_t, uint32_t) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::lock_guard<std::mutex> open_lock(open_mutex_);
  if (!open_.empty() || columns_->list.size() >= 0x7FFF) return;
  const auto id = static_cast<uint16_t>(columns_->list.size());
  columns_->Add(std::make_unique<Column>(id, StandardKey(field), caption ? caption : L"", 0, field));
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
  FillView(flow, view);
  const std::lock_guard<std::mutex> lock(open_mutex_);
  if (spare_.empty()) {
    open_.push_back(std::make_unique<Record>());
  } else {
    open_.push_back(std::move(spare_.back()));
    spare_.pop_back();
  }
  Record& record = *open_.back();
  record.Reset(seconds, view, columns_->list.size());
  return &record;
}

HostLog::Record* HostLog::FindOpen(IPelkaLogRecord* record) {
  for (const auto& open : open_)
    if (open.get() == record) return open.get();
  return nullptr;
}

template <typename SetValue>
uint32_t HostLog::Set(IPelkaLogRecord* handle, uint16_t column, SetValue set_value) {
  const std::lock_guard<std::mutex> lock(open_mutex_);
  Record* record = FindOpen(handle);
  if (!record || column >= record->fields.size() || columns_->list[column]->field() != 0) return kStatusRefused;
  set_value(*record, column);
  return 0;
}

uint32_t HostLog::SetDouble(IPelkaLogRecord* record, uint16_t column, double value) {
  return Set(record, column, [value](Record& open, uint16_t id) {
    open.fields[id].kind = Record::Kind::kDouble;
    open.fields[id].real = value;
  });
}

uint32_t HostLog::SetText(IPelkaLogRecord* record, uint16_t column, const wchar_t* value) {
  const std::wstring_view text(value ? value : L"");
  return Set(record, column, [text](Record& open, uint16_t id) { open.SetText(id, text); });
}

uint32_t HostLog::SetNumber(IPelkaLogRecord* record, uint16_t column, uint64_t value) {
  return Set(record, column, [value](Record& open, uint16_t id) {
    open.fields[id].kind = Record::Kind::kNumber;
    open.fields[id].number = value;
  });
}

void HostLog::BuildRecordLine(const Record& record, LineWriter& writer) {
  JsonObjectLine& line = writer.line;
  line.Clear();
  for (const auto& column : columns_->list) {
    const uint32_t field = column->field();
    if (field == kLogFieldClientPort || field == kLogFieldServerPort) {
      line.Number(column->key(), record.flow.port[field == kLogFieldClientPort ? 0 : 1]);
    } else if (field != 0) {
      char digits[8];
      const std::string_view time = field == kLogFieldDateTime ? writer.times.Text(record.seconds) : std::string_view();
      const std::string_view text = record.StandardText(field, time, digits);
      // A MAC address the capture did not show is left out.
      if (!text.empty() || field == kLogFieldDateTime) line.Text(column->key(), text);
    } else {
      const Record::Field& value = record.fields[column->id()];
      switch (value.kind) {
        case Record::Kind::kText: line.Text(column->key(), record.Text(value)); break;
        case Record::Kind::kNumber: line.Number(column->key(), value.number); break;
        case Record::Kind::kDouble: line.Double(column->key(), value.real); break;
        case Record::Kind::kUnset: break;
      }
    }
  }
}

void HostLog::WriteRecordLine(const Record& record) {
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

uint32_t HostLog::PostRecord(IPelkaLogRecord* handle) {
  std::unique_ptr<Record> record;
  {
    const std::lock_guard<std::mutex> lock(open_mutex_);
    const auto found = std::find_if(open_.begin(), open_.end(), [handle](const auto& r) { return r.get() == handle; });
    if (found == open_.end()) return kStatusRefused;
    record = std::move(*found);
    open_.erase(found);
  }
  posted_.fetch_add(1, std::memory_order_relaxed);
  if (copy_path_column_ >= 0 && static_cast<size_t>(copy_path_column_) < record->fields.size()) {
    const Record::Field& path = record->fields[static_cast<size_t>(copy_path_column_)];
    if (path.kind == Record::Kind::kText && path.length > 0) copies_written_.fetch_add(1, std::memory_order_relaxed);
  }
  // The record is the caller's alone now: its line is built without a lock.
  if (outputs_.records) WriteRecordLine(*record);
  std::unique_ptr<Batch> full;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    batch_->Add(std::move(record));
    if (batch_->GetRecordCount() < kExportBatch) return 0;
    full = TakeBatch();
  }
  ExportBatch(std::move(full));
  return 0;
}

std::unique_ptr<HostLog::Batch> HostLog::TakeBatch() {
  std::unique_ptr<Batch> taken;
  if (spare_batches_.empty()) {
    taken = std::make_unique<Batch>(*columns_, export_times_);
  } else {
    taken = std::move(spare_batches_.back());
    spare_batches_.pop_back();
  }
  batch_.swap(taken);
  return taken;
}

void HostLog::ExportBatch(std::unique_ptr<Batch> batch) {
  {
    const std::lock_guard<std::mutex> lock(export_mutex_);
    if (!batch->empty() || !header_written_) Export(*batch, !header_written_);
  }
  {
    const std::lock_guard<std::mutex> lock(open_mutex_);
    batch->Clear(spare_);
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  spare_batches_.push_back(std::move(batch));
}

void HostLog::Export(Batch& batch, bool header) {
  const auto found = std::find_if(storages_.begin(), storages_.end(), [](const auto& s) { return s->export_fn(); });
  if (found == storages_.end()) return;
  const PelkaLogExportFn export_fn = (*found)->export_fn();
  // The comma-separated form is 0; any other number asks for the text form.
  const std::pair<uint32_t, OutputFile*> forms[] = {{0, outputs_.csv}, {1, outputs_.text}};
  for (const auto& [format, file] : forms) {
    if (!file) continue;
    export_lines_.clear();
    export_fn(&batch, format, header ? 1 : 0, export_lines_);
    if (export_lines_.empty()) continue;
    WideToMultiByte(kCodePageUtf8, export_lines_, export_utf8_);
    file->Write(export_utf8_);
  }
  header_written_ = true;
}

void HostLog::Finish() {
  std::unique_ptr<Batch> last;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    last = TakeBatch();
  }
  ExportBatch(std::move(last));
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
