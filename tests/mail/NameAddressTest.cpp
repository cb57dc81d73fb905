#include "mail/NameAddress.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace pelka {
namespace {

// E1 and E2 decode to D1 and D2; both are GBK base64 words.
const std::wstring kE1 = L"=?gbk?b?1tDOxA==?=";
const std::wstring kD1 = L"\u4E2D\u6587";
const std::wstring kE2 = L"=?gbk?b?suLK1NPKvP4=?=";
const std::wstring kD2 = L"\u6D4B\u8BD5\u90AE\u4EF6";
const std::wstring kGb2312Word = L"=?gb2312?b?suLK1NPKvP4=?=";

TEST(NameAddressTest, SplitsNameAndAddress) {
  struct SplitCase { const char* name; std::wstring value, display_name, address; };
  const std::vector<SplitCase> cases = {
      {"empty", L"", L"", L""},
      {"bare address", L"x@a", L"", L"x@a"},
      {"address in brackets", L"<x@a>", L"", L"x@a"},
      {"name keeps its blank", L"N <x@a>", L"N ", L"x@a"},
      {"quoted name", L"\"N\" <x@a>", L"N", L"x@a"},
      {"quoted name without a blank", L"\"N\"<x@a>", L"", L"\"N\"<x@a>"},
      {"name between first quote and last quote-blank pair", L"\"A\" \"B\" <x>", L"A\" \"B", L"x"},
      {"same quote opens and closes", L"\" <x>", L"", L"x"},
      {"encoded name", kE1 + L" <x@a>", kD1, L"x@a"},
      {"two words keep the blank between", kE1 + L" " + kE2, L"", kD1 + L" " + kD2},
      {"quoted encoded name keeps the opening quote", L"\"" + kE1 + L"\" <x@a>", L"\"" + kD1, L"x@a"},
      {"text before a word", L"Re: " + kE1, L"", L"Re: " + kD1},
      {"prefix in capitals", L"=?GBK?B?1tDOxA==?=", L"", kD1},
      {"gb2312 word", kGb2312Word, L"", kD2},
      {"gbk before gb2312 stays undecoded", kE1 + L" " + kGb2312Word, L"", kE1 + L" " + kD2},
      {"gbk quoted-printable keeps underscores", L"=?gbk?q?=D6=D0_x?=", L"", L"\u4E2D_x"},
      {"utf-8 words pass through", L"=?utf-8?b?5Lit?= <x>", L"=?utf-8?b?5Lit?= ", L"x"},
      {"undecodable base64 adds nothing", L"=?gbk?b?!!?= <x>", L"", L"x"},
      {"brackets the wrong way round", L"a > b < c", L"", L""},
      {"first < to last >", L"N <x>, M <y>", L"N ", L"x>, M <y"},
      {"< without >", L"N <x", L"", L"N <x"},
      {"folded value keeps the tab", L"N\r\n\t<x>", L"N\t", L"x"},
      {"folded between words", kE1 + L"\r\n " + kE2, L"", kD1 + L" " + kD2},
      {"prefix with no closing mark anywhere", L"Re: =?gbk?b?1tDO", L"", L"Re: =?gbk?b?1tDO"},
      {"prefix with no closing mark after it", L"x?= =?gbk?b?1tDO", L"x?= 1tDO", L""},
      {"empty payload", L"=?gbk?b?\?=", L"?=", L""},
      {"empty payload after a word", kE1 + L" =?gbk?b?\?= <x>", kD1 + L" ?= <x>", L""},
      // Bad bytes never cut the text short; only a decoded zero byte ends a word.
      {"invalid gbk in base64", L"=?gbk?b?/wBh?=tail", L"", L"\uFFFDtail"},  // FF 00 61
      {"invalid gbk in quoted-printable", L"=?gbk?q?a=81?=", L"", L"a\uFFFD"},
      {"equals without digits ends the word", L"=?gbk?q?ab=XYcd?=z", L"", L"abz"},
      {"characters outside gbk", L"=?gbk?q?a\u0E01b?=", L"", L"a?b"},
  };
  CTQBase64Coder coder;
  std::wstring qp_text;
  for (const SplitCase& c : cases) {
    std::wstring display_name, address;
    SplitNameAndAddress(SplitScratch{coder, qp_text}, c.value, display_name, address);
    EXPECT_EQ(display_name, c.display_name) << c.name;
    EXPECT_EQ(address, c.address) << c.name;
  }
}

TEST(NameAddressTest, QuotedPrintableKeepsItsResultInTheScratchText) {
  std::wstring qp_text = L"previous";
  EXPECT_EQ(DecodeQuotedPrintableW(qp_text, nullptr), nullptr);
  EXPECT_EQ(qp_text, L"previous");
  const wchar_t* decoded = DecodeQuotedPrintableW(qp_text, L"=D6=D0=CE=C4=\r\n_");
  EXPECT_EQ(decoded, qp_text.c_str());
  EXPECT_EQ(qp_text, kD1 + L"_");
}

}  // namespace
}  // namespace pelka
