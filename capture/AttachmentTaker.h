// --attachments: the attachments of every recorded message taken out of
// the message the module saved, hashed, typed from their bytes, stored once
// by content under attachments/ and listed in attachments.jsonl (and,
// through the sink, the database).
//
// The thread that posts a record reads the module's copy of the message
// and queues its bytes (capture/HostLog.h); the queue's threads then parse,
// hash, type and store, beside the analysis, several messages at once, and
// the rows come out one message at a time in the order they were queued.
// Memory is bounded by the largest message: the queue holds at most 64 MiB
// of messages, or one larger than that (capture/AttachmentQueue.h). Finish
// waits for the queue before the run's figures are read.
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
#include <unordered_map>
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

  // Queues the bytes of the message `email_number` for the taker's
  // threads. Waits while the queue is full. Safe from several threads.
  void Queue(uint64_t email_number, std::string message);
  // Counts a message whose copy could not be read, whose attachments are
  // then not taken.
  void CountUnreadable() { unreadable_.fetch_add(1, std::memory_order_relaxed); }
  // Waits until every queued message is taken.
  void Finish();

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
  // On the queue's threads: the message's attachments described and stored.
  TakenMessage Take(const QueuedMessage& message);
  AttachmentRow Describe(uint64_t email_number, const MessagePart& part);
  // One message at a time, in the queue's order: its rows written and counted.
  void Emit(const TakenMessage& taken);
  void WriteRow(const AttachmentRow& row);
  void Count(const PartCuts& cuts);
  // The type detected from `content`, whose SHA-256 is `sha256`: a file seen
  // before is not looked at again.
  std::string DetectType(const std::string& sha256, std::span<const char> content);
  std::unique_ptr<ContentTypeDetector> TakeDetector();
  void ReturnDetector(std::unique_ptr<ContentTypeDetector> detector);

  std::unique_ptr<AttachmentStore> store_;
  const IocHashes* iocs_;
  AttachmentSink* sink_;
  OutputFile file_;

  std::mutex detectors_mutex_;  // guards the detectors no thread holds now
  std::vector<std::unique_ptr<ContentTypeDetector>> detectors_;
  // The detected type of each file taken so far, by SHA-256, up to a bound:
  // detection is a fixed cost per file, and a file sent to many receivers
  // (or seen once sent and again fetched) has one type.
  static constexpr size_t kKnownTypes = 16384;
  std::unordered_map<std::string, std::string> known_types_;  // guarded by detectors_mutex_

  std::atomic<uint64_t> found_{0}, mismatches_{0}, ioc_matches_{0}, unreadable_{0};
  std::atomic<uint64_t> too_deep_{0}, too_many_{0}, too_big_{0}, malformed_{0};
  // Last, so that its thread ends before anything it uses.
  AttachmentQueue queue_;
};

}  // namespace pelka
