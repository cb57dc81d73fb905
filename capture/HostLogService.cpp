#include "capture/HostLogService.h"

#include "host/CodePage.h"

namespace pelka {
namespace {

constexpr uint32_t kStatusRefused = 1;

}  // namespace

HostLogService::HostLogService(LogOutputs outputs, std::string storage_root, bool copies,
                               const EmailConditions* conditions, CopyStore* store)
    : outputs_(outputs),
      storage_root_(Utf8ToWideText(storage_root)),
      copies_(copies),
      conditions_(conditions),
      store_(store) {}

HostLogService::~HostLogService() = default;

uint32_t HostLogService::CreateLog(const char* name, const wchar_t*, uint32_t, int32_t, IPelkaLog** log) {
  if (!name || !log) return kStatusRefused;
  logs_.push_back(std::make_unique<HostLog>(logs_.empty() ? outputs_ : LogOutputs{}, copies_, conditions_,
                                            logs_.empty() ? store_ : nullptr));
  *log = logs_.back().get();
  return 0;
}

uint32_t HostLogService::GetStorageRoot(const wchar_t** root) {
  if (!root || storage_root_.empty()) return kStatusRefused;
  *root = storage_root_.c_str();
  return 0;
}

void HostLogService::Finish() {
  for (const auto& log : logs_) log->Finish();
}

void HostLogService::StartNewFolder(std::string storage_root) {
  storage_root_ = Utf8ToWideText(storage_root);
  for (const auto& log : logs_) log->RestartExport();
}

uint64_t HostLogService::records() const {
  uint64_t total = 0;
  for (const auto& log : logs_) total += log->records();
  return total;
}

std::map<std::string, uint64_t> HostLogService::records_by_protocol() const {
  std::map<std::string, uint64_t> total;
  for (const auto& log : logs_)
    for (const auto& [protocol, count] : log->records_by_protocol()) total[protocol] += count;
  return total;
}

uint64_t HostLogService::entries() const {
  uint64_t total = 0;
  for (const auto& log : logs_) total += log->entries();
  return total;
}

uint64_t HostLogService::copies() const {
  uint64_t total = 0;
  for (const auto& log : logs_) total += log->copies();
  return total;
}

}  // namespace pelka
