#include "capture/AttachmentTaker.h"

#include <algorithm>
#include <thread>

#include "capture/JsonText.h"

namespace pelka {
namespace {

// Threads to take attachments with: typing and hashing each file is most
// of a run's work with --attachments, and spreads well; a few are enough.
constexpr unsigned kMaxThreads = 4;

unsigned TakingThreads() { return std::clamp(std::thread::hardware_concurrency(), 1u, kMaxThreads); }

}  // namespace

std::unique_ptr<AttachmentTaker> AttachmentTaker::Open(const std::string& out_dir, const IocHashes* iocs,
                                                       AttachmentSink* sink, std::string* error) {
  std::unique_ptr<ContentTypeDetector> detector = ContentTypeDetector::Open(error);
  if (!detector) return nullptr;
  std::unique_ptr<AttachmentStore> store = AttachmentStore::Open(out_dir, error);
  if (!store) return nullptr;
  std::unique_ptr<AttachmentTaker> taker(new AttachmentTaker(std::move(store), iocs, sink));
  if (!taker->file_.Open(out_dir + kFileName)) {
    *error = taker->file_.error();
    return nullptr;
  }
  taker->detectors_.push_back(std::move(detector));
  return taker;
}

AttachmentTaker::AttachmentTaker(std::unique_ptr<AttachmentStore> store, const IocHashes* iocs, AttachmentSink* sink)
    : store_(std::move(store)),
      iocs_(iocs),
      sink_(sink),
      queue_(
          TakingThreads(), [this](const QueuedMessage& message) { return Take(message); },
          [this](const TakenMessage& taken) { Emit(taken); }) {}

AttachmentTaker::~AttachmentTaker() = default;

void AttachmentTaker::Queue(uint64_t email_number, std::string message) {
  queue_.Push(email_number, std::move(message));
}

void AttachmentTaker::Finish() { queue_.Finish(); }

TakenMessage AttachmentTaker::Take(const QueuedMessage& message) {
  const MessageParts parts = TakeMessageParts(message.bytes);
  TakenMessage taken;
  taken.cuts = parts.cuts;
  taken.rows.reserve(parts.parts.size());
  for (const MessagePart& part : parts.parts) taken.rows.push_back(Describe(message.email_number, part));
  return taken;
}

void AttachmentTaker::Emit(const TakenMessage& taken) {
  Count(taken.cuts);
  for (const AttachmentRow& row : taken.rows) WriteRow(row);
}

AttachmentRow AttachmentTaker::Describe(uint64_t email_number, const MessagePart& part) {
  AttachmentRow row;
  row.email_number = email_number;
  row.part_index = part.index;
  row.file_name = part.file_name;
  row.declared_type = part.declared_type;
  row.size = part.content.size();
  row.hashes = HashBytes(part.content);
  row.detected_type = DetectType(row.hashes.sha256, part.content);
  row.type_mismatch = TypesDisagree(row.declared_type, row.detected_type);
  row.ioc_match = iocs_ && iocs_->Matches(row.hashes);
  row.stored_path = store_->Store(row.hashes.sha256, part.content);
  return row;
}

void AttachmentTaker::WriteRow(const AttachmentRow& row) {
  found_.fetch_add(1, std::memory_order_relaxed);
  if (row.type_mismatch) mismatches_.fetch_add(1, std::memory_order_relaxed);
  if (row.ioc_match) ioc_matches_.fetch_add(1, std::memory_order_relaxed);
  JsonObjectLine line;
  line.Number("email_number", row.email_number);
  line.Number("part", row.part_index);
  line.Text("file_name", row.file_name);
  line.Text("declared_type", row.declared_type);
  line.Text("detected_type", row.detected_type);
  line.Number("size", row.size);
  line.Text("md5", row.hashes.md5);
  line.Text("sha1", row.hashes.sha1);
  line.Text("sha256", row.hashes.sha256);
  line.Raw("type_mismatch", row.type_mismatch ? "true" : "false");
  line.Raw("ioc_match", row.ioc_match ? "true" : "false");
  line.Text("stored_path", row.stored_path);
  file_.WriteLine(line.Finish());
  if (sink_) sink_->OnAttachment(row);
}

void AttachmentTaker::Count(const PartCuts& cuts) {
  too_deep_.fetch_add(cuts.too_deep, std::memory_order_relaxed);
  too_many_.fetch_add(cuts.too_many, std::memory_order_relaxed);
  too_big_.fetch_add(cuts.too_big, std::memory_order_relaxed);
  malformed_.fetch_add(cuts.malformed, std::memory_order_relaxed);
}

std::string AttachmentTaker::DetectType(const std::string& sha256, std::span<const char> content) {
  {
    const std::lock_guard<std::mutex> lock(detectors_mutex_);
    if (const auto known = known_types_.find(sha256); known != known_types_.end()) return known->second;
  }
  // The detector is held only while it looks at the bytes; a thread that
  // finds none idle makes one, so there are as many as threads at once.
  std::unique_ptr<ContentTypeDetector> detector = TakeDetector();
  std::string type = detector ? detector->Detect(content) : "application/octet-stream";
  if (!detector) return type;
  ReturnDetector(std::move(detector));
  const std::lock_guard<std::mutex> lock(detectors_mutex_);
  if (known_types_.size() < kKnownTypes) known_types_.emplace(sha256, type);
  return type;
}

std::unique_ptr<ContentTypeDetector> AttachmentTaker::TakeDetector() {
  {
    const std::lock_guard<std::mutex> lock(detectors_mutex_);
    if (!detectors_.empty()) {
      std::unique_ptr<ContentTypeDetector> detector = std::move(detectors_.back());
      detectors_.pop_back();
      return detector;
    }
  }
  std::string error;
  return ContentTypeDetector::Open(&error);
}

void AttachmentTaker::ReturnDetector(std::unique_ptr<ContentTypeDetector> detector) {
  const std::lock_guard<std::mutex> lock(detectors_mutex_);
  detectors_.push_back(std::move(detector));
}

AttachmentTally AttachmentTaker::tally() const {
  AttachmentTally tally;
  tally.found = found_.load(std::memory_order_relaxed);
  tally.stored = store_->stored();
  tally.duplicates = store_->duplicates();
  tally.mismatches = mismatches_.load(std::memory_order_relaxed);
  tally.ioc_matches = ioc_matches_.load(std::memory_order_relaxed);
  tally.too_deep = too_deep_.load(std::memory_order_relaxed);
  tally.too_many = too_many_.load(std::memory_order_relaxed);
  tally.too_big = too_big_.load(std::memory_order_relaxed);
  tally.malformed = malformed_.load(std::memory_order_relaxed);
  tally.unreadable = unreadable_.load(std::memory_order_relaxed);
  tally.store_failures = store_->failures();
  tally.first_store_failure = store_->first_failure();
  return tally;
}

std::vector<std::pair<const char*, uint64_t>> AttachmentTaker::Figures() const {
  const AttachmentTally t = tally();
  return {{"Found", t.found},         {"Stored", t.stored},         {"Duplicates", t.duplicates},
          {"TypeMismatches", t.mismatches}, {"IocMatches", t.ioc_matches}, {"TooDeep", t.too_deep},
          {"TooManyParts", t.too_many},  {"TooBig", t.too_big},        {"Malformed", t.malformed}};
}

bool AttachmentTaker::GiveTo(uid_t uid, gid_t gid, std::string* error) {
  if (!file_.GiveTo(uid, gid)) {
    *error = file_.error();
    return false;
  }
  // The files are written once the run is the account: the folder must be its.
  return store_->GiveTo(uid, gid, error);
}

bool AttachmentTaker::Writable(std::string* error) const { return store_->Writable(error); }

}  // namespace pelka
