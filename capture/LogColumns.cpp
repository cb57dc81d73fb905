#include "capture/LogColumns.h"

#include <algorithm>
#include <iterator>

#include "capture/CopyStore.h"

namespace pelka {

const char* StandardColumnKey(uint32_t field) {
  static const char* const kKeys[] = {"", "timestamp", "src_mac", "dst_mac", "src_ip4",
                                      "dst_ip4", "src_port", "dst_port"};
  return field < std::size(kKeys) ? kKeys[field] : "";
}

IPelkaLogColumn* LogColumns::GetColumnAt(int32_t position) {
  if (position < 0 || static_cast<size_t>(position) >= list_.size()) return nullptr;
  return list_[static_cast<size_t>(position)].get();
}

IPelkaLogColumn* LogColumns::FindColumn(const char* key) {
  if (!key) return nullptr;
  const std::string_view wanted(key);
  const auto found = std::lower_bound(by_key_.begin(), by_key_.end(), wanted,
                                      [](const KeyEntry& entry, std::string_view k) { return entry.first < k; });
  return found != by_key_.end() && found->first == wanted ? found->second : nullptr;
}

void LogColumns::Add(std::unique_ptr<LogColumn> column) {
  // Behind every column of the same key, so the first declared stays first.
  const KeyEntry entry{column->key(), column.get()};
  by_key_.insert(std::upper_bound(by_key_.begin(), by_key_.end(), entry,
                                  [](const KeyEntry& a, const KeyEntry& b) { return a.first < b.first; }),
                 entry);
  list_.push_back(std::move(column));
}

const char* LogStorage::GetFolderName() { return staging_ ? staging_->StagingFolder() : key_.c_str(); }

}  // namespace pelka
