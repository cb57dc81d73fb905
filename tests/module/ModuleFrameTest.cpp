// The module as the host meets it: the shared library loaded with dlopen and
// driven through RegisterDomObjects, the factory and the interfaces against
// in-memory host services, from Initialize to the last Release; the refused
// interface look-ups; the options document.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <string>
#include <utility>
#include <vector>

#include "host/InterfaceMap.h"
#include "host/ModuleInterfaces.h"
#include "host/XmlParser.h"
#include "module/EmailModule.h"
#include "module/ModuleRegistration.h"
#include "support/InMemoryLog.h"
#include "support/InMemoryStats.h"

namespace pelka {
namespace {

using RegisterFunction = uint32_t (*)(uint32_t, uint32_t, IPelkaDomRegistrar*);

struct Host final : IPelkaHost, IPelkaDomRegistrar, IPelkaIconService, IPelkaNotify {
  int GetService(const Guid& id, void** out, uint32_t) override {
    if (id == kLogServiceId) *out = static_cast<IPelkaLogService*>(&log);
    else if (id == kStatServiceId) *out = static_cast<IPelkaStatService*>(&stats);
    else if (id == kIconServiceId) *out = static_cast<IPelkaIconService*>(this);
    else return 0;
    return 1;
  }
  uint32_t RegisterClass(const char* name, CreateObjectFunction create, const InterfaceMapRecord*,
                         const ClassInfoRecord*, uint32_t) override {
    class_name = name;
    factory = create;
    return 0;
  }
  int32_t AddIcon(const wchar_t* path) override {
    icon_path = path;
    return 3;
  }
  void GetResourcePath(void* handle, std::wstring* path) override {
    module_handle = handle;
    const std::string directory = PELKA_SOURCE_DIR "/resources/en/";
    path->assign(directory.begin(), directory.end());
  }

  testing::InMemoryLogService log;
  testing::InMemoryStats stats;
  std::string class_name;
  CreateObjectFunction factory = nullptr;
  std::wstring icon_path;
  void* module_handle = nullptr;
};

TEST(LibraryLifecycle, RunsFromRegistrationToTheLastRelease) {
  void* library = dlopen(PELKA_BINARY_DIR "/libPelkaEmail.so", RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  auto register_classes = reinterpret_cast<RegisterFunction>(dlsym(library, "RegisterDomObjects"));
  ASSERT_NE(register_classes, nullptr);
  EXPECT_EQ(dlsym(library, "_ZN5pelka17CreateEmailModuleEPPv"), nullptr) << "only the registration is exported";
  Host host;
  for (auto [version, subversion] : {std::pair{1024u, 767u}, {1023u, 768u}, {768u, 1024u}}) {
    EXPECT_EQ(register_classes(version, subversion, &host), 1u) << version << "/" << subversion;
  }
  EXPECT_EQ(host.factory, nullptr);
  ASSERT_EQ(register_classes(1024, 768, &host), 0u);
  EXPECT_EQ(host.class_name, "CPelkaEmailModule");
  void* object = nullptr;
  ASSERT_EQ(host.factory(&object), kStatusOk);
  auto* module = static_cast<CPAEBaseModule*>(object);

  module->SetHost(&host);
  void* notify = nullptr;
  ASSERT_EQ(module->QueryInterface(kModuleNotifyId, &notify), kStatusOk);
  static_cast<IPelkaModuleNotify*>(notify)->SetNotify(&host);
  module->Initialize();
  EXPECT_EQ(module->RegisterOutputs(), 1u);
  EXPECT_EQ(host.stats.clients.size(), 1u);
  // The texts come from the table of the directory named for the library's handle.
  ASSERT_NE(host.module_handle, nullptr);
  EXPECT_NE(std::string(static_cast<const char*>(host.module_handle)).find("libPelkaEmail.so"), std::string::npos);
  EXPECT_EQ(host.log.log()->caption, L"Email Information");
  EXPECT_EQ(host.log.log()->icon, 3);
  EXPECT_EQ(host.icon_path, L"" PELKA_SOURCE_DIR L"/resources/en/email.ico");

  module->Uninitialize();
  EXPECT_EQ(host.stats.withdrawn.size(), 1u);
  EXPECT_EQ(module->Release(), 0);
  dlclose(library);
}

// Every interface is looked up by the capture host through the loaded library
// in each program run; here only the refusals.
TEST(ModuleInterfaces, UnknownInterfaceOrMissingOutParameterIsRefused) {
  CPelkaEmailModule module;
  CPAEBaseModule& main_table = module;
  void* found = &module;
  EXPECT_EQ(main_table.QueryInterface(kIconServiceId, &found), kStatusNoInterface);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(main_table.QueryInterface(kFlowClientId, nullptr), kStatusMissingOutParameter);
  EXPECT_EQ(CreateEmailModule(nullptr), kStatusMissingOutParameter);
}

TEST(ModuleOptions, SavedInWholeMebibytes) {
  CPelkaEmailModule module;
  for (auto [bytes, saved] : {std::pair{2u * 1048576, L"2"}, {3 * 1048576 + 12345, L"3"}, {1000, L"0"}}) {
    module.set_max_flow_length(bytes);
    std::wstring document;
    EXPECT_EQ(module.SaveOptions(&document), 1u);
    CTQXmlParser parser;
    EXPECT_TRUE(parser.SetDoc(document.c_str()) && parser.FindElem(L"options"));
    EXPECT_EQ(parser.GetAttrib(L"max_flow_length"), saved);
  }
}

TEST(ModuleOptions, LoadReadsTheNumberLeniently) {
  struct Case { const wchar_t* document; uint32_t result, bytes; } cases[] = {
      {L"<options max_flow_length=\"5\"/>", 1, 5 * 1048576},
      {L"<options max_flow_length=\"0\"/>", 1, 0},
      {L"<options max_flow_length=\" +7abc\"/>", 1, 7 * 1048576},
      {L"<options max_flow_length=\"abc\"/>", 1, 0},
      {L"<options/>", 1, 0},
      {L"<options max_flow_length=\"-3\"/>", 1, 0},              // negative counts nothing
      {L"<options max_flow_length=\"5000\"/>", 1, 0xFFFFFFFFu},  // beyond 32 bits: the largest count
      // Read whatever encoding the declaration names.
      {L"<?xml version=\"1.0\" encoding=\"UTF-16\"?>\r\n<options max_flow_length=\"2\"/>", 1, 2 * 1048576},
      {L"<?xml version=\"1.0\" encoding=\"UTF-8\"?><options max_flow_length='2'>\n</options> ", 1, 2 * 1048576},
      {L"<settings max_flow_length=\"5\"/>", 0, 42},
      {L"not xml", 0, 42},
      {L"<options max_flow_length=\"5\"", 0, 42},
      {L"<options max_flow_length=\"5\"></b>", 0, 42},
      {L"<options max_flow_length=\"5\"/><options/>", 0, 42},  // two roots
      {L"", 0, 42},
      {nullptr, 0, 42},
  };
  for (const Case& c : cases) {
    CPelkaEmailModule module;
    module.set_max_flow_length(42);
    EXPECT_EQ(module.LoadOptions(c.document), c.result) << ::testing::PrintToString(c.document);
    EXPECT_EQ(module.max_flow_length(), c.bytes) << ::testing::PrintToString(c.document);
  }
}

}  // namespace
}  // namespace pelka
