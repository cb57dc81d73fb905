#include "module/Placeholders.h"

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "module/ResStringTable.h"

namespace pelka {
namespace {

TEST(Placeholders, ScanFindsPlaceholdersAndPercentPairs) {
  struct Case {
    const wchar_t* text;
    std::vector<std::wstring> runs;
  };
  const std::vector<Case> cases = {
      {L"no percent, or one %", {}},
      {L"(%I64u_SNUM% %I64u_DNUM% %d_SLOW%ms)", {L"%I64u_SNUM%", L"%I64u_DNUM%", L"%d_SLOW%"}},
      {L"%%%d_A% 100%%", {L"%%", L"%d_A%", L"%%"}},
      // A lone sign pairs with the placeholder's opening one; the closing sign
      // opens the next run, so the next lone sign realigns the scan.
      {L"50% [%d_A%] %d_B%", {}},
      {L"50% [%d_A%] 1% %d_B%", {L"%d_B%"}},
      {L"%NONAME% %e_EXP% %_N% %u_U%", {L"%u_U%"}},
      // The underscore must lie within the run's first 32 characters.
      {L"%301234567890123456789012345678d_X%", {}},
      {L"%30123456789012345678901234567d_X%", {L"%30123456789012345678901234567d_X%"}},
      {L"%5.2f_F% %c_C% %x_H% %X_H% %o_O% %s_S%", {L"%5.2f_F%", L"%c_C%", L"%x_H%", L"%X_H%", L"%o_O%", L"%s_S%"}},
  };
  for (const Case& c : cases) {
    std::vector<std::wstring> runs;
    for (const Placeholder& p : ScanPlaceholders(c.text)) runs.push_back(p.text);
    EXPECT_EQ(runs, c.runs) << testing::PrintToString(std::wstring(c.text));
  }
}

// Values of every type, formatted with their format parts. No table entry
// exists, so each result carries the missing-text marker.
TEST(Placeholders, FormatsEachTypeWithItsFormatPart) {
  CResStringTable table;
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
      {table.GetString(h, L"X", L"%e_E% %NONAME% %d_N%", 4), L"#%e_E% %NONAME% 4"},
      {table.GetString(h, L"X", L"[%s_T%]", L""), L"#[]"},
      {table.GetString(h, L"X", L"100%%"), L"#100%"},
  };
  for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
}

}  // namespace
}  // namespace pelka
