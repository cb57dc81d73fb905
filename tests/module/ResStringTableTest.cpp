// Texts: the replacer underneath the string table, the table's look-ups and
// formatting, and the shipped tables against the texts the code asks for.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host/XmlParser.h"
#include "module/MultiReplace.h"
#include "module/Placeholders.h"
#include "module/ResStringTable.h"
#include "support/TempFile.h"

namespace pelka {
namespace {

TEST(MultiReplace, ReplacesInOneLeftToRightScan) {
  struct Case {
    const char* name;
    std::vector<std::pair<const wchar_t*, const wchar_t*>> patterns;
    std::wstring text, expected;
  };
  const std::vector<Case> cases = {
      {"every occurrence", {{L"%d_N%", L"7"}}, L"a %d_N% b %d_N%", L"a 7 b 7"},
      {"shortest at a position wins", {{L"abcd", L"LONG"}, {L"ab", L"S"}}, L"abcdab", L"ScdS"},
      {"empty replacement deletes", {{L"[x]", L""}, {L"[y]", nullptr}}, L"a[x]b[y]", L"ab"},
      {"output is not rescanned", {{L"a", L"aa"}, {L"aa", L"b"}}, L"a", L"aa"},
      {"case-sensitive", {{L"ABC", L"x"}}, L"abc ABC", L"abc x"},
      {"pattern cut by the end", {{L"xyz", L"!"}}, L"abxy", L"abxy"},
      {"later add updates in place", {{L"ab", L"1"}, {L"abc", L"2"}, {L"ab", L"3"}}, L"ab abc", L"3 3c"},
      {"too long or empty patterns are refused", {{L"", L"x"}, {nullptr, L"x"}, {L"q", L"Q"}}, L"q", L"Q"},
      {"no patterns", {}, L"abc", L"abc"},
      {"empty text", {{L"x", L"y"}}, L"", L""},
      {"result grows past twice the text", {{L"x", L"0123456789"}}, L"xx", L"01234567890123456789"},
  };
  for (const Case& c : cases) {
    CTQMultiReplaceW replacer;
    for (const auto& [pattern, replacement] : c.patterns) replacer.AddPattern(pattern, replacement);
    EXPECT_EQ(std::wstring(replacer.Replace(c.text.c_str())), c.expected) << c.name;
  }
  CTQMultiReplaceW replacer;
  replacer.AddPattern(std::wstring(65536, L'a').c_str(), L"x");
  EXPECT_EQ(replacer.PatternCount(), 0u);
  replacer.AddPattern(std::wstring(65535, L'a').c_str(), L"x");
  EXPECT_EQ(replacer.PatternCount(), 1u);
  EXPECT_EQ(replacer.Replace(nullptr), nullptr);
}

// Loads the table from a file of these bytes; LoadFromFile's answer.
int Load(CResStringTable& table, const std::string& bytes) {
  test::TempFile file(bytes, ".cst");
  return table.LoadFromFile(file.wide_path().c_str());
}

// Without a table (none of these documents is one) each text is its default
// with its values, marked "#".
TEST(ResStringTable, DefaultsFormatEachTypeWithItsFormatPart) {
  CResStringTable table;
  for (const char* refused : {"not xml", "<StringTable><String id=\"A\">x</String>", "<Other/>"}) {
    EXPECT_EQ(Load(table, refused), 0) << refused;
  }
  EXPECT_EQ(table.LoadFromFile(L"/nonexistent/PelkaEmailRes.cst"), 0);
  std::wstring h;
  const std::vector<std::pair<std::wstring, const wchar_t*>> cases = {
      {table.GetString(h, L"X", L"%I64u_N%", uint64_t{1} << 32), L"#4294967296"},
      {table.GetString(h, L"X", L"%I64d_N%", int64_t{-5000000000}), L"#-5000000000"},
      {table.GetString(h, L"X", L"%i64U_N%", UINT64_MAX), L"#18446744073709551615"},
      {table.GetString(h, L"X", L"%d_N%|%05u_M%", -3, 42u), L"#-3|00042"},
      {table.GetString(h, L"X", L"%x_N%|%X_M%|%o_O%", 255, 255, 8), L"#ff|FF|10"},
      {table.GetString(h, L"X", L"%.2f_N%", 2.5), L"#2.50"},
      {table.GetString(h, L"X", L"%c_N%%s_M%", L'邮', L"件"), L"#邮件"},
      {table.GetString(h, L"X", L"[%-4s_N%]", L"ab"), L"#[ab  ]"},
      // A width before I64u makes it a 32-bit conversion.
      {table.GetString(h, L"X", L"%5I64u_N%", 7), L"#    7"},
      // The lone sign hides the placeholder, which takes no value; the next
      // one still gets the first value.
      {table.GetString(h, L"X", L"50% [%d_A%] 1% %d_B%", 7), L"#50% [%d_A%] 1% 7"},
      {table.GetString(h, L"X", L"%e_E% %NONAME% %_N% %d_N%", 4), L"#%e_E% %NONAME% %_N% 4"},
      {table.GetString(h, L"X", L"%%%d_A% 100%%", 4), L"#%4 100%"},
      // The underscore must lie within the run's first 32 characters.
      {table.GetString(h, L"X", L"%00000000000000000000000000005d_X%", 4), L"#00004"},
      {table.GetString(h, L"X", L"%000000000000000000000000000005d_X%|%d_Y%", 4),
       L"#%000000000000000000000000000005d_X%|4"},
      {table.GetString(h, L"X", L"[%s_T%]", L""), L"#[]"},
      {table.GetString(h, L"X", L"100%%"), L"#100%"},
      {table.GetString(h, L"IDS_EMAIL_LOG", L"邮件日志"), L"邮件日志"},  // no pattern, no mark
      {table.GetString(h, L"A", L"default"), L"default"},
      {table.GetString(h, L"IDS_NONE", nullptr), L""},
      {table.GetString(h, nullptr, L"text"), L"text"},
  };
  for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
}

TEST(ResStringTable, TranslatedTextsBindValuesByName) {
  CResStringTable table;
  ASSERT_EQ(Load(table, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<StringTable>\n"
                        "<String id=\"IDS_EMAIL_LOG\">Email Log</String>\n"
                        "<String id=\"IDS_SLOW\">(%d_SLOW% ms between packet %I64u_SNUM% and %I64u_DNUM%)</String>\n"
                        "<String id=\"IDS_LACKS\">packet %I64u_SNUM% only</String>\n"
                        "<String id=\"IDS_EXTRA\">%I64u_NUM% and %d_OTHER%</String>\n"
                        "<String id=\"IDS_TWICE\">%d_A% %d_A%</String>\n"
                        "<String id=\"IDS_PERCENT\">%d_P%%% of 100%%</String>\n"
                        "<String id=\"IDS_NO_PAIR\">100%% sure</String>\n"
                        "<String id=\"IDS_EMPTY\"></String>\n"
                        "<String id=\"IDS_DUP\">first</String>\n"
                        "<String id=\"IDS_DUP\">second</String>\n"
                        "<String id=\"ids_email_log\">lower case</String>\n"
                        "<String>no id</String>\n"
                        "<Other id=\"IDS_OTHER\">ignored</Other>\n"
                        "</StringTable>\n"),
            1);
  const wchar_t* slow = L"(数据包 [%I64u_SNUM%] 与数据包 [%I64u_DNUM%] 相隔%d_SLOW%ms)";
  std::wstring h;
  const std::vector<std::pair<std::wstring, const wchar_t*>> cases = {
      {table.GetString(h, L"IDS_EMAIL_LOG", L"邮件日志"), L"Email Log"},
      {table.GetString(h, L"ids_email_log", L"邮件日志"), L"lower case"},
      {table.GetString(h, L"Ids_Email_Log", L"邮件日志"), L"邮件日志"},
      {table.GetString(h, L"IDS_SLOW", slow, uint64_t{12}, uint64_t{15}, 300), L"(300 ms between packet 12 and 15)"},
      {table.GetString(h, L"IDS_LACKS", slow, uint64_t{12}, uint64_t{15}, 300), L"packet 12 only"},
      {table.GetString(h, L"IDS_EXTRA", L" (数据包序号 [%I64u_NUM%])", uint64_t{9}), L"9 and %d_OTHER%"},
      // A placeholder twice in the default takes two values; the second wins everywhere.
      {table.GetString(h, L"IDS_TWICE", L"%d_A%-%d_A%", 1, 2), L"2 2"},
      {table.GetString(h, L"IDS_PERCENT", L"%d_P%%%", 50), L"50% of 100%"},
      // Without "%%" in the default, "%%" of the translation stays as it is.
      {table.GetString(h, L"IDS_PERCENT", L"%d_P%", 50), L"50%% of 100%%"},
      // Without any pattern the translation is taken as it stands.
      {table.GetString(h, L"IDS_NO_PAIR", L"sure"), L"100%% sure"},
      {table.GetString(h, L"IDS_NO_PAIR", L"%%"), L"100% sure"},
      {table.GetString(h, L"IDS_EMPTY", L"default"), L""},
      {table.GetString(h, L"IDS_DUP", L"default"), L"second"},
      {table.GetString(h, L"", L"default"), L"no id"},
      {table.GetString(h, L"IDS_OTHER", L"default"), L"default"},
      {table.GetString(h, L"IDS_MISSING", L"%s_T% is %d_N%", L"x", 3), L"#x is 3"},
  };
  for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
}

// Every request clears and refills the one replacer; concurrent requests must
// not see each other's values.
TEST(ResStringTable, ConcurrentRequestsKeepTheirOwnValues) {
  CResStringTable table;
  std::atomic<int> wrong{0};
  auto worker = [&](uint64_t base) {
    std::wstring holder;
    for (uint64_t i = 0; i < 2000; ++i) {
      table.GetString(holder, L"X", L"%I64u_A%-%d_B%", base + i, static_cast<int>(i));
      if (holder != L"#" + std::to_wstring(base + i) + L"-" + std::to_wstring(i)) ++wrong;
    }
  };
  std::thread first(worker, uint64_t{1000000});
  std::thread second(worker, uint64_t{9000000});
  first.join();
  second.join();
  EXPECT_EQ(wrong.load(), 0);
}

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
