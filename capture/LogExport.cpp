#include "capture/LogExport.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "capture/JsonText.h"
#include "host/CodePage.h"

namespace pelka {
namespace {

// The caller's copy, allocated as the interface promises. Standard and number
// texts are ASCII, so each byte is its own wide character.
template <typename Char>
wchar_t* CallerCopy(std::basic_string_view<Char> text) {
  auto* buffer = new wchar_t[text.size() + 1];
  std::copy(text.begin(), text.end(), buffer);
  buffer[text.size()] = L'\0';
  return buffer;
}

}  // namespace

wchar_t* LogRecordSet::GetFieldText(int32_t index, uint16_t column, uint32_t) {
  if (index < 0 || static_cast<size_t>(index) >= records_.size()) return nullptr;
  const LogRecord& record = *records_[static_cast<size_t>(index)];
  // A column declared after the record was opened has no field in it.
  if (column >= record.field_count()) return nullptr;
  if (const uint32_t field = columns_[column].field(); field != 0) {
    char digits[8];
    const std::string_view time = field == kLogFieldDateTime ? times_.Text(record.seconds()) : std::string_view();
    return CallerCopy(record.StandardText(field, time, digits));
  }
  const LogRecord::Field& value = record.field(column);
  switch (value.kind) {
    case LogRecord::Kind::kText: return CallerCopy(record.Text(value));
    case LogRecord::Kind::kNumber: {
      char digits[24];
      return CallerCopy(std::string_view(digits, std::to_chars(digits, digits + sizeof digits, value.number).ptr));
    }
    case LogRecord::Kind::kDouble:
      number_text_.clear();
      AppendDouble(number_text_, value.real);
      return CallerCopy(std::string_view(number_text_));
    case LogRecord::Kind::kUnset: return nullptr;
  }
  return nullptr;
}

void LogRecordSet::Clear(std::vector<std::unique_ptr<LogRecord>>& spare) {
  for (auto& record : records_) spare.push_back(std::move(record));
  records_.clear();
}

void LogExporter::Export(LogRecordSet& set, const std::vector<std::unique_ptr<LogStorage>>& storages) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (set.empty() && header_written_) return;
  const bool header = !header_written_;
  const auto found = std::find_if(storages.begin(), storages.end(), [](const auto& s) { return s->export_fn(); });
  if (found == storages.end()) return;
  const PelkaLogExportFn export_fn = (*found)->export_fn();
  // The comma-separated form is 0; any other number asks for the text form.
  const std::pair<uint32_t, OutputFile*> forms[] = {{0, csv_}, {1, text_}};
  for (const auto& [format, file] : forms) {
    if (!file) continue;
    lines_.clear();
    export_fn(&set, format, header ? 1 : 0, lines_);
    if (lines_.empty()) continue;
    WideToMultiByte(kCodePageUtf8, lines_, utf8_);
    file->Write(utf8_);
  }
  header_written_ = true;
}

}  // namespace pelka
