// CEmailRecordWriter: the email log and what goes into it.
//
// It defines the email log "email_flow" with its columns and its two storage
// kinds ("log_email" with the export lines of output/EmailLogExport.h, and
// "email_copy"), and for every finished message that qualifies it writes the
// ".eml" copy (output/EmailCopy.h) and posts the numbered record with its
// "%s To %s" summary entry. Without a log service or an email log both steps
// do nothing.
#pragma once

#include <atomic>
#include <cstdint>

#include "flow/EmailFlowContext.h"
#include "host/FlowInterfaces.h"
#include "host/TextSource.h"
#include "output/EmailLogColumns.h"

namespace pelka {

class IPelkaLog;
class IPelkaLogService;

// Identifier of a column the host has not given one.
constexpr uint16_t kNoColumn = 0xFFFF;

class CEmailRecordWriter {
 public:
  explicit CEmailRecordWriter(ITextSource& texts);
  CEmailRecordWriter(const CEmailRecordWriter&) = delete;
  CEmailRecordWriter& operator=(const CEmailRecordWriter&) = delete;

  IPelkaLogService* log_service() const { return log_service_; }
  void set_log_service(IPelkaLogService* service) { log_service_ = service; }
  IPelkaLog* email_log() const { return email_log_; }

  // Creates the email log with the icon, its columns and identifiers, and
  // registers its two storage kinds.
  void DefineEmailLog(int32_t icon_index);

  // Writes the message's copy and leaves its path in the context's copy_path
  // when the log is saving and its "Email Copy" storage is on.
  void SaveEmailCopy(CEmailFlowContext* context, const PacketRecord* packet);
  // Posts one record for a finished message, numbered from 1, and its summary.
  void PostEmailRecord(IPelkaFlow* flow, CEmailFlowContext& context, IPelkaFlowNode* node);

  // The next record is number 1 again.
  void ResetNumbering() { email_number_.store(0); }
  uint64_t last_email_number() const { return email_number_.load(); }

 private:
  ITextSource& texts_;
  IPelkaLogService* log_service_ = nullptr;
  IPelkaLog* email_log_ = nullptr;
  uint16_t column_ids_[kEmailLogColumnCount];
  // Atomic so that flows analysed on several threads still number their
  // records uniquely.
  std::atomic<uint64_t> email_number_{0};
};

}  // namespace pelka
