// In-memory doubles of the host's log side: a log service, the logs it
// creates (columns, storage kinds, posted records, summary entries) and a
// record set for export callbacks.
//
// Typical use:
//   InMemoryLogService service;
//   module.set_log_service(&service);
//   module.DefineEmailLog();
//   service.EnableCopies(L"/tmp/root/");      // copies on, storage root given
//   ... module.PostEmailRecord(...);
//   service.log()->records[0].Text("email_subject");
#pragma once

#include <cstdint>
#include <cwchar>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/FlowInterfaces.h"
#include "host/LogInterfaces.h"

namespace pelka::testing {

// A field value as the module set it.
using LogValue = std::variant<std::wstring, uint64_t, double>;

// One record, as opened by NewRecord and filled by the Set operations.
struct InMemoryRecord final : IPelkaLogRecord {
  uint64_t seconds = 0;
  uint32_t client_address = 0;  // the flow's at NewRecord time (the flow object is not kept)
  // Fields by log key.
  std::map<std::string, LogValue> fields;

  bool Has(const std::string& key) const { return fields.count(key) != 0; }
  // The field's value when it was set with this kind.
  template <typename T>
  std::optional<T> Get(const std::string& key) const {
    auto it = fields.find(key);
    if (it == fields.end() || !std::holds_alternative<T>(it->second)) return std::nullopt;
    return std::get<T>(it->second);
  }
  std::wstring Text(const std::string& key) const { return Get<std::wstring>(key).value_or(L"<not a text>"); }
  std::optional<uint64_t> Number(const std::string& key) const { return Get<uint64_t>(key); }
  std::optional<double> Double(const std::string& key) const { return Get<double>(key); }
};

struct InMemoryEntry {
  uint64_t seconds = 0;
  IPelkaFlow* flow = nullptr;
  std::wstring kind;
  std::wstring summary;
  std::wstring group;
};

// A declared column; a standard one gets the host key of its field.
struct InMemoryColumn final : IPelkaLogColumn {
  std::string key;
  std::wstring caption;
  uint16_t id = 0;

  uint16_t GetId() override { return id; }
  const wchar_t* GetCaption() override { return caption.c_str(); }
};

// The host key of a standard field, as the export and the outputs know it.
inline const char* StandardFieldKey(uint32_t field) {
  switch (field) {
    case kLogFieldDateTime: return "timestamp";
    case kLogFieldClientMac: return "src_mac";
    case kLogFieldServerMac: return "dst_mac";
    case kLogFieldClientAddress: return "src_ip4";
    case kLogFieldServerAddress: return "dst_ip4";
    case kLogFieldClientPort: return "src_port";
    case kLogFieldServerPort: return "dst_port";
    default: return "";
  }
}

struct InMemoryStorage final : IPelkaLogStorage {
  std::string name;
  PelkaLogExportFn export_fn = nullptr;
  uint32_t enabled = 0;
  std::string folder;  // defaults to the storage's key

  uint32_t IsStorageEnabled() override { return enabled; }
  const char* GetFolderName() override { return folder.c_str(); }
};

class InMemoryLog final : public IPelkaLog {
 public:
  InMemoryLog(std::wstring caption, int32_t icon) : caption(std::move(caption)), icon(icon) {}

  // --- IPelkaLog ---------------------------------------------------------------
  uint16_t AddColumn(const char* key, const wchar_t* column_caption, uint32_t, uint32_t, uint32_t,
                     uint32_t) override {
    auto& column = AppendColumn(key ? key : "", column_caption);
    return column.key == refuse_key ? 0xFFFF : column.id;
  }
  void AddStandardColumn(const wchar_t* column_caption, uint32_t field, uint32_t, uint32_t) override {
    AppendColumn(StandardFieldKey(field), column_caption);
  }
  void EndColumns() override { ++end_columns_calls; }
  uint32_t AddStorage(const char* storage_name, const char* key, const char*, const wchar_t*,
                      PelkaLogExportFn export_fn) override {
    auto storage = std::make_unique<InMemoryStorage>();
    storage->name = storage_name ? storage_name : "";
    storage->export_fn = export_fn;
    storage->folder = key ? key : "";
    storages.push_back(std::move(storage));
    return 0;
  }

  uint32_t GetSaveMode() override { return save_mode; }
  IPelkaLogStorage* GetStorage(int32_t index) override {
    if (index < 0 || static_cast<size_t>(index) >= storages.size()) return nullptr;
    return storages[index].get();
  }

  uint32_t IsLogEnabled() override { return enabled; }
  uint32_t AddEntry(uint64_t seconds, IPelkaFlow* flow, const wchar_t* kind, const wchar_t* summary,
                    const wchar_t* group) override {
    entries.push_back({seconds, flow, Copy(kind), Copy(summary), Copy(group)});
    return 0;
  }
  IPelkaLogRecord* NewRecord(uint64_t seconds, IPelkaFlow* flow, uint32_t reserved) override {
    last_new_record_reserved = reserved;
    if (refuse_records) return nullptr;
    auto record = std::make_unique<InMemoryRecord>();
    record->seconds = seconds;
    if (flow) record->client_address = flow->GetClientAddress();
    pending_.push_back(std::move(record));
    return pending_.back().get();
  }
  uint32_t SetDouble(IPelkaLogRecord* record, uint16_t column, double value) override {
    return Set(record, column, value);
  }
  uint32_t SetText(IPelkaLogRecord* record, uint16_t column, const wchar_t* value) override {
    return Set(record, column, Copy(value));
  }
  uint32_t SetNumber(IPelkaLogRecord* record, uint16_t column, uint64_t value) override {
    return Set(record, column, value);
  }
  uint32_t PostRecord(IPelkaLogRecord* record) override {
    for (auto it = pending_.begin(); it != pending_.end(); ++it) {
      if (it->get() != record) continue;
      records.push_back(std::move(**it));
      pending_.erase(it);
      return 0;
    }
    return 1;
  }

  // Records opened but never posted.
  size_t pending_records() const { return pending_.size(); }

  std::wstring caption;
  int32_t icon;
  std::vector<std::unique_ptr<InMemoryColumn>> columns;  // id == position
  std::vector<std::unique_ptr<InMemoryStorage>> storages;
  std::vector<InMemoryRecord> records;
  std::vector<InMemoryEntry> entries;
  int end_columns_calls = 0;
  int unknown_column_sets = 0;
  uint32_t last_new_record_reserved = 0;

  // Switches a test may turn.
  uint32_t enabled = 1;
  uint32_t save_mode = 0;
  bool refuse_records = false;
  std::string refuse_key;  // AddColumn of this key answers 0xFFFF

 private:
  static std::wstring Copy(const wchar_t* text) { return text ? text : L""; }

  InMemoryColumn& AppendColumn(std::string key, const wchar_t* column_caption) {
    auto column = std::make_unique<InMemoryColumn>();
    column->key = std::move(key);
    column->caption = Copy(column_caption);
    column->id = static_cast<uint16_t>(columns.size());
    columns.push_back(std::move(column));
    return *columns.back();
  }

  uint32_t Set(IPelkaLogRecord* record, uint16_t column, LogValue value) {
    auto* target = Pending(record);
    if (!target || column >= columns.size()) {
      ++unknown_column_sets;
      return 1;
    }
    const std::string& key = columns[column]->key;
    target->fields[key] = std::move(value);
    return 0;
  }

  InMemoryRecord* Pending(IPelkaLogRecord* record) {
    for (auto& pending : pending_)
      if (pending.get() == record) return pending.get();
    return nullptr;
  }

  std::vector<std::unique_ptr<InMemoryRecord>> pending_;
};

class InMemoryLogService final : public IPelkaLogService {
 public:
  uint32_t CreateLog(const char*, const wchar_t* caption, uint32_t, int32_t icon, IPelkaLog** log) override {
    if (create_status != 0) return create_status;
    logs.push_back(std::make_unique<InMemoryLog>(caption ? caption : L"", icon));
    logs.back()->refuse_key = refuse_key;
    if (log) *log = logs.back().get();
    return 0;
  }
  uint32_t GetStorageRoot(const wchar_t** root) override {
    if (root_status != 0) return root_status;
    if (root) *root = storage_root.c_str();
    return 0;
  }

  // The most recently created log, or null.
  InMemoryLog* log() const { return logs.empty() ? nullptr : logs.back().get(); }

  // Copies on: the log saves (mode 2) and its storage kind 1 is enabled, with
  // the given storage root. Call after the log's storages are registered.
  void EnableCopies(std::wstring root) {
    storage_root = std::move(root);
    InMemoryLog* current = log();
    if (!current) return;
    current->save_mode = kLogSaveModeSaving;
    if (current->storages.size() > 1) current->storages[1]->enabled = 1;
  }

  std::vector<std::unique_ptr<InMemoryLog>> logs;
  std::wstring storage_root;
  uint32_t create_status = 0;
  uint32_t root_status = 0;
  std::string refuse_key;  // handed to every log created from now on
};

// A record set for export callbacks: columns by position and key, and rows of
// field texts by key (a key absent from a row gives a null field).
class InMemoryRecordSet final : public IPelkaLogRecordSet, public IPelkaLogColumns {
 public:
  using Row = std::map<std::string, std::wstring>;

  // Columns in position order: (key, caption). Identifiers are 100 + position,
  // so that an identifier is never mistaken for a position.
  explicit InMemoryRecordSet(const std::vector<std::pair<std::string, std::wstring>>& column_list) {
    for (const auto& [key, caption] : column_list) {
      auto column = std::make_unique<InMemoryColumn>();
      column->key = key;
      column->caption = caption;
      column->id = static_cast<uint16_t>(100 + columns_.size());
      columns_.push_back(std::move(column));
    }
  }

  IPelkaLogColumns* GetColumns() override { return this; }
  int32_t GetRecordCount() override {
    ++record_count_calls;
    return static_cast<int32_t>(rows.size());
  }
  wchar_t* GetFieldText(int32_t record, uint16_t column, uint32_t flags) override {
    ++field_requests;
    if (flags != 0) ++nonzero_flag_requests;
    if (record < 0 || static_cast<size_t>(record) >= rows.size()) return nullptr;
    const InMemoryColumn* target = ById(column);
    if (!target) return nullptr;
    auto it = rows[record].find(target->key);
    if (it == rows[record].end()) return nullptr;
    auto* buffer = new wchar_t[it->second.size() + 1];
    std::wcsncpy(buffer, it->second.c_str(), it->second.size() + 1);
    return buffer;
  }

  IPelkaLogColumn* GetColumnAt(int32_t position) override {
    if (position < 0 || static_cast<size_t>(position) >= columns_.size()) return nullptr;
    return columns_[position].get();
  }
  IPelkaLogColumn* FindColumn(const char* key) override {
    for (auto& column : columns_)
      if (column->key == key) return column.get();
    return nullptr;
  }

  std::vector<Row> rows;
  int record_count_calls = 0;
  int field_requests = 0;
  int nonzero_flag_requests = 0;

 private:
  const InMemoryColumn* ById(uint16_t id) const {
    for (const auto& column : columns_)
      if (column->id == id) return column.get();
    return nullptr;
  }

  std::vector<std::unique_ptr<InMemoryColumn>> columns_;
};

}  // namespace pelka::testing
