#include "capture/HostObject.h"

#include "host/CodePage.h"
#include "host/DiagnosisInterfaces.h"
#include "host/StatInterfaces.h"

namespace pelka {

HostNotify::HostNotify(std::string resource_dir) : resource_dir_(Utf8ToWideText(resource_dir)) {
  if (!resource_dir_.empty() && resource_dir_.back() != L'/') resource_dir_ += L'/';
}

void HostNotify::GetResourcePath(void*, std::wstring* path) {
  if (path) *path = resource_dir_;
}

int32_t HostIconService::AddIcon(const wchar_t* path) {
  icons_.emplace_back(path ? path : L"");
  return static_cast<int32_t>(icons_.size() - 1);
}

int HostObject::GetService(const Guid& service_id, void** out, uint32_t) {
  if (!out) return 0;
  void* service = nullptr;
  if (service_id == kLogServiceId) service = services_.log;
  if (service_id == kDiagnosisServiceId) service = services_.diagnosis;
  if (service_id == kStatServiceId) service = services_.statistics;
  if (service_id == kIconServiceId) service = services_.icon;
  if (!service) return 0;
  *out = service;
  return 1;
}

}  // namespace pelka
