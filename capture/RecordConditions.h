// The user's e-mail conditions applied to the records of a host log.
//
// A posted record that does not meet the conditions leaves nothing behind:
// the log writes no line for it and exports it not, the summary entry that
// the module adds right after it for the same flow is dropped, and the ".eml"
// copy the module wrote for it beforehand (named by the record's
// email_file_path field) is removed.
//
// Records of several flows may be posted on several threads at once; the
// flows whose next entry is to be dropped are kept under a lock.
#pragma once

#include <cstdint>
#include <mutex>
#include <string_view>
#include <vector>

#include "capture/EmailConditions.h"
#include "capture/LogRecord.h"

namespace pelka {

class RecordConditions {
 public:
  // `conditions` stays the caller's and must outlive this object.
  explicit RecordConditions(const EmailConditions& conditions) : conditions_(conditions) {}

  // Notes a declared column: the first of the keys the conditions read
  // (email_attachment, email_filesize, email_sender_email,
  // email_receive_email, email_file_path) counts.
  void NoteColumn(std::string_view key, uint16_t id);

  // Whether a posted record meets the conditions. One that does not has its
  // copy removed and its flow's next summary entry marked to be dropped.
  bool Admit(const LogRecord& record);

  // Whether an entry of `flow` is to be dropped; takes the mark away.
  bool TakeEntryDrop(const IPelkaFlow* flow);

 private:
  enum Watched { kAttachments, kSize, kSender, kReceivers, kCopyPath, kWatchedCount };

  void Refuse(const LogRecord& record);

  const EmailConditions& conditions_;
  int32_t columns_[kWatchedCount] = {-1, -1, -1, -1, -1};
  std::mutex mutex_;  // guards the marks
  std::vector<const IPelkaFlow*> dropping_entry_;
};

}  // namespace pelka
