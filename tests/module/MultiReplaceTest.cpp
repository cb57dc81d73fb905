#include "module/MultiReplace.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace pelka {
namespace {

TEST(MultiReplace, ReplacesInOneLeftToRightScan) {
  std::wstring tens;
  for (int i = 0; i < 500; ++i) tens += L"0123456789";
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
      {"long text kept", {{L"q", L""}}, std::wstring(2000, L'a'), std::wstring(2000, L'a')},
      {"result grows past twice the text", {{L"x", L"0123456789"}}, std::wstring(500, L'x'), tens},
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

}  // namespace
}  // namespace pelka
