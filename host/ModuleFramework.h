// The host framework's class templates for a plug-in module.
//
// A module class derives from a stack of templates, each taking the level
// below it as its base and adding one host interface with default operations:
//
//   CPAEBaseModuleImpl                      main table (CPAEBaseModule)
//   CPelkaPluginModuleImplT<...>            IPelkaPluginModule
//   CPelkaModuleNotifyImplT<...>            IPelkaModuleNotify
//   CPelkaFlowClientImplT<...>              IPelkaFlowClient
//   CPelkaStatClientImplT<...>              IPelkaStatClient
//   CPelkaDiagnosisClientImplT<...>         IPelkaDiagnosisClient
//   CPelkaGraphClientImplT<...>             (no interface for this module)
//
// Every level keeps the level below at offset 0, so the main table is the
// object's address, and keeps its own interface map record whose base is the
// record below it: a lookup from any level sees that level and all below.
#pragma once

#include <cstdint>
#include <string>

#include "host/FlowInterfaces.h"
#include "host/InterfaceMap.h"
#include "host/ModuleInterfaces.h"
#include "host/StatInterfaces.h"

namespace pelka {

class CPAEBaseModuleImpl : public CTQObjectImplT<CPAEBaseModule, CTQMultiThreadModel> {
 public:
  const char* GetObjectName() override { return GetClassName(); }
  IPelkaHost* GetHost() override { return host_; }
  void Initialize() override {}
  uint32_t RegisterOutputs() override { return 1; }
  void SetHost(IPelkaHost* host) override { host_ = host; }
  void Reserved12() override {}
  void Reserved13() override {}
  void Uninitialize() override {}
  void ResetNumbering() override {}
  uint32_t SaveOptions(std::wstring* options) override {
    if (options) options->clear();
    return 1;
  }
  uint32_t LoadOptions(const wchar_t*) override { return 1; }
  void Reserved18() override {}
  void Reserved19() override {}
  uint32_t Reserved20() override { return 2; }
  uint32_t Reserved22(uint32_t* out) override {
    if (out) *out = 0;
    return kStatusNotImplemented;
  }
  uint32_t Reserved23() override { return 0; }

  uint32_t QueryInterface(const Guid& interface_id, void** out) override {
    return DomInternalQueryInterface(InterfaceMap(), interface_id, static_cast<CPAEBaseModule*>(this), out);
  }
  static const InterfaceMapRecord* InterfaceMap() {
    static const InterfaceMapEntry entries[] = {{&kBaseModuleId, 0, L"CPAEBaseModule"},
                                                {nullptr, kEndOfEntries, nullptr}};
    static const InterfaceMapRecord record = {nullptr, 0, entries};
    return &record;
  }

 protected:
  IPelkaHost* host_ = nullptr;
};

// Defines the level's map record: one entry for `Interface`, based on the
// record of `Base`.
#define PELKA_LEVEL_INTERFACE_MAP(Self, Interface, interface_id, name)                                        \
  uint32_t QueryInterface(const Guid& id, void** out) override {                                            \
    return DomInternalQueryInterface(InterfaceMap(), id, static_cast<CPAEBaseModule*>(this), out);          \
  }                                                                                                         \
  static const InterfaceMapRecord* InterfaceMap() {                                                         \
    static const InterfaceMapEntry entries[] = {{&(interface_id), InterfaceOffset<Self, Interface>(), name}, \
                                                {nullptr, kEndOfEntries, nullptr}};                         \
    static const InterfaceMapRecord record = {Base::InterfaceMap(), 0, entries};                            \
    return &record;                                                                                         \
  }

template <typename Base>
class CPelkaPluginModuleImplT : public Base, public IPelkaPluginModule {
 public:
  PELKA_LEVEL_INTERFACE_MAP(CPelkaPluginModuleImplT, IPelkaPluginModule, kPluginModuleId, L"IPelkaPluginModule")

  const char* GetClassName() override { return Base::GetClassName(); }
  const wchar_t* GetClassId() override { return L""; }
  const wchar_t* GetName() override { return L""; }
  const wchar_t* GetDescription() override { return L""; }
  uint32_t GetPluginState() override { return plugin_state_; }
  void SetPluginState(uint32_t state) override { plugin_state_ = state; }

 protected:
  uint32_t plugin_state_ = 1;
  // Texts of the framework; the module does not use them.
  std::wstring framework_text_[2];
};

template <typename Base>
class CPelkaModuleNotifyImplT : public Base, public IPelkaModuleNotify {
 public:
  PELKA_LEVEL_INTERFACE_MAP(CPelkaModuleNotifyImplT, IPelkaModuleNotify, kModuleNotifyId, L"IPelkaModuleNotify")

  void SetNotify(IPelkaNotify* notify) override { host_notify_ = notify; }
  IPelkaNotify* GetNotify() override { return host_notify_; }

 protected:
  IPelkaNotify* host_notify_ = nullptr;
};

template <typename Base>
class CPelkaFlowClientImplT : public Base, public IPelkaFlowClient {
 public:
  PELKA_LEVEL_INTERFACE_MAP(CPelkaFlowClientImplT, IPelkaFlowClient, kFlowClientId, L"IPelkaFlowClient")

  uint32_t BindFlow(IPelkaFlow*, IPelkaFlowStats*, IPelkaFlowBindContext**) override { return 1; }
  uint32_t UnbindFlow(IPelkaFlow*, IPelkaFlowStats*, IPelkaFlowNode*, IPelkaFlowBindContext*) override { return 0; }
  uint32_t ProcessFlowData(IPelkaFlow*, const PacketRecord*, const uint8_t*, uint32_t, uint32_t, IPelkaFlowNode*,
                           IPelkaFlowBindContext*) override {
    return 1;
  }
};

// Adds the statistics client. Its operations act only for the service the
// module registered with, and hand the call on to the main table's
// statistics operations, which the module overrides.
template <typename Base>
class CPelkaStatClientImplT : public Base, public IPelkaStatClient {
 public:
  PELKA_LEVEL_INTERFACE_MAP(CPelkaStatClientImplT, IPelkaStatClient, kStatClientId, L"IPelkaStatClient")

  void DefineStatistics(IPelkaStatService* service, IPelkaStatRegistrar* registrar) override {
    if (service && service == stat_service_) OnDefineStatistics(registrar);
  }
  void AssignStatisticIndexes(IPelkaStatService* service) override {
    if (service && service == stat_service_) OnAssignStatisticIndexes();
  }
  void ResetStatistics(IPelkaStatService* service) override {
    if (service && service == stat_service_) OnResetStatistics();
  }
  void DetachStatistics(IPelkaStatService* service) override {
    if (service && service == stat_service_) OnDetachStatistics();
  }
  void UpdateStatistics(IPelkaStatService* service) override {
    if (service && service == stat_service_) OnUpdateStatistics();
  }

  // Main-table operations 24 to 28.
  virtual void OnDefineStatistics(IPelkaStatRegistrar*) {}
  virtual void OnAssignStatisticIndexes() {}
  virtual void OnResetStatistics() {}
  virtual void OnDetachStatistics() {}
  virtual void OnUpdateStatistics() {}

  void Initialize() override {
    RegisterStatisticsClient();
    Base::Initialize();
  }
  void Uninitialize() override {
    WithdrawStatisticsClient();
    Base::Uninitialize();
  }

 protected:
  void RegisterStatisticsClient() {
    IPelkaStatService* service = nullptr;
    IPelkaHost* host = this->GetHost();
    if (!host || !host->GetService(kStatServiceId, reinterpret_cast<void**>(&service), 0) || !service) return;
    service->RegisterClient(this);
    stat_service_ = service;
  }
  void WithdrawStatisticsClient() {
    IPelkaStatService* service = nullptr;
    IPelkaHost* host = this->GetHost();
    if (!host || !host->GetService(kStatServiceId, reinterpret_cast<void**>(&service), 0) || !service) return;
    service->WithdrawClient(this);
    stat_service_ = nullptr;
  }

  IPelkaStatService* stat_service_ = nullptr;
};

template <typename Base>
class CPelkaDiagnosisClientImplT : public Base, public IPelkaDiagnosisClient {
 public:
  PELKA_LEVEL_INTERFACE_MAP(CPelkaDiagnosisClientImplT, IPelkaDiagnosisClient, kDiagnosisClientId,
                            L"IPelkaDiagnosisClient")

  void DefineDiagnosisEvents() override {}
};

// Adds no interface to this module; its lookups start at the level below.
template <typename Base>
class CPelkaGraphClientImplT : public Base {};

#undef PELKA_LEVEL_INTERFACE_MAP

}  // namespace pelka
