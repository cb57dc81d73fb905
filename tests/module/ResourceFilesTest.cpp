// The shipped string tables against the texts the code asks for.
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "host/XmlParser.h"
#include "module/Placeholders.h"
#include "support/TempFile.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;

// The file's entries as written; a repeated id shows up as an empty map.
std::map<std::wstring, std::wstring> ReadEntries(const char* language) {
  std::map<std::wstring, std::wstring> entries;
  CTQXmlParser parser;
  const fs::path file = fs::path(PELKA_SOURCE_DIR) / "resources" / language / "PelkaEmailRes.cst";
  if (!parser.Load(file.wstring().c_str()) || !parser.FindElem(L"StringTable")) return {};
  parser.IntoElem();
  while (parser.FindElem(L"String")) {
    if (!entries.emplace(parser.GetAttrib(L"id"), parser.GetData()).second) return {};
  }
  return entries;
}

std::set<std::wstring> PlaceholderRuns(const std::wstring& text) {
  std::set<std::wstring> runs;
  for (const Placeholder& p : ScanPlaceholders(text)) runs.insert(p.text);
  return runs;
}

TEST(ShippedTables, HoldEveryTextOfTheCodeWithTheSamePlaceholders) {
  std::set<std::wstring> code_ids;  // every L"IDS_..." literal of the product sources
  const std::regex literal("L\"(IDS_[A-Z0-9_]+)\"");
  for (const char* folder : {"module", "flow", "mail", "output", "diagnosis", "host", "capture"}) {
    for (const auto& entry : fs::directory_iterator(fs::path(PELKA_SOURCE_DIR) / folder)) {
      const std::string text = test::ReadWholeFile(entry.path());
      for (std::sregex_iterator it(text.begin(), text.end(), literal), end; it != end; ++it) {
        const std::string id = (*it)[1];
        code_ids.insert(std::wstring(id.begin(), id.end()));
      }
    }
  }
  ASSERT_GE(code_ids.size(), 40u);
  const auto zh = ReadEntries("zh");
  const auto en = ReadEntries("en");
  for (const auto* table : {&zh, &en}) {
    std::set<std::wstring> ids;
    for (const auto& entry : *table) ids.insert(entry.first);
    EXPECT_EQ(ids, code_ids);
  }
  for (const auto& [id, text] : en) {
    EXPECT_EQ(PlaceholderRuns(text), PlaceholderRuns(zh.at(id))) << testing::PrintToString(id);
    for (wchar_t c : text) EXPECT_LT(c, 0x80) << testing::PrintToString(id) << " is not English";
  }
}

}  // namespace
}  // namespace pelka
