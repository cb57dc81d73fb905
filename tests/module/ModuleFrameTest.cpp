// The module as the host meets it: registration, interface lookup, reference
// counting and the options document.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/ModuleInterfaces.h"
#include "host/XmlParser.h"
#include "module/EmailModule.h"
#include "module/ModuleRegistration.h"

namespace pelka {
namespace {

// The class name, the factory and its reference counting are checked where
// the loaded library registers and runs (LibraryLifecycleTest).
struct RecordingRegistrar final : IPelkaDomRegistrar {
  uint32_t RegisterClass(const char*, CreateObjectFunction factory, const InterfaceMapRecord* map,
                         const ClassInfoRecord*, uint32_t) override {
    calls.push_back({factory, map});
    return 0;
  }
  std::vector<std::pair<CreateObjectFunction, const InterfaceMapRecord*>> calls;
};

TEST(ModuleRegistration, OnlyTheSupportedFrameworkVersionRegisters) {
  struct Case {
    uint32_t version, subversion, result;
    size_t calls;
  } cases[] = {{1024, 768, 0, 1}, {1024, 767, 1, 0}, {1023, 768, 1, 0}, {768, 1024, 1, 0}, {0, 0, 1, 0}};
  for (const Case& c : cases) {
    RecordingRegistrar registrar;
    EXPECT_EQ(RegisterEmailModule(c.version, c.subversion, &registrar), c.result) << c.version << "/" << c.subversion;
    ASSERT_EQ(registrar.calls.size(), c.calls);
    if (c.calls == 0) continue;
    EXPECT_EQ(registrar.calls[0].first, &CreateEmailModule);
    EXPECT_EQ(registrar.calls[0].second, CPelkaEmailModule::InterfaceMap());
  }
  EXPECT_EQ(CreateEmailModule(nullptr), kStatusMissingOutParameter);
}

TEST(ModuleInterfaces, EveryInterfaceIsFoundFromTheMainTable) {
  CPelkaEmailModule module;
  CPAEBaseModule* main_table = &module;
  struct Case {
    const Guid* id;
    void* expected;
  } cases[] = {
      {&kBaseModuleId, static_cast<CPAEBaseModule*>(&module)},
      {&kPluginModuleId, static_cast<IPelkaPluginModule*>(&module)},
      {&kModuleNotifyId, static_cast<IPelkaModuleNotify*>(&module)},
      {&kFlowClientId, static_cast<IPelkaFlowClient*>(&module)},
      {&kStatClientId, static_cast<IPelkaStatClient*>(&module)},
      {&kDiagnosisClientId, static_cast<IPelkaDiagnosisClient*>(&module)},
  };
  for (const Case& c : cases) {
    void* found = nullptr;
    EXPECT_EQ(main_table->QueryInterface(*c.id, &found), kStatusOk);
    EXPECT_EQ(found, c.expected);
  }
  void* found = &module;
  EXPECT_EQ(main_table->QueryInterface(kIconServiceId, &found), kStatusNoInterface);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(main_table->QueryInterface(kFlowClientId, nullptr), kStatusMissingOutParameter);
}

std::wstring SavedAttribute(CPelkaEmailModule& module) {
  std::wstring document;
  EXPECT_EQ(module.SaveOptions(&document), 1u);
  CTQXmlParser parser;
  EXPECT_TRUE(parser.SetDoc(document.c_str()));
  EXPECT_TRUE(parser.FindElem(L"options"));
  return parser.GetAttrib(L"max_flow_length");
}

TEST(ModuleOptions, SavedInWholeMebibytes) {
  CPelkaEmailModule module;
  EXPECT_EQ(SavedAttribute(module), L"2") << "the default is 2 MiB";
  module.set_max_flow_length(3 * 1048576 + 12345);
  EXPECT_EQ(SavedAttribute(module), L"3");
  module.set_max_flow_length(1000);
  EXPECT_EQ(SavedAttribute(module), L"0");
}

TEST(ModuleOptions, LoadReadsTheNumberLeniently) {
  struct Case {
    const wchar_t* document;
    uint32_t result;
    uint32_t bytes;
  } cases[] = {
      {L"<options max_flow_length=\"5\"/>", 1, 5 * 1048576},
      {L"<options max_flow_length=\"0\"/>", 1, 0},
      {L"<options max_flow_length=\" +7abc\"/>", 1, 7 * 1048576},
      {L"<options max_flow_length=\"abc\"/>", 1, 0},
      {L"<options/>", 1, 0},
      {L"<options max_flow_length=\"-3\"/>", 1, 0},                // negative counts nothing
      {L"<options max_flow_length=\"5000\"/>", 1, 0xFFFFFFFFu},    // beyond 32 bits: the largest count
      {L"<settings max_flow_length=\"5\"/>", 0, 42},
      {L"not xml", 0, 42},
      {L"", 0, 42},
  };
  for (const Case& c : cases) {
    CPelkaEmailModule module;
    module.set_max_flow_length(42);
    EXPECT_EQ(module.LoadOptions(c.document), c.result) << c.document;
    EXPECT_EQ(module.max_flow_length(), c.bytes) << c.document;
  }
  CPelkaEmailModule module;
  EXPECT_EQ(module.LoadOptions(nullptr), 0u);
}

}  // namespace
}  // namespace pelka
