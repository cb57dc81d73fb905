// The shared library as the capture host uses it: loaded with dlopen, driven
// only through RegisterDomObjects, the factory and the interfaces, against
// in-memory host services, from Initialize to the last Release.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/DiagnosisInterfaces.h"
#include "host/InterfaceMap.h"
#include "host/LogInterfaces.h"
#include "host/ModuleInterfaces.h"
#include "host/StatInterfaces.h"
#include "support/FakeFlow.h"
#include "support/InMemoryDiagnosis.h"
#include "support/InMemoryLog.h"
#include "support/InMemoryStats.h"

namespace pelka {
namespace {

using RegisterFunction = uint32_t (*)(uint32_t, uint32_t, IPelkaDomRegistrar*);

struct SingleClassRegistrar final : IPelkaDomRegistrar {
  uint32_t RegisterClass(const char* name, CreateObjectFunction create, const InterfaceMapRecord*,
                         const ClassInfoRecord*, uint32_t) override {
    class_name = name;
    factory = create;
    return 0;
  }
  std::string class_name;
  CreateObjectFunction factory = nullptr;
};

struct IconService final : IPelkaIconService {
  int32_t AddIcon(const wchar_t* path) override {
    paths.push_back(path);
    return 3;
  }
  std::vector<std::wstring> paths;
};

struct ResourceNotify final : IPelkaNotify {
  void GetResourcePath(void* handle, std::wstring* path) override {
    handles.push_back(handle);
    const std::string directory = PELKA_SOURCE_DIR "/resources/en/";
    path->assign(directory.begin(), directory.end());
  }
  std::vector<void*> handles;
};

struct Host final : IPelkaHost {
  int GetService(const Guid& id, void** out, uint32_t) override {
    if (id == kLogServiceId) *out = static_cast<IPelkaLogService*>(&log);
    else if (id == kStatServiceId) *out = static_cast<IPelkaStatService*>(&stats);
    else if (id == kDiagnosisServiceId) *out = static_cast<IPelkaDiagnosisService*>(&diagnosis);
    else if (id == kIconServiceId) *out = static_cast<IPelkaIconService*>(&icons);
    else return 0;
    return 1;
  }
  testing::InMemoryLogService log;
  testing::InMemoryStats stats;
  testing::InMemoryDiagnosisService diagnosis;
  IconService icons;
};

template <typename Interface>
Interface* Find(CPAEBaseModule* module, const Guid& id) {
  void* found = nullptr;
  return module->QueryInterface(id, &found) == kStatusOk ? static_cast<Interface*>(found) : nullptr;
}

class LibraryLifecycleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    library_ = dlopen(PELKA_BINARY_DIR "/libPelkaEmail.so", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library_, nullptr) << dlerror();
    register_ = reinterpret_cast<RegisterFunction>(dlsym(library_, "RegisterDomObjects"));
    ASSERT_NE(register_, nullptr);
  }
  void TearDown() override {
    if (library_) dlclose(library_);
  }
  void* library_ = nullptr;
  RegisterFunction register_ = nullptr;
};

TEST_F(LibraryLifecycleTest, ExportsOnlyTheRegistrationFunction) {
  EXPECT_EQ(dlsym(library_, "CreateEmailModule"), nullptr);
  EXPECT_EQ(dlsym(library_, "_ZN5pelka17CreateEmailModuleEPPv"), nullptr);
  SingleClassRegistrar refused;
  EXPECT_EQ(register_(1024, 767, &refused), 1u);
  EXPECT_EQ(refused.factory, nullptr);
}

TEST_F(LibraryLifecycleTest, RunsAWholeCaptureAgainstTheHostServices) {
  SingleClassRegistrar registrar;
  ASSERT_EQ(register_(1024, 768, &registrar), 0u);
  EXPECT_EQ(registrar.class_name, "CPelkaEmailModule");
  void* object = nullptr;
  ASSERT_EQ(registrar.factory(&object), kStatusOk);
  auto* module = static_cast<CPAEBaseModule*>(object);

  Host host;
  ResourceNotify notify;
  module->SetHost(&host);
  Find<IPelkaModuleNotify>(module, kModuleNotifyId)->SetNotify(&notify);
  module->Initialize();
  EXPECT_EQ(module->RegisterOutputs(), 1u);
  Find<IPelkaDiagnosisClient>(module, kDiagnosisClientId)->DefineDiagnosisEvents();
  ASSERT_EQ(host.stats.clients.size(), 1u);
  IPelkaStatClient* stat_client = host.stats.clients[0];
  EXPECT_EQ(stat_client, Find<IPelkaStatClient>(module, kStatClientId));
  stat_client->DefineStatistics(&host.stats, &host.stats);
  stat_client->AssignStatisticIndexes(&host.stats);
  EXPECT_EQ(module->LoadOptions(L"<options max_flow_length=\"1\"/>"), 1u);

  // Texts come from the English table in the resource directory.
  ASSERT_NE(host.log.log(), nullptr);
  EXPECT_EQ(host.log.log()->caption, L"Email Information");
  EXPECT_EQ(host.log.log()->icon, 3);
  ASSERT_EQ(host.icons.paths.size(), 1u);
  EXPECT_EQ(host.icons.paths[0], std::wstring(L"" PELKA_SOURCE_DIR L"/resources/en/email.ico"));
  ASSERT_FALSE(notify.handles.empty());
  EXPECT_NE(std::string(static_cast<const char*>(notify.handles[0])).find("libPelkaEmail.so"), std::string::npos)
      << "the module handle is the library's own path";
  EXPECT_EQ(host.stats.Item("SMTP")->definition.caption, L"SMTP Connections");
  EXPECT_EQ(host.diagnosis.events().size(), 6u);

  // Binding only: whole messages through the loaded library run in the
  // capture program's tests.
  IPelkaFlowClient* client = Find<IPelkaFlowClient>(module, kFlowClientId);
  testing::FakeFlow flow(0x0A000002, 40001, 0x0A000001, 25);
  testing::InMemoryFlowStats flow_stats;
  IPelkaFlowBindContext* context = nullptr;
  ASSERT_EQ(client->BindFlow(&flow, &flow_stats, &context), 0u);
  EXPECT_EQ(context->GetFlowClient(), client);
  EXPECT_EQ(flow_stats.CountOf(host.stats.IndexOf("SMTP")), 1u);
  testing::FakeFlowNode node;
  EXPECT_EQ(client->UnbindFlow(&flow, &flow_stats, &node, context), 0u);

  std::wstring options;
  EXPECT_EQ(module->SaveOptions(&options), 1u);
  EXPECT_NE(options.find(L"max_flow_length=\"1\""), std::wstring::npos);

  stat_client->DetachStatistics(&host.stats);
  module->Uninitialize();
  EXPECT_EQ(host.stats.withdrawn.size(), 1u);
  EXPECT_EQ(module->Release(), 0);
}

}  // namespace
}  // namespace pelka
