#include "output/EmailLogExport.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace pelka {
namespace {

// Keys the export needs, in lookup order. The host must know all of them,
// although the number, server and client columns appear in no line.
constexpr std::array<const char*, 20> kExportKeys = {
    "email_number",        "timestamp",        "protocol",           "src_ip4",       "src_port",
    "dst_ip4",             "dst_port",         "email_server",       "email_client",  "email_sender",
    "email_sender_email",  "email_receiver",   "email_receive_email", "email_cc",     "email_subject",
    "email_sent_time",     "email_emailclient", "email_account",     "email_attachment", "email_filesize",
};

struct ExportColumn {
  int key_index;          // into kExportKeys: where the record value comes from
  int caption_position;   // the log column whose caption heads the column
  const wchar_t* text_separator;  // what follows the value in the text form
};

constexpr std::array<ExportColumn, 17> kExportColumns = {{
    {1, 1, L" "},        // timestamp
    {3, 4, L":"},        // client address ...
    {4, 5, L" "},        // ... and port
    {5, 7, L":"},        // server address ...
    {6, 8, L" \""},      // ... and port
    {9, 11, L"\" "},     // sender
    {10, 12, L" \""},    // sender address
    {11, 13, L"\" "},    // receiver
    {12, 14, L" \""},    // receiver address
    {13, 15, L"\" "},    // copy receivers
    {14, 16, L" "},      // subject
    {15, 17, L" "},      // sent time
    {19, 21, L" "},      // file size
    {2, 2, L" \""},      // protocol
    {16, 18, L"\" "},    // mail client
    {17, 19, L" \""},    // account
    {18, 20, L"\"\r\n"}, // attachments
}};

constexpr wchar_t kFullwidthComma = L'\xFF0C';

// The header line last built; see the header file for when it is rebuilt.
std::wstring& CachedHeader() {
  static std::wstring header;
  return header;
}

bool IsCsv(uint32_t format) { return format == kEmailExportCsv; }

// Column identifiers of the twenty keys; false when the host lacks one.
bool LookUpColumnIds(IPelkaLogColumns* columns, std::array<uint16_t, kExportKeys.size()>& ids) {
  if (!columns) return false;
  for (size_t i = 0; i < kExportKeys.size(); ++i) {
    IPelkaLogColumn* column = columns->FindColumn(kExportKeys[i]);
    if (!column) return false;
    ids[i] = column->GetId();
  }
  return true;
}

void BuildHeader(IPelkaLogColumns* columns, bool csv, std::wstring& header) {
  header.clear();
  for (size_t i = 0; i < kExportColumns.size(); ++i) {
    if (i > 0) header += csv ? L", " : L" ";
    IPelkaLogColumn* column = columns->GetColumnAt(kExportColumns[i].caption_position);
    const wchar_t* caption = column ? column->GetCaption() : nullptr;
    if (caption) header += caption;
  }
  header += L"\r\n";
}

void AppendCsvValue(std::wstring& line, const wchar_t* value) {
  const size_t start = line.size();
  line += value;
  std::replace(line.begin() + static_cast<std::ptrdiff_t>(start), line.end(), L',', kFullwidthComma);
}

// One record's line, appended to `out`. The field buffers are the host's
// allocations, handed over to us; they are freed when the line is made.
void AppendRecordLine(IPelkaLogRecordSet* records, int32_t index, const std::array<uint16_t, kExportKeys.size()>& ids,
                      bool csv, std::wstring& out) {
  std::array<FieldText, kExportColumns.size()> fields;
  for (size_t i = 0; i < kExportColumns.size(); ++i)
    fields[i].reset(records->GetFieldText(index, ids[kExportColumns[i].key_index], 0));

  for (size_t i = 0; i < kExportColumns.size(); ++i) {
    const wchar_t* value = fields[i] ? fields[i].get() : L"";
    if (!csv) {
      out += value;
      out += kExportColumns[i].text_separator;
      continue;
    }
    if (i > 0) out += L", ";
    AppendCsvValue(out, value);
  }
  if (csv) out += L"\r\n";
}

}  // namespace

void FormatEmailLogLines(IPelkaLogRecordSet* records, uint32_t format, uint32_t header_wanted, std::wstring& out) {
  out.clear();
  if (!records) return;
  IPelkaLogColumns* columns = records->GetColumns();
  std::array<uint16_t, kExportKeys.size()> ids{};
  if (!LookUpColumnIds(columns, ids)) return;

  const bool csv = IsCsv(format);
  std::wstring& cached = CachedHeader();
  if (cached.empty() || header_wanted != 0) {
    BuildHeader(columns, csv, cached);
    out = cached;
  }
  // The count is read again for every record: the set may grow while it is
  // exported. The lines go straight into `out`, whose buffer the caller may
  // keep from call to call.
  for (int32_t index = 0; index < records->GetRecordCount(); ++index) AppendRecordLine(records, index, ids, csv, out);
}

void ResetEmailLogHeaderCache() { CachedHeader().clear(); }

}  // namespace pelka
