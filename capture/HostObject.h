// The host object and the small host services around it: the notification
// object that tells the module where its resources are, and the icon service.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/ModuleInterfaces.h"

namespace pelka {

class IPelkaLogService;
class IPelkaDiagnosisService;
class IPelkaStatService;

// Answers the resource directory the program chose for every module handle.
// The directory ends with '/'; an empty one means "no resources": the module
// then finds no string table.
class HostNotify final : public IPelkaNotify {
 public:
  explicit HostNotify(std::string resource_dir);
  void GetResourcePath(void* module_handle, std::wstring* path) override;

 private:
  std::wstring resource_dir_;
};

// Accepts any icon path; the index counts the icons added.
class HostIconService final : public IPelkaIconService {
 public:
  int32_t AddIcon(const wchar_t* path) override;
  const std::vector<std::wstring>& icons() const { return icons_; }

 private:
  std::vector<std::wstring> icons_;
};

// Hands out the services it was given; a null service is not offered.
class HostObject final : public IPelkaHost {
 public:
  struct Services {
    IPelkaLogService* log = nullptr;
    IPelkaDiagnosisService* diagnosis = nullptr;
    IPelkaStatService* statistics = nullptr;
    IPelkaIconService* icon = nullptr;
  };

  explicit HostObject(Services services) : services_(services) {}
  int GetService(const Guid& service_id, void** out, uint32_t reserved) override;

 private:
  Services services_;
};

}  // namespace pelka
