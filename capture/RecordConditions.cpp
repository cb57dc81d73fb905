#include "capture/RecordConditions.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <system_error>

#include "host/CodePage.h"

namespace pelka {
namespace {

constexpr const char* kWatchedKeys[] = {"email_attachment", "email_filesize", "email_sender_email",
                                        "email_receive_email", "email_file_path"};

}  // namespace

void RecordConditions::NoteColumn(std::string_view key, uint16_t id) {
  for (int i = 0; i < kWatchedCount; ++i) {
    if (columns_[i] < 0 && key == kWatchedKeys[i]) columns_[i] = id;
  }
}

bool RecordConditions::Admit(const LogRecord& record) {
  // A mark left by a refused record whose entry never came must not take
  // this record's entry.
  TakeEntryDrop(record.flow());
  const auto text = [&record, this](Watched field) { return std::wstring(record.TextAt(columns_[field])); };
  const EmailFacts facts =
      FactsFromRecord(text(kAttachments), record.NumberAt(columns_[kSize]), text(kSender), text(kReceivers));
  if (ConditionsHold(conditions_, facts)) return true;
  Refuse(record);
  return false;
}

void RecordConditions::Refuse(const LogRecord& record) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    dropping_entry_.push_back(record.flow());
  }
  const std::wstring_view copy = record.TextAt(columns_[kCopyPath]);
  if (copy.empty()) return;
  std::error_code ignored;
  std::filesystem::remove(WideToUtf8(copy), ignored);
}

bool RecordConditions::TakeEntryDrop(const IPelkaFlow* flow) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = std::find(dropping_entry_.begin(), dropping_entry_.end(), flow);
  if (found == dropping_entry_.end()) return false;
  dropping_entry_.erase(found);
  return true;
}

}  // namespace pelka
