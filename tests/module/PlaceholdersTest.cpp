#include "module/Placeholders.h"

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "module/ResStringTable.h"

namespace pelka {
namespace {

struct ScanCase {
  const wchar_t* text;
  std::vector<std::wstring> runs;  // the runs found, in order
};

TEST(Placeholders, ScanFindsPlaceholdersAndPercentPairs) {
  const std::vector<ScanCase> cases = {
      {L"", {}},
      {L"no percent", {}},
      {L"one % only", {}},
      {L"[%I64u_NUM%]", {L"%I64u_NUM%"}},
      {L"(%I64u_SNUM% %I64u_DNUM% %d_SLOW%ms)", {L"%I64u_SNUM%", L"%I64u_DNUM%", L"%d_SLOW%"}},
      {L"100%% done", {L"%%"}},
      {L"%%%d_A%", {L"%%", L"%d_A%"}},
      // A lone sign pairs with the placeholder's opening one; its closing sign
      // then opens a run that reaches the next placeholder's opening sign.
      {L"50% [%d_A%] %d_B%", {}},
      {L"50% [%d_A%] 1% %d_B%", {L"%d_B%"}},
      {L"%NONAME% %d_X%", {L"%d_X%"}},
      {L"%e_EXP% %s_T%", {L"%s_T%"}},
      {L"%_NAME% %u_U%", {L"%u_U%"}},
      // The underscore must lie within the first 32 characters.
      {L"%301234567890123456789012345678d_X%", {}},
      {L"%30123456789012345678901234567d_X%", {L"%30123456789012345678901234567d_X%"}},
      {L"%5.2f_F% %c_C% %x_H% %X_H2% %o_O%", {L"%5.2f_F%", L"%c_C%", L"%x_H%", L"%X_H2%", L"%o_O%"}},
  };
  for (const ScanCase& c : cases) {
    std::vector<std::wstring> runs;
    for (const Placeholder& p : ScanPlaceholders(c.text)) runs.push_back(p.text);
    EXPECT_EQ(runs, c.runs) << testing::PrintToString(std::wstring(c.text));
  }
}

TEST(Placeholders, SplitsFormatAndName) {
  const auto found = ScanPlaceholders(L"%i64U_SIZE_MAX% %-8d_W%");
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].format, L"%i64U");
  EXPECT_EQ(found[0].name, L"SIZE_MAX");
  EXPECT_EQ(found[0].type, PlaceholderType::kUnsigned64);
  EXPECT_EQ(found[1].format, L"%-8d");
  EXPECT_EQ(found[1].name, L"W");
  EXPECT_EQ(found[1].type, PlaceholderType::kInt32);
}

// Values of every type, formatted with their format parts. No table entry
// exists, so each result carries the missing-text marker.
TEST(Placeholders, FormatsEachTypeWithItsFormatPart) {
  CResStringTable table;
  std::wstring holder;
  struct Case {
    std::wstring got;
    const wchar_t* expected;
  };
  const std::vector<Case> cases = {
      {table.GetString(holder, L"X", L"%I64u_N%", uint64_t{1} << 32), L"#4294967296"},
      {table.GetString(holder, L"X", L"%I64d_N%", int64_t{-5000000000}), L"#-5000000000"},
      {table.GetString(holder, L"X", L"%i64u_N%", UINT64_MAX), L"#18446744073709551615"},
      {table.GetString(holder, L"X", L"%d_N%", -3), L"#-3"},
      {table.GetString(holder, L"X", L"%05u_N%", 42u), L"#00042"},
      {table.GetString(holder, L"X", L"%x_N%|%X_M%", 255, 255), L"#ff|FF"},
      {table.GetString(holder, L"X", L"%o_N%", 8), L"#10"},
      {table.GetString(holder, L"X", L"%.2f_N%", 2.5), L"#2.50"},
      {table.GetString(holder, L"X", L"%c_N%", L'邮'), L"#邮"},
      {table.GetString(holder, L"X", L"%s_N%", L"日志"), L"#日志"},
      {table.GetString(holder, L"X", L"[%-4s_N%]", L"ab"), L"#[ab  ]"},
      // A width before I64u makes it a 32-bit conversion.
      {table.GetString(holder, L"X", L"%5I64u_N%", 7), L"#    7"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.got, c.expected);
}

}  // namespace
}  // namespace pelka
