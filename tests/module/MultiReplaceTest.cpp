#include "module/MultiReplace.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace pelka {
namespace {

TEST(MultiReplace, ReplacesInOneLeftToRightScan) {
  struct Case {
    const char* name;
    std::vector<std::pair<const wchar_t*, const wchar_t*>> patterns;
    const wchar_t* text;
    const wchar_t* expected;
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
  };
  for (const Case& c : cases) {
    CTQMultiReplaceW replacer;
    for (const auto& [pattern, replacement] : c.patterns) replacer.AddPattern(pattern, replacement);
    EXPECT_STREQ(replacer.Replace(c.text), c.expected) << c.name;
  }
  CTQMultiReplaceW replacer;
  replacer.AddPattern(std::wstring(65536, L'a').c_str(), L"x");
  EXPECT_EQ(replacer.PatternCount(), 0u);
  replacer.AddPattern(std::wstring(65535, L'a').c_str(), L"x");
  EXPECT_EQ(replacer.PatternCount(), 1u);
}

TEST(MultiReplace, ReturnsTheGivenTextWhenNothingIsToBeDone) {
  CTQMultiReplaceW replacer;
  const wchar_t* text = L"abc";
  const wchar_t* empty = L"";
  EXPECT_EQ(replacer.Replace(text), text);
  replacer.AddPattern(L"x", L"y");
  EXPECT_EQ(replacer.Replace(empty), empty);
  EXPECT_EQ(replacer.Replace(nullptr), nullptr);
  EXPECT_NE(replacer.Replace(text), text);
  EXPECT_STREQ(replacer.Replace(text), text);
}

TEST(MultiReplace, ResultBufferStartsAtTwiceTheTextAndGrowsIn256Steps) {
  CTQMultiReplaceW replacer;
  replacer.AddPattern(L"q", L"");
  const std::wstring long_text(2000, L'a');
  EXPECT_EQ(std::wstring(replacer.Replace(long_text.c_str())), long_text);
  EXPECT_EQ(replacer.ResultCapacity(), 4000u);

  replacer.ClearPatterns();
  replacer.AddPattern(L"x", L"0123456789");
  std::wstring expected;
  for (int i = 0; i < 500; ++i) expected += L"0123456789";
  EXPECT_EQ(std::wstring(replacer.Replace(std::wstring(500, L'x').c_str())), expected);
  EXPECT_EQ(replacer.ResultCapacity(), 5120u);  // 5001 characters rounded up
}

}  // namespace
}  // namespace pelka
