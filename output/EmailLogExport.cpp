#include "output/EmailLogExport.h"

#include "output/EmailLogColumns.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace pelka {
namespace {

// Keys the export needs, in lookup order. The host must know all of them,
// although the number, server and client columns appear in no line.
enum ExportKey : size_t {
  kKeyNumber,
  kKeyTimestamp,
  kKeyProtocol,
  kKeyClientAddress,
  kKeyClientPort,
  kKeyServerAddress,
  kKeyServerPort,
  kKeyServer,
  kKeyClient,
  kKeySender,
  kKeySenderAddress,
  kKeyReceiver,
  kKeyReceiverAddress,
  kKeyCc,
  kKeySubject,
  kKeySentTime,
  kKeyMailer,
  kKeyAccount,
  kKeyAttachments,
  kKeyFileSize,
  kExportKeyCount,
};

struct KeyName {
  ExportKey key;
  const char* name;
};

constexpr std::array<KeyName, kExportKeyCount> kExportKeys = {{
    {kKeyNumber, "email_number"},
    {kKeyTimestamp, "timestamp"},
    {kKeyProtocol, "protocol"},
    {kKeyClientAddress, "src_ip4"},
    {kKeyClientPort, "src_port"},
    {kKeyServerAddress, "dst_ip4"},
    {kKeyServerPort, "dst_port"},
    {kKeyServer, "email_server"},
    {kKeyClient, "email_client"},
    {kKeySender, "email_sender"},
    {kKeySenderAddress, "email_sender_email"},
    {kKeyReceiver, "email_receiver"},
    {kKeyReceiverAddress, "email_receive_email"},
    {kKeyCc, "email_cc"},
    {kKeySubject, "email_subject"},
    {kKeySentTime, "email_sent_time"},
    {kKeyMailer, "email_emailclient"},
    {kKeyAccount, "email_account"},
    {kKeyAttachments, "email_attachment"},
    {kKeyFileSize, "email_filesize"},
}};

constexpr bool KeysInOrder() {
  for (size_t i = 0; i < kExportKeys.size(); ++i) {
    if (kExportKeys[i].key != i) return false;
  }
  return true;
}
static_assert(KeysInOrder(), "kExportKeys is looked up by ExportKey");

struct ExportColumn {
  ExportKey key;                  // where the record value comes from
  EmailLogPosition caption;       // the log column whose caption heads the column
  const wchar_t* text_separator;  // what follows the value in the text form
};

constexpr std::array<ExportColumn, 17> kExportColumns = {{
    {kKeyTimestamp, kPositionDateTime, L" "},
    {kKeyClientAddress, kPositionClientAddress, L":"},
    {kKeyClientPort, kPositionClientPort, L" "},
    {kKeyServerAddress, kPositionServerAddress, L":"},
    {kKeyServerPort, kPositionServerPort, L" \""},
    {kKeySender, kPositionSender, L"\" "},
    {kKeySenderAddress, kPositionSenderAddress, L" \""},
    {kKeyReceiver, kPositionReceiver, L"\" "},
    {kKeyReceiverAddress, kPositionReceiverAddress, L" \""},
    {kKeyCc, kPositionCc, L"\" "},
    {kKeySubject, kPositionSubject, L" "},
    {kKeySentTime, kPositionSentTime, L" "},
    {kKeyFileSize, kPositionFileSize, L" "},
    {kKeyProtocol, kPositionProtocol, L" \""},
    {kKeyMailer, kPositionMailer, L"\" "},
    {kKeyAccount, kPositionAccount, L" \""},
    {kKeyAttachments, kPositionAttachments, L"\"\r\n"},
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
    IPelkaLogColumn* column = columns->FindColumn(kExportKeys[i].name);
    if (!column) return false;
    ids[i] = column->GetId();
  }
  return true;
}

void BuildHeader(IPelkaLogColumns* columns, bool csv, std::wstring& header) {
  header.clear();
  for (size_t i = 0; i < kExportColumns.size(); ++i) {
    if (i > 0) header += csv ? L", " : L" ";
    IPelkaLogColumn* column = columns->GetColumnAt(kExportColumns[i].caption);
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
    fields[i].reset(records->GetFieldText(index, ids[kExportColumns[i].key], 0));

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
