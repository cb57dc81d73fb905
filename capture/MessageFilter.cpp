#include "capture/MessageFilter.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "host/CodePage.h"
#include "host/LogInterfaces.h"

namespace pelka {
namespace {

// Column keys the conditions read.
constexpr const char* kAttachmentKey = "email_attachment";
constexpr const char* kSizeKey = "email_filesize";
constexpr const char* kSenderKey = "email_sender_email";
constexpr const char* kReceiverKey = "email_receive_email";
constexpr const char* kCopyPathKey = "email_file_path";
constexpr uint16_t kRefusedColumn = 0x8000;  // top bit: the host refused the column

enum Watched { kAttachment, kSize, kSender, kReceiver, kCopyPath, kWatchedCount };
constexpr const char* kWatchedKeys[kWatchedCount] = {kAttachmentKey, kSizeKey, kSenderKey, kReceiverKey,
                                                     kCopyPathKey};

using FieldValue = std::variant<std::wstring, uint64_t, double>;

// A record the module fills, held until it is posted.
struct HeldRecord final : IPelkaLogRecord {
  uint64_t seconds = 0;
  IPelkaFlow* flow = nullptr;
  uint32_t reserved = 0;
  std::vector<std::pair<uint16_t, FieldValue>> fields;  // in the order the module set them

  const FieldValue* Find(uint16_t column) const {
    const auto found = std::find_if(fields.rbegin(), fields.rend(), [column](const auto& f) { return f.first == column; });
    return found == fields.rend() ? nullptr : &found->second;
  }
};

class FilteringLog final : public IPelkaLog {
 public:
  FilteringLog(IPelkaLog* inner, const EmailConditions& conditions, uint64_t& dropped)
      : inner_(inner), conditions_(conditions), dropped_(dropped) {
    std::fill(std::begin(columns_), std::end(columns_), kRefusedColumn);
  }

  uint16_t AddColumn(const char* key, const wchar_t* caption, uint32_t value_kind, uint32_t width, uint32_t flags,
                     uint32_t final_flag) override {
    const uint16_t id = inner_->AddColumn(key, caption, value_kind, width, flags, final_flag);
    for (int i = 0; i < kWatchedCount; ++i) {
      if (key && std::string_view(key) == kWatchedKeys[i]) columns_[i] = id;
    }
    return id;
  }
  void AddStandardColumn(const wchar_t* caption, uint32_t field, uint32_t width, uint32_t flags) override {
    inner_->AddStandardColumn(caption, field, width, flags);
  }
  void EndColumns() override { inner_->EndColumns(); }
  uint32_t AddStorage(const char* name, const char* key, const char* third, const wchar_t* caption,
                      PelkaLogExportFn export_fn) override {
    return inner_->AddStorage(name, key, third, caption, export_fn);
  }
  uint32_t GetSaveMode() override { return inner_->GetSaveMode(); }
  IPelkaLogStorage* GetStorage(int32_t index) override { return inner_->GetStorage(index); }
  uint32_t IsLogEnabled() override { return inner_->IsLogEnabled(); }

  uint32_t AddEntry(uint64_t seconds, IPelkaFlow* flow, const wchar_t* kind, const wchar_t* summary,
                    const wchar_t* group) override {
    // The module adds a message's summary entry right after its record, on
    // the same thread.
    if (TakeDropMark()) return 0;
    return inner_->AddEntry(seconds, flow, kind, summary, group);
  }

  IPelkaLogRecord* NewRecord(uint64_t seconds, IPelkaFlow* flow, uint32_t reserved) override {
    auto record = std::make_unique<HeldRecord>();
    record->seconds = seconds;
    record->flow = flow;
    record->reserved = reserved;
    IPelkaLogRecord* handle = record.get();
    const std::lock_guard<std::mutex> lock(mutex_);
    held_.push_back(std::move(record));
    return handle;
  }
  uint32_t SetDouble(IPelkaLogRecord* record, uint16_t column, double value) override {
    return Hold(record, column, value);
  }
  uint32_t SetText(IPelkaLogRecord* record, uint16_t column, const wchar_t* value) override {
    return Hold(record, column, std::wstring(value ? value : L""));
  }
  uint32_t SetNumber(IPelkaLogRecord* record, uint16_t column, uint64_t value) override {
    return Hold(record, column, value);
  }

  uint32_t PostRecord(IPelkaLogRecord* handle) override {
    std::unique_ptr<HeldRecord> record;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      const auto found = FindHeld(handle);
      if (found == held_.end()) return kStatusNoInterface;
      record = std::move(*found);
      held_.erase(found);
    }
    TakeDropMark();
    if (ConditionsHold(conditions_, Facts(*record))) return Pass(*record);
    Drop(*record);
    return 0;
  }

 private:
  std::vector<std::unique_ptr<HeldRecord>>::iterator FindHeld(IPelkaLogRecord* handle) {
    return std::find_if(held_.begin(), held_.end(), [handle](const auto& r) { return r.get() == handle; });
  }

  uint32_t Hold(IPelkaLogRecord* handle, uint16_t column, FieldValue value) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = FindHeld(handle);
    if (found == held_.end()) return kStatusNoInterface;
    (*found)->fields.emplace_back(column, std::move(value));
    return 0;
  }

  std::wstring Text(const HeldRecord& record, Watched field) const {
    const FieldValue* value = record.Find(columns_[field]);
    const auto* text = value ? std::get_if<std::wstring>(value) : nullptr;
    return text ? *text : std::wstring();
  }

  EmailFacts Facts(const HeldRecord& record) const {
    const FieldValue* size = record.Find(columns_[kSize]);
    const auto* bytes = size ? std::get_if<uint64_t>(size) : nullptr;
    return FactsFromRecord(Text(record, kAttachment), bytes ? *bytes : 0, Text(record, kSender),
                           Text(record, kReceiver));
  }

  uint32_t Pass(const HeldRecord& record) {
    IPelkaLogRecord* real = inner_->NewRecord(record.seconds, record.flow, record.reserved);
    if (!real) return 0;
    for (const auto& [column, value] : record.fields) {
      if (const auto* text = std::get_if<std::wstring>(&value)) inner_->SetText(real, column, text->c_str());
      if (const auto* number = std::get_if<uint64_t>(&value)) inner_->SetNumber(real, column, *number);
      if (const auto* real_number = std::get_if<double>(&value)) inner_->SetDouble(real, column, *real_number);
    }
    return inner_->PostRecord(real);
  }

  // Whether this thread's next summary entry was to be dropped; clears it.
  bool TakeDropMark() {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find(dropping_.begin(), dropping_.end(), std::this_thread::get_id());
    if (found == dropping_.end()) return false;
    dropping_.erase(found);
    return true;
  }

  void Drop(const HeldRecord& record) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      ++dropped_;
      dropping_.push_back(std::this_thread::get_id());
    }
    const std::wstring copy = Text(record, kCopyPath);
    if (copy.empty()) return;
    std::error_code ignored;
    std::filesystem::remove(WideToUtf8(copy), ignored);
  }

  IPelkaLog* inner_;
  const EmailConditions& conditions_;
  uint64_t& dropped_;
  uint16_t columns_[kWatchedCount];
  // Flows may be handled on several threads: the held records and the
  // threads whose next entry is dropped are kept under one lock.
  std::mutex mutex_;
  std::vector<std::unique_ptr<HeldRecord>> held_;
  std::vector<std::thread::id> dropping_;
};

class FilteringLogService final : public IPelkaLogService {
 public:
  FilteringLogService(IPelkaLogService* inner, const EmailConditions& conditions, uint64_t& dropped)
      : inner_(inner), conditions_(conditions), dropped_(dropped) {}

  uint32_t CreateLog(const char* name, const wchar_t* caption, uint32_t capacity, int32_t icon,
                     IPelkaLog** log) override {
    IPelkaLog* real = nullptr;
    const uint32_t status = inner_->CreateLog(name, caption, capacity, icon, &real);
    if (status != 0 || !real) {
      if (log) *log = real;
      return status;
    }
    logs_.push_back(std::make_unique<FilteringLog>(real, conditions_, dropped_));
    if (log) *log = logs_.back().get();
    return status;
  }
  uint32_t GetStorageRoot(const wchar_t** root) override { return inner_->GetStorageRoot(root); }

  IPelkaLogService* inner() const { return inner_; }

 private:
  IPelkaLogService* inner_;
  const EmailConditions& conditions_;
  uint64_t& dropped_;
  std::vector<std::unique_ptr<FilteringLog>> logs_;
};

class FilteringHost final : public IPelkaHost {
 public:
  FilteringHost(IPelkaHost* inner, const EmailConditions& conditions, uint64_t& dropped)
      : inner_(inner), conditions_(conditions), dropped_(dropped) {}

  int GetService(const Guid& service_id, void** out, uint32_t reserved) override {
    const int offered = inner_->GetService(service_id, out, reserved);
    if (!offered || !out || !*out || !(service_id == kLogServiceId)) return offered;
    auto* real = static_cast<IPelkaLogService*>(*out);
    if (!service_ || service_->inner() != real)
      service_ = std::make_unique<FilteringLogService>(real, conditions_, dropped_);
    *out = static_cast<IPelkaLogService*>(service_.get());
    return offered;
  }

 private:
  IPelkaHost* inner_;
  const EmailConditions& conditions_;
  uint64_t& dropped_;
  std::unique_ptr<FilteringLogService> service_;
};

// Forwards the whole main table to the module, but gives it the filtering
// host in SetHost.
class FilteringMainTable final : public CPAEBaseModule {
 public:
  FilteringMainTable(CPAEBaseModule* module, const EmailConditions& conditions, uint64_t& dropped)
      : module_(module), conditions_(conditions), dropped_(dropped) {}

  int32_t AddRef() override { return module_->AddRef(); }
  int32_t Release() override { return module_->Release(); }
  int32_t GetRefCount() override { return module_->GetRefCount(); }
  uint32_t QueryInterface(const Guid& id, void** out) override { return module_->QueryInterface(id, out); }
  const char* GetClassName() override { return module_->GetClassName(); }
  const char* GetThreadModelName() override { return module_->GetThreadModelName(); }
  const char* GetObjectName() override { return module_->GetObjectName(); }
  IPelkaHost* GetHost() override { return module_->GetHost(); }
  void Initialize() override { module_->Initialize(); }
  uint32_t RegisterOutputs() override { return module_->RegisterOutputs(); }
  void SetHost(IPelkaHost* host) override {
    host_ = host ? std::make_unique<FilteringHost>(host, conditions_, dropped_) : nullptr;
    module_->SetHost(host_.get());
  }
  void Reserved12() override { module_->Reserved12(); }
  void Reserved13() override { module_->Reserved13(); }
  void Uninitialize() override { module_->Uninitialize(); }
  void ResetNumbering() override { module_->ResetNumbering(); }
  uint32_t SaveOptions(std::wstring* options) override { return module_->SaveOptions(options); }
  uint32_t LoadOptions(const wchar_t* options) override { return module_->LoadOptions(options); }
  void Reserved18() override { module_->Reserved18(); }
  void Reserved19() override { module_->Reserved19(); }
  uint32_t Reserved20() override { return module_->Reserved20(); }
  uint32_t Reserved22(uint32_t* out) override { return module_->Reserved22(out); }
  uint32_t Reserved23() override { return module_->Reserved23(); }

 private:
  CPAEBaseModule* module_;
  const EmailConditions& conditions_;
  uint64_t& dropped_;
  std::unique_ptr<FilteringHost> host_;
};

}  // namespace

EmailFacts FactsFromRecord(const std::wstring& attachments, uint64_t size_bytes, const std::wstring& sender,
                           const std::wstring& receivers) {
  EmailFacts facts;
  facts.has_attachments = attachments.find_first_not_of(L" ;") != std::wstring::npos;
  facts.size_bytes = size_bytes;
  facts.sender_address = sender;
  size_t start = 0;
  while (start < receivers.size()) {
    const size_t end = std::min(receivers.find_first_of(L";, \t", start), receivers.size());
    if (end > start) facts.receiver_addresses.push_back(receivers.substr(start, end - start));
    start = end + 1;
  }
  return facts;
}

class MessageFilter::Impl {
 public:
  Impl(EmailConditions conditions, CPAEBaseModule* module)
      : conditions_(std::move(conditions)), table_(module, conditions_, dropped_) {}

  EmailConditions conditions_;
  uint64_t dropped_ = 0;
  FilteringMainTable table_;
};

MessageFilter::MessageFilter(EmailConditions conditions, CPAEBaseModule* module)
    : impl_(std::make_unique<Impl>(std::move(conditions), module)) {}

MessageFilter::~MessageFilter() = default;

CPAEBaseModule* MessageFilter::main_table() { return &impl_->table_; }

uint64_t MessageFilter::dropped() const { return impl_->dropped_; }

}  // namespace pelka
