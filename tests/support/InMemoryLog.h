// In-memory doubles of the host's log side: the log service, the logs it
// creates (columns, storages, posted records, summary entries) and a record
// set for export callbacks.
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

using LogValue = std::variant<std::wstring, uint64_t, double>;

inline std::wstring CopyText(const wchar_t* text) { return text ? text : L""; }

// One record, as opened by NewRecord and filled by the Set operations.
struct InMemoryRecord final : IPelkaLogRecord {
  uint64_t seconds = 0;
  uint32_t client_address = 0;  // the flow's at NewRecord time
  std::map<std::string, LogValue> fields;  // by log key

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
  std::wstring kind, summary, group;
};

struct InMemoryColumn final : IPelkaLogColumn {
  std::string key;
  std::wstring caption;
  uint16_t id = 0;
  uint16_t GetId() override { return id; }
  const wchar_t* GetCaption() override { return caption.c_str(); }
};

// The host key of a standard field, as the export and the outputs know it.
inline const char* StandardFieldKey(uint32_t field) {
  static const std::map<uint32_t, const char*> keys = {
      {kLogFieldDateTime, "timestamp"},        {kLogFieldClientMac, "src_mac"},  {kLogFieldServerMac, "dst_mac"},
      {kLogFieldClientAddress, "src_ip4"},     {kLogFieldServerAddress, "dst_ip4"},
      {kLogFieldClientPort, "src_port"},       {kLogFieldServerPort, "dst_port"}};
  auto it = keys.find(field);
  return it == keys.end() ? "" : it->second;
}

struct InMemoryStorage final : IPelkaLogStorage {
  uint32_t enabled = 0;
  std::string folder;  // the storage's key
  uint32_t IsStorageEnabled() override { return enabled; }
  const char* GetFolderName() override { return folder.c_str(); }
};

class InMemoryLog final : public IPelkaLog {
 public:
  InMemoryLog(std::wstring caption, int32_t icon) : caption(std::move(caption)), icon(icon) {}

  uint16_t AddColumn(const char* key, const wchar_t* column_caption, uint32_t, uint32_t, uint32_t,
                     uint32_t) override {
    auto& column = AppendColumn(key ? key : "", column_caption);
    return column.key == refuse_key ? 0xFFFF : column.id;
  }
  void AddStandardColumn(const wchar_t* column_caption, uint32_t field, uint32_t, uint32_t) override {
    AppendColumn(StandardFieldKey(field), column_caption);
  }
  void EndColumns() override { ++end_columns_calls; }
  uint32_t AddStorage(const char*, const char* key, const char*, const wchar_t*, PelkaLogExportFn) override {
    storages.push_back(std::make_unique<InMemoryStorage>());
    storages.back()->folder = key ? key : "";
    return 0;
  }
  uint32_t GetSaveMode() override { return save_mode; }
  IPelkaLogStorage* GetStorage(int32_t index) override {
    return index >= 0 && static_cast<size_t>(index) < storages.size() ? storages[index].get() : nullptr;
  }
  uint32_t IsLogEnabled() override { return enabled; }
  uint32_t AddEntry(uint64_t seconds, IPelkaFlow* flow, const wchar_t* kind, const wchar_t* summary,
                    const wchar_t* group) override {
    entries.push_back({seconds, flow, CopyText(kind), CopyText(summary), CopyText(group)});
    return 0;
  }
  IPelkaLogRecord* NewRecord(uint64_t seconds, IPelkaFlow* flow, uint32_t) override {
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
    return Set(record, column, CopyText(value));
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

  size_t pending_records() const { return pending_.size(); }  // opened but never posted

  std::wstring caption;
  int32_t icon;
  std::vector<std::unique_ptr<InMemoryColumn>> columns;  // id == position
  std::vector<std::unique_ptr<InMemoryStorage>> storages;
  std::vector<InMemoryRecord> records;
  std::vector<InMemoryEntry> entries;
  int end_columns_calls = 0;
  int unknown_column_sets = 0;
  // Switches a test may turn.
  uint32_t enabled = 1;
  uint32_t save_mode = 0;
  bool refuse_records = false;
  std::string refuse_key;  // AddColumn of this key answers 0xFFFF

 private:
  InMemoryColumn& AppendColumn(std::string key, const wchar_t* column_caption) {
    auto column = std::make_unique<InMemoryColumn>();
    column->key = std::move(key);
    column->caption = CopyText(column_caption);
    column->id = static_cast<uint16_t>(columns.size());
    columns.push_back(std::move(column));
    return *columns.back();
  }
  uint32_t Set(IPelkaLogRecord* record, uint16_t column, LogValue value) {
    for (auto& pending : pending_) {
      if (pending.get() != record || column >= columns.size()) continue;
      pending->fields[columns[column]->key] = std::move(value);
      return 0;
    }
    ++unknown_column_sets;
    return 1;
  }

  std::vector<std::unique_ptr<InMemoryRecord>> pending_;
};

class InMemoryLogService final : public IPelkaLogService {
 public:
  uint32_t CreateLog(const char*, const wchar_t* caption, uint32_t, int32_t icon, IPelkaLog** log) override {
    logs.push_back(std::make_unique<InMemoryLog>(CopyText(caption), icon));
    logs.back()->refuse_key = refuse_key;
    if (log) *log = logs.back().get();
    return 0;
  }
  uint32_t GetStorageRoot(const wchar_t** root) override {
    if (root_status == 0 && root) *root = storage_root.c_str();
    return root_status;
  }

  // The most recently created log, or null.
  InMemoryLog* log() const { return logs.empty() ? nullptr : logs.back().get(); }

  // Copies on: the log saves and its storage 1 is enabled, under this root.
  // Call after the log's storages are registered.
  void EnableCopies(std::wstring root) {
    storage_root = std::move(root);
    if (!log()) return;
    log()->save_mode = kLogSaveModeSaving;
    if (log()->storages.size() > 1) log()->storages[1]->enabled = 1;
  }

  std::vector<std::unique_ptr<InMemoryLog>> logs;
  std::wstring storage_root;
  uint32_t root_status = 0;
  std::string refuse_key;  // handed to every log created from now on
};

// A record set for export callbacks: columns by position and key, and rows of
// field texts by key (a key absent from a row gives a null field).
class InMemoryRecordSet final : public IPelkaLogRecordSet, public IPelkaLogColumns {
 public:
  using Row = std::map<std::string, std::wstring>;

  // Columns (key, caption) in position order; identifiers are 100 + position
  // so that an identifier is never mistaken for a position.
  explicit InMemoryRecordSet(const std::vector<std::pair<std::string, std::wstring>>& column_list) {
    for (const auto& [key, caption] : column_list) {
      columns_.push_back(std::make_unique<InMemoryColumn>());
      columns_.back()->key = key;
      columns_.back()->caption = caption;
      columns_.back()->id = static_cast<uint16_t>(99 + columns_.size());
    }
  }

  IPelkaLogColumns* GetColumns() override { return this; }
  int32_t GetRecordCount() override { return static_cast<int32_t>(rows.size()); }
  wchar_t* GetFieldText(int32_t record, uint16_t column, uint32_t flags) override {
    if (flags != 0) ++nonzero_flag_requests;
    if (record < 0 || static_cast<size_t>(record) >= rows.size()) return nullptr;
    for (const auto& target : columns_) {
      if (target->id != column) continue;
      auto it = rows[record].find(target->key);
      if (it == rows[record].end()) return nullptr;
      auto* buffer = new wchar_t[it->second.size() + 1];
      std::wcsncpy(buffer, it->second.c_str(), it->second.size() + 1);
      return buffer;
    }
    return nullptr;
  }
  IPelkaLogColumn* GetColumnAt(int32_t position) override {
    return position >= 0 && static_cast<size_t>(position) < columns_.size() ? columns_[position].get() : nullptr;
  }
  IPelkaLogColumn* FindColumn(const char* key) override {
    for (auto& column : columns_)
      if (column->key == key) return column.get();
    return nullptr;
  }

  std::vector<Row> rows;
  int nonzero_flag_requests = 0;

 private:
  std::vector<std::unique_ptr<InMemoryColumn>> columns_;
};

}  // namespace pelka::testing
