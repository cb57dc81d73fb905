// What a host log declares before records come: its columns and its storage
// kinds.
//
// A column is keyed (a field the module fills, under the module's key) or
// standard (a field the host fills from the record's time and flow, under
// the host's key: timestamp, src_mac, dst_mac, src_ip4, dst_ip4, src_port,
// dst_port). Column identifiers are the positions of the declaration.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/LogInterfaces.h"

namespace pelka {

class CopyStore;

// The host's key of a standard field (kLogField...); "" for an unknown field.
const char* StandardColumnKey(uint32_t field);

class LogColumn final : public IPelkaLogColumn {
 public:
  LogColumn(uint16_t id, std::string key, std::wstring caption, uint32_t kind, uint32_t field)
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

// The columns in declaration order, found by position or by key.
class LogColumns final : public IPelkaLogColumns {
 public:
  IPelkaLogColumn* GetColumnAt(int32_t position) override;
  // The first declared column with the key.
  IPelkaLogColumn* FindColumn(const char* key) override;

  void Add(std::unique_ptr<LogColumn> column);
  size_t size() const { return list_.size(); }
  const LogColumn& operator[](size_t position) const { return *list_[position]; }
  const std::vector<std::unique_ptr<LogColumn>>& list() const { return list_; }

 private:
  std::vector<std::unique_ptr<LogColumn>> list_;
  // The export looks up twenty keys for every batch: keys are kept sorted
  // beside the list, as views of the columns' own keys.
  using KeyEntry = std::pair<std::string_view, LogColumn*>;
  std::vector<KeyEntry> by_key_;
};

// A storage kind: its folder is its key, or, for the copies when a copy
// store is given, the calling thread's staging folder of that store.
class LogStorage final : public IPelkaLogStorage {
 public:
  LogStorage(std::string key, bool enabled, PelkaLogExportFn export_fn, CopyStore* staging = nullptr)
      : key_(std::move(key)), enabled_(enabled), export_fn_(export_fn), staging_(staging) {}
  uint32_t IsStorageEnabled() override { return enabled_ ? 1 : 0; }
  const char* GetFolderName() override;
  PelkaLogExportFn export_fn() const { return export_fn_; }

 private:
  std::string key_;
  bool enabled_;
  PelkaLogExportFn export_fn_;
  CopyStore* staging_;
};

}  // namespace pelka
