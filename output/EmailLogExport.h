// Export lines of the email log: the callback the host calls when it saves or
// exports the log as text.
//
// Both forms carry the same 17 columns: date and time, client address and
// port, server address and port, sender, sender address, receiver, receiver
// address, copy receivers, subject, sent time, size, protocol, mail client,
// account and attachments.
//
//  - Text form (format non-zero): header captions joined by blanks; a record
//    line reads
//      time client:port server:port "sender" address "receiver" address "cc"
//      subject sent-time size protocol "mailer" account "attachments"
//    with no escaping.
//  - Comma-separated form (format 0): values joined by ", "; every ASCII comma
//    inside a value becomes a fullwidth comma (U+FF0C), so a line always has
//    exactly sixteen separators. Captions are not escaped.
// Every line, the header included, ends with CR LF.
//
// The header line is cached process-wide: it is built whenever a header is
// wanted, and also on the first call of the process even when none is wanted.
// The cache is unguarded; the host calls the export from one thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "host/LogInterfaces.h"

namespace pelka {

enum : uint32_t {
  kEmailExportCsv = 0,   // any other value: text form
};

// The lines of all records of the set, in `out`. Empty when there is no set or
// when the host does not know one of the twenty keys the export looks up.
void FormatEmailLogLines(IPelkaLogRecordSet* records, uint32_t format, uint32_t header_wanted, std::wstring& out);

// Forgets the cached header, as at process start. For tests.
void ResetEmailLogHeaderCache();

}  // namespace pelka
