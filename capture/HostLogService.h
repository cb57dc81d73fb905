// The host's log service: the logs the module creates, and the storage root
// its copies go under.
//
// One set of output files: only the first log writes them; later logs are
// kept so that the module's calls land somewhere, but write nothing. The
// storage root is the output directory.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "capture/EmailConditions.h"
#include "capture/HostLog.h"
#include "host/LogInterfaces.h"

namespace pelka {

class HostLogService final : public IPelkaLogService {
 public:
  // `storage_root`: directory ending with '/'. `conditions` (null: none)
  // and `store` (null: copies stay where the module writes them) stay the
  // caller's and must outlive the service.
  HostLogService(LogOutputs outputs, std::string storage_root, bool copies,
                 const EmailConditions* conditions = nullptr, CopyStore* store = nullptr);
  ~HostLogService();
  HostLogService(const HostLogService&) = delete;
  HostLogService& operator=(const HostLogService&) = delete;

  uint32_t CreateLog(const char* name, const wchar_t* caption, uint32_t capacity, int32_t icon,
                     IPelkaLog** log) override;
  uint32_t GetStorageRoot(const wchar_t** root) override;

  // Exports what is still pending of every log.
  void Finish();
  // The output files were replaced by new ones in another folder: copies go
  // under `storage_root` from now on, and the export files get their header
  // line again. Only between packets.
  void StartNewFolder(std::string storage_root);

  // Sums over the logs (HostLog::records() and the others).
  uint64_t records() const;
  std::map<std::string, uint64_t> records_by_protocol() const;
  uint64_t entries() const;
  uint64_t copies() const;

 private:
  LogOutputs outputs_;
  std::wstring storage_root_;
  bool copies_;
  const EmailConditions* conditions_;
  CopyStore* store_;
  std::vector<std::unique_ptr<HostLog>> logs_;
};

}  // namespace pelka
