#include "module/MultiReplace.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace pelka {
namespace {

using Patterns = std::vector<std::pair<const wchar_t*, const wchar_t*>>;

struct ReplaceCase {
  const char* name;
  Patterns patterns;
  const wchar_t* text;
  const wchar_t* expected;
};

TEST(MultiReplace, ReplacesInOneLeftToRightScan) {
  const std::vector<ReplaceCase> cases = {
      {"single", {{L"%d_N%", L"7"}}, L"a %d_N% b %d_N%", L"a 7 b 7"},
      {"shortest of two at the same position wins", {{L"abcd", L"LONG"}, {L"ab", L"S"}}, L"abcdab", L"ScdS"},
      {"empty replacement deletes", {{L"[x]", L""}}, L"a[x]b", L"ab"},
      {"null replacement deletes", {{L"[x]", nullptr}}, L"[x][x]", L""},
      {"replacement is not scanned again", {{L"a", L"aa"}, {L"aa", L"b"}}, L"a", L"aa"},
      {"case-sensitive", {{L"ABC", L"x"}}, L"abc ABC", L"abc x"},
      {"percent pair", {{L"%%", L"%"}}, L"100%% and %", L"100% and %"},
      {"pattern at the very end", {{L"end", L"E"}}, L"the end", L"the E"},
      {"pattern longer than the rest", {{L"xyz", L"!"}}, L"abxy", L"abxy"},
  };
  for (const ReplaceCase& c : cases) {
    CTQMultiReplaceW replacer;
    for (const auto& [pattern, replacement] : c.patterns) replacer.AddPattern(pattern, replacement);
    EXPECT_STREQ(replacer.Replace(c.text), c.expected) << c.name;
  }
}

TEST(MultiReplace, ReturnsTheGivenTextWhenNothingIsToBeDone) {
  CTQMultiReplaceW replacer;
  const wchar_t* text = L"no patterns";
  EXPECT_EQ(replacer.Replace(text), text);
  EXPECT_EQ(replacer.Replace(nullptr), nullptr);

  replacer.AddPattern(L"x", L"y");
  const wchar_t* empty = L"";
  EXPECT_EQ(replacer.Replace(empty), empty);
  EXPECT_NE(replacer.Replace(text), text);
  EXPECT_STREQ(replacer.Replace(text), text);
}

TEST(MultiReplace, RefusesEmptyAndOverlongPatterns) {
  CTQMultiReplaceW replacer;
  replacer.AddPattern(nullptr, L"x");
  replacer.AddPattern(L"", L"x");
  replacer.AddPattern(std::wstring(65536, L'a').c_str(), L"x");
  EXPECT_EQ(replacer.PatternCount(), 0u);
  replacer.AddPattern(std::wstring(65535, L'a').c_str(), L"x");
  EXPECT_EQ(replacer.PatternCount(), 1u);
}

TEST(MultiReplace, AddingAnEqualPatternUpdatesItsReplacementInPlace) {
  CTQMultiReplaceW replacer;
  replacer.AddPattern(L"ab", L"1");
  replacer.AddPattern(L"abc", L"2");
  replacer.AddPattern(L"ab", L"3");
  EXPECT_EQ(replacer.PatternCount(), 2u);
  EXPECT_STREQ(replacer.Replace(L"ab abc"), L"3 3c");
  replacer.AddPattern(L"ab", L"");
  EXPECT_STREQ(replacer.Replace(L"ab abc"), L" c");
  replacer.AddPattern(L"AB", L"4");
  EXPECT_EQ(replacer.PatternCount(), 3u);
}

TEST(MultiReplace, ClearingKeepsTheResultBuffer) {
  CTQMultiReplaceW replacer;
  replacer.AddPattern(L"a", L"b");
  replacer.Replace(L"a");
  EXPECT_EQ(replacer.ResultCapacity(), 1024u);
  replacer.ClearPatterns();
  EXPECT_EQ(replacer.PatternCount(), 0u);
  EXPECT_EQ(replacer.ResultCapacity(), 1024u);
}

TEST(MultiReplace, GrowsTheResultInSteps256) {
  CTQMultiReplaceW replacer;
  replacer.AddPattern(L"x", L"0123456789");
  const std::wstring text(300, L'x');
  const std::wstring result = replacer.Replace(text.c_str());
  EXPECT_EQ(result, [] {
    std::wstring expected;
    for (int i = 0; i < 300; ++i) expected += L"0123456789";
    return expected;
  }());
  EXPECT_EQ(replacer.ResultCapacity() % 256, 0u);
  EXPECT_GT(replacer.ResultCapacity(), 3000u);
}

TEST(MultiReplace, FirstUseSizesTheBufferToTwiceALongText) {
  CTQMultiReplaceW replacer;
  replacer.AddPattern(L"q", L"");
  const std::wstring text(2000, L'a');
  EXPECT_EQ(std::wstring(replacer.Replace(text.c_str())), text);
  EXPECT_EQ(replacer.ResultCapacity(), 4000u);
}

TEST(MultiReplace, CompareText) {
  struct Case {
    const wchar_t* a;
    const wchar_t* b;
    int case_sensitive;
    int count;
    int expected;
  };
  const std::vector<Case> cases = {
      {nullptr, nullptr, 1, -1, 1}, {L"a", nullptr, 1, -1, 0},   {nullptr, L"a", 1, -1, 0},
      {L"abc", L"abc", 1, -1, 1},  {L"abc", L"ABC", 1, -1, 0},  {L"abc", L"ABC", 0, -1, 1},
      {L"abc", L"abd", 1, 2, 1},   {L"abc", L"abd", 1, 3, 0},   {L"ab", L"abc", 1, -1, 0},
      {L"", L"", 1, -1, 1},
  };
  CTQMultiReplaceW replacer;
  for (const Case& c : cases) {
    EXPECT_EQ(replacer.CompareText(c.a, c.b, c.case_sensitive, c.count), c.expected)
        << (c.a ? "a" : "null") << " count " << c.count;
  }
  EXPECT_EQ(replacer.TextLength(nullptr), 0u);
  EXPECT_EQ(replacer.TextLength(L"四个字符"), 4u);
}

}  // namespace
}  // namespace pelka
