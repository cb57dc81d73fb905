// --attachments: the attachments of every recorded message taken out of its
// ".eml" copy, hashed, typed from their bytes, stored once by content under
// attachments/ and listed in attachments.jsonl (and, through the sink, the
// database).
//
// The thread that posts a record queues its copy right after placing it
// (capture/HostLog.h); the taker's own thread then parses, hashes, types
// and stores, beside the analysis, one message at a time in the order they
// were queued. Memory is bounded by the largest message: one message's
// bytes and parts are held at a time, and the queue holds paths, bounded
// (capture/AttachmentQueue.h). Finish waits for the queue before the run's
// figures are read.
//
// attachments.jsonl, one line per attachment: {"email_number", "part",
// "file_name", "declared_type", "detected_type", "size", "md5", "sha1",
// "sha256", "type_mismatch", "ioc_match", "stored_path"}.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "capture/AttachmentQueue.h"
#include "capture/AttachmentRow.h"
#include "capture/AttachmentStore.h"
#include "capture/ContentTypeDetector.h"
#include "capture/IocHashes.h"
#include "capture/MessageParts.h"
#include "capture/OutputFiles.h"

namespace pelka {

// Where the rows go beside attachments.jsonl (the run's database).
class AttachmentSink {
 public:
  virtual ~AttachmentSink() = default;
  virtual void OnAttachment(const AttachmentRow& row) = 0;
};

class AttachmentTaker {
 public:
  static constexpr char kFileName[] = "attachments.jsonl";

  // Opens <out_dir>attachments/ and <out_dir>attachments.jsonl (`out_dir`
  // absolute, ending with '/'). `iocs` (null: none) and `sink` (null: none)
  // stay the caller's. Null with `error` set when either cannot be made.
  static std::unique_ptr<AttachmentTaker> Open(const std::string& out_dir, const IocHashes* iocs,
                                               AttachmentSink* sink, std::string* error);
  ~AttachmentTaker();
  AttachmentTaker(const AttachmentTaker&) = delete;
  AttachmentTaker& operator=(const AttachmentTaker&) = delete;

  // Queues the copy `copy_path` (absolute) of the message `email_number`
  // for the taker's thread, which removes it once read when `delete_after`.
  // Waits while the queue is full. Safe from several threads.
  void Queue(uint64_t email_number, const std::string& copy_path, bool delete_after);
  // Waits until every queued message is taken.
  void Finish();
  // Takes the attachments of the message `email_number` whose copy is the
  // file `copy_path` (absolute), on the caller's thread. Safe from several
  // threads.
  void TakeFromCopy(uint64_t email_number, const std::string& copy_path);
  // The same over the message's bytes.
  void TakeFromMessage(uint64_t email_number, std::span<const char> message);

  AttachmentTally tally() const;
  // The tally as the counters of statistics.json's "Capture": {"Attachments": {...}}.
  std::vector<std::pair<const char*, uint64_t>> Figures() const;
  // --user: gives attachments.jsonl and the folder to the account.
  bool GiveTo(uid_t uid, gid_t gid, std::string* error);
  // Whether the files can be stored by the user the run is now.
  bool Writable(std::string* error) const;
  OutputFile& file() { return file_; }

 private:
  AttachmentTaker(std::unique_ptr<AttachmentStore> store, const IocHashes* iocs, AttachmentSink* sink);
  AttachmentRow Describe(uint64_t email_number, const MessagePart& part);
  void WriteRow(const AttachmentRow& row);
  void Count(const PartCuts& cuts);
  std::unique_ptr<ContentTypeDetector> TakeDetector();
  void ReturnDetector(std::unique_ptr<ContentTypeDetector> detector);

  std::unique_ptr<AttachmentStore> store_;
  const IocHashes* iocs_;
  AttachmentSink* sink_;
  OutputFile file_;

  std::mutex detectors_mutex_;  // guards the detectors no thread holds now
  std::vector<std::unique_ptr<ContentTypeDetector>> detectors_;

  std::atomic<uint64_t> found_{0}, mismatches_{0}, ioc_matches_{0}, unreadable_{0};
  std::atomic<uint64_t> too_deep_{0}, too_many_{0}, too_big_{0}, malformed_{0};
  // Last, so that its thread ends before anything it uses.
  AttachmentQueue queue_;
};

}  // namespace pelka
