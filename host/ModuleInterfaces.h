// The host's module-side interfaces: the module's main operation table, the
// interfaces a plug-in module implements, and the host objects it calls while
// it starts and stops.
//
// Every interface is an abstract class whose operations are declared in slot
// order. Interfaces are found by their 16-byte identifiers (see
// host/InterfaceMap.h).
#pragma once

#include <cstdint>
#include <string>

#include "host/ObjectModel.h"
#include "host/Types.h"

namespace pelka {

// Interface and service identifiers.
inline constexpr Guid kBaseModuleId = {0xE16349F5, 0x8148, 0x4AA0, {0xB8, 0xD8, 0xC1, 0x88, 0x19, 0x4D, 0x9C, 0x7F}};
inline constexpr Guid kPluginModuleId = {0xA6175692, 0x520F, 0x43BC, {0xB0, 0x3C, 0xE9, 0xEC, 0x55, 0xF3, 0x1D, 0x4C}};
inline constexpr Guid kModuleNotifyId = {0x836E4E3B, 0x7F04, 0x4F71, {0x97, 0x04, 0x7E, 0x09, 0x6F, 0xD4, 0xAD, 0x0D}};
inline constexpr Guid kFlowClientId = {0xB855215D, 0x176E, 0x48FE, {0xBC, 0x9A, 0x93, 0x98, 0xE6, 0xD7, 0x7B, 0xC4}};
inline constexpr Guid kStatClientId = {0x784FF1FF, 0x57D4, 0x4794, {0xA5, 0xE7, 0xE9, 0x33, 0x0F, 0x67, 0x71, 0x91}};
inline constexpr Guid kDiagnosisClientId = {0xB2E9B696, 0xA479, 0x438F, {0x90, 0x62, 0xB7, 0xBB, 0xA0, 0xC9, 0x73, 0x5A}};
inline constexpr Guid kIconServiceId = {0xB64B632F, 0x37FB, 0x46DC, {0xA1, 0x5C, 0x0E, 0xAD, 0x06, 0x9F, 0x78, 0x5C}};
inline constexpr Guid kLogServiceId = {0x1D75EF4F, 0xFAC8, 0x452A, {0xB1, 0x46, 0xD4, 0x02, 0x77, 0x65, 0x3B, 0x07}};

// The host object: the door to the host's services.
class IPelkaHost {
 public:
  // Non-zero, with *out filled, when the host offers the service; 0 otherwise.
  virtual int GetService(const Guid& service_id, void** out, uint32_t reserved) = 0;

 protected:
  ~IPelkaHost() = default;
};

// The host's notification object, handed to the module through SetNotify.
class IPelkaNotify {
 public:
  // Writes the directory of the resources of the module whose library handle
  // is given; the directory ends with a path separator.
  virtual void GetResourcePath(void* module_handle, std::wstring* path) = 0;

 protected:
  ~IPelkaNotify() = default;
};

class IPelkaIconService {
 public:
  // The host's index of the icon read from the file.
  virtual int32_t AddIcon(const wchar_t* path) = 0;

 protected:
  ~IPelkaIconService() = default;
};

class IPelkaStatService;
class IPelkaStatRegistrar;

// The module's main operation table (after the six object operations).
class CPAEBaseModule : public CTQObject {
 public:
  virtual const char* GetObjectName() = 0;
  virtual IPelkaHost* GetHost() = 0;
  virtual void Initialize() = 0;
  virtual uint32_t RegisterOutputs() = 0;
  // The host hands over its host object before Initialize.
  virtual void SetHost(IPelkaHost* host) = 0;
  virtual void Reserved12() = 0;
  virtual void Reserved13() = 0;
  virtual void Uninitialize() = 0;
  virtual void ResetNumbering() = 0;
  virtual uint32_t SaveOptions(std::wstring* options) = 0;
  virtual uint32_t LoadOptions(const wchar_t* options) = 0;
  virtual void Reserved18() = 0;
  virtual void Reserved19() = 0;
  virtual uint32_t Reserved20() = 0;
  virtual ~CPAEBaseModule() = default;
  virtual uint32_t Reserved22(uint32_t* out) = 0;
  virtual uint32_t Reserved23() = 0;
};

class IPelkaPluginModule {
 public:
  virtual const wchar_t* GetClassId() = 0;
  virtual const wchar_t* GetName() = 0;
  virtual const wchar_t* GetDescription() = 0;
  virtual const char* GetClassName() = 0;
  virtual uint32_t GetPluginState() = 0;
  virtual void SetPluginState(uint32_t state) = 0;

 protected:
  ~IPelkaPluginModule() = default;
};

class IPelkaModuleNotify {
 public:
  virtual void SetNotify(IPelkaNotify* notify) = 0;
  virtual IPelkaNotify* GetNotify() = 0;

 protected:
  ~IPelkaModuleNotify() = default;
};

// The statistics client. Each operation acts only when `service` is the
// statistics service the module registered with.
class IPelkaStatClient {
 public:
  // The registrar is valid only during this call.
  virtual void DefineStatistics(IPelkaStatService* service, IPelkaStatRegistrar* registrar) = 0;
  virtual void AssignStatisticIndexes(IPelkaStatService* service) = 0;
  virtual void ResetStatistics(IPelkaStatService* service) = 0;
  virtual void DetachStatistics(IPelkaStatService* service) = 0;
  virtual void UpdateStatistics(IPelkaStatService* service) = 0;

 protected:
  ~IPelkaStatClient() = default;
};

class IPelkaDiagnosisClient {
 public:
  virtual void DefineDiagnosisEvents() = 0;

 protected:
  ~IPelkaDiagnosisClient() = default;
};

}  // namespace pelka
