// The host's log interfaces: the log service, a log with its columns, records
// and storage kinds, and the record sets the host hands to an export callback.
//
// Conventions:
//  - Keys, log names and storage names are 8-bit texts; captions and field
//    values are wide texts.
//  - Texts returned by getters stay the host's. The one exception is
//    IPelkaLogRecordSet::GetFieldText, whose buffer the caller owns and frees
//    with delete[] (see ReleaseFieldText).
//  - Operations are declared in the order of the host's interfaces.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "host/FlowInterfaces.h"

namespace pelka {

// Value kinds of keyed columns.
enum : uint32_t {
  kLogValueText = 1,
  kLogValueNumber = 9,   // unsigned 64-bit
  kLogValueDouble = 11,
};

// Standard fields the host fills itself from a record's time and flow.
enum : uint32_t {
  kLogFieldDateTime = 1,
  kLogFieldClientMac = 2,
  kLogFieldServerMac = 3,
  kLogFieldClientAddress = 4,
  kLogFieldServerAddress = 5,
  kLogFieldClientPort = 6,
  kLogFieldServerPort = 7,
};

// Save mode of a log in which storage kinds such as copies are honoured.
constexpr uint32_t kLogSaveModeSaving = 2;

// A record handle: opened by NewRecord, filled with the Set operations and
// handed back with PostRecord. The host owns it throughout.
class IPelkaLogRecord {
 protected:
  ~IPelkaLogRecord() = default;
};

// One column of a log.
class IPelkaLogColumn {
 public:
  virtual uint16_t GetId() = 0;
  virtual const wchar_t* GetCaption() = 0;

 protected:
  ~IPelkaLogColumn() = default;
};

// The columns of a log, by position (declaration order) or by key.
class IPelkaLogColumns {
 public:
  // Null when the position is out of range.
  virtual IPelkaLogColumn* GetColumnAt(int32_t position) = 0;
  // Null when no column has the key. Standard columns have host keys
  // ("timestamp", "src_ip4", "src_port", "dst_ip4", "dst_port", ...).
  virtual IPelkaLogColumn* FindColumn(const char* key) = 0;

 protected:
  ~IPelkaLogColumns() = default;
};

// A set of records handed to an export callback.
class IPelkaLogRecordSet {
 public:
  virtual IPelkaLogColumns* GetColumns() = 0;
  virtual int32_t GetRecordCount() = 0;
  // One field of one record as text, in a buffer allocated with new[] that the
  // caller frees with delete[]; null when the host has no text for it. The
  // third argument is always 0.
  virtual wchar_t* GetFieldText(int32_t record, uint16_t column, uint32_t flags) = 0;

 protected:
  ~IPelkaLogRecordSet() = default;
};

// Takes over a buffer from GetFieldText.
using FieldText = std::unique_ptr<wchar_t[]>;

// The export callback of a storage kind: the lines of the records, in the
// comma-separated form (format 0) or the text form (any other format), with a
// header line when header_wanted is non-zero.
using PelkaLogExportFn = void (*)(IPelkaLogRecordSet* records, uint32_t format, uint32_t header_wanted,
                                  std::wstring& out);

// One storage kind registered with a log (the saved log, copies, ...).
class IPelkaLogStorage {
 public:
  virtual uint32_t IsStorageEnabled() = 0;
  // Folder of this kind below the storage root; 8-bit text, the host's.
  virtual const char* GetFolderName() = 0;

 protected:
  ~IPelkaLogStorage() = default;
};

// A log the host keeps and shows.
class IPelkaLog {
 public:
  // --- Definition -------------------------------------------------------------
  // Declares a keyed column; returns its identifier (top bit set: refused).
  virtual uint16_t AddColumn(const char* key, const wchar_t* caption, uint32_t value_kind, uint32_t width,
                             uint32_t flags, uint32_t final_flag) = 0;
  // Declares a column the host fills itself (kLogField...).
  virtual void AddStandardColumn(const wchar_t* caption, uint32_t field, uint32_t width, uint32_t flags) = 0;
  // Closes the column declaration.
  virtual void EndColumns() = 0;
  // Registers a storage kind; the registration order gives its index.
  virtual uint32_t AddStorage(const char* name, const char* key, const char* third, const wchar_t* caption,
                              PelkaLogExportFn export_fn) = 0;

  // --- Storage ----------------------------------------------------------------
  virtual uint32_t GetSaveMode() = 0;
  // The storage kind at the index, or null.
  virtual IPelkaLogStorage* GetStorage(int32_t index) = 0;

  // --- Records ----------------------------------------------------------------
  virtual uint32_t IsLogEnabled() = 0;
  // A one-line summary entry beside the log's records. Time in seconds.
  virtual uint32_t AddEntry(uint64_t seconds, IPelkaFlow* flow, const wchar_t* kind, const wchar_t* summary,
                            const wchar_t* group) = 0;
  // Opens a record for the time in seconds and the flow; null when refused.
  virtual IPelkaLogRecord* NewRecord(uint64_t seconds, IPelkaFlow* flow, uint32_t reserved) = 0;
  virtual uint32_t SetDouble(IPelkaLogRecord* record, uint16_t column, double value) = 0;
  virtual uint32_t SetText(IPelkaLogRecord* record, uint16_t column, const wchar_t* value) = 0;
  virtual uint32_t SetNumber(IPelkaLogRecord* record, uint16_t column, uint64_t value) = 0;
  virtual uint32_t PostRecord(IPelkaLogRecord* record) = 0;

 protected:
  ~IPelkaLog() = default;
};

// The host's log service.
class IPelkaLogService {
 public:
  // Creates a log; 0 and *log set on success.
  virtual uint32_t CreateLog(const char* name, const wchar_t* caption, uint32_t capacity, int32_t icon,
                             IPelkaLog** log) = 0;
  // The directory under which storage kinds keep their folders; 0 on success.
  virtual uint32_t GetStorageRoot(const wchar_t** root) = 0;

 protected:
  ~IPelkaLogService() = default;
};

}  // namespace pelka
