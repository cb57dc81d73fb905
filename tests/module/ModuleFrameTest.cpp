// The module as the host meets it: interface lookup and the options document.
// Registration and the factory are checked where the loaded library runs
// (LibraryLifecycleTest).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/ModuleInterfaces.h"
#include "host/XmlParser.h"
#include "module/EmailModule.h"
#include "module/ModuleRegistration.h"

namespace pelka {
namespace {

TEST(ModuleInterfaces, EveryInterfaceIsFoundFromTheMainTable) {
  CPelkaEmailModule module;
  CPAEBaseModule* main_table = &module;
  const std::vector<std::pair<const Guid*, void*>> cases = {
      {&kBaseModuleId, main_table},
      {&kPluginModuleId, static_cast<IPelkaPluginModule*>(&module)},
      {&kModuleNotifyId, static_cast<IPelkaModuleNotify*>(&module)},
      {&kFlowClientId, static_cast<IPelkaFlowClient*>(&module)},
      {&kStatClientId, static_cast<IPelkaStatClient*>(&module)},
      {&kDiagnosisClientId, static_cast<IPelkaDiagnosisClient*>(&module)},
  };
  for (const auto& [id, expected] : cases) {
    void* found = nullptr;
    EXPECT_EQ(main_table->QueryInterface(*id, &found), kStatusOk);
    EXPECT_EQ(found, expected);
  }
  void* found = &module;
  EXPECT_EQ(main_table->QueryInterface(kIconServiceId, &found), kStatusNoInterface);
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(main_table->QueryInterface(kFlowClientId, nullptr), kStatusMissingOutParameter);
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
  struct Case {
    const wchar_t* document;
    uint32_t result, bytes;
  } cases[] = {
      {L"<options max_flow_length=\"5\"/>", 1, 5 * 1048576},
      {L"<options max_flow_length=\"0\"/>", 1, 0},
      {L"<options max_flow_length=\" +7abc\"/>", 1, 7 * 1048576},
      {L"<options max_flow_length=\"abc\"/>", 1, 0},
      {L"<options/>", 1, 0},
      {L"<options max_flow_length=\"-3\"/>", 1, 0},              // negative counts nothing
      {L"<options max_flow_length=\"5000\"/>", 1, 0xFFFFFFFFu},  // beyond 32 bits: the largest count
      {L"<settings max_flow_length=\"5\"/>", 0, 42},
      {L"not xml", 0, 42},
      {L"", 0, 42},
      {nullptr, 0, 42},
  };
  for (const Case& c : cases) {
    CPelkaEmailModule module;
    module.set_max_flow_length(42);
    EXPECT_EQ(module.LoadOptions(c.document), c.result) << testing::PrintToString(c.document);
    EXPECT_EQ(module.max_flow_length(), c.bytes) << testing::PrintToString(c.document);
  }
}

}  // namespace
}  // namespace pelka
