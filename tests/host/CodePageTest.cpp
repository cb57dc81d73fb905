// Conversions between code-page bytes and wide text: the code-page table, the
// UTF-8 decoder, bad input and the process's ANSI setting.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "host/CodePage.h"

namespace pelka {
namespace {

const std::wstring kChinese = L"\u4E2D\u6587";
const std::string kChineseGbk = "\xD6\xD0\xCE\xC4";
const std::string kChineseUtf8 = "\xE4\xB8\xAD\xE6\x96\x87";

TEST(CodePageTest, BytesToWide) {
  struct Case { const char* name; unsigned code_page; std::string bytes; std::wstring expected; };
  const std::vector<Case> cases = {
      {"zero byte kept", kCodePageGbk, std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
      {"ansi is gbk by default", kCodePageThreadAnsi, kChineseGbk, kChinese},
      {"utf-8 beyond the basic plane", kCodePageUtf8, kChineseUtf8 + "\xF0\x9F\x98\x80", kChinese + L"\U0001F600"},
      {"invalid utf-8 goes on", kCodePageUtf8, "a\xC3(\x80\x80z", L"a\uFFFD(\uFFFD\uFFFDz"},
      {"utf-8 cut short: one U+FFFD per maximal subpart, inside or at the end", kCodePageUtf8,
       "\xE4\xBA x|\xF0\x9F\x98|\xE4\xBA", L"\uFFFD x|\uFFFD|\uFFFD"},
      {"utf-8 overlong forms and surrogates", kCodePageUtf8, "\xC0\xAF|\xE0\x80\xAF|\xED\xA0\x80|\xED\x9F\xBF",
       L"\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD|\uD7FF"},
      {"utf-8 noncharacters and stray bytes", kCodePageUtf8, "\xEF\xBF\xBE\xEF\xB7\x90|\xBF\xFE\xFF|\xF4\x8F\xBF\xBF",
       L"\uFFFE\uFDD0|\uFFFD\uFFFD\uFFFD|\U0010FFFF"},
      {"utf-8 forms beyond U+10FFFF", kCodePageUtf8, "\xF4\x90\x80\x80|\xF8\x88\x80\x80\x80",
       L"\uFFFD\uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"invalid gbk goes on", kCodePageGbk, "a\xFF" + kChineseGbk + "\xD6", L"a\uFFFD" + kChinese + L"\uFFFD"},
      {"unknown code page keeps ascii", 12345, "ab\xD6", L"ab\uFFFD"},
  };
  for (const Case& c : cases) EXPECT_EQ(MultiByteToWide(c.code_page, c.bytes), c.expected) << c.name;
}

// Each code page's own characters both ways are the table test's, below.
TEST(CodePageTest, WideToBytes) {
  const std::wstring not_a_character = std::wstring(L"a") + wchar_t(0x110000) + wchar_t(0xD800) + L"b";
  EXPECT_EQ(WideToMultiByte(kCodePageGbk, L"a\u0E01b"), "a?b");
  EXPECT_EQ(WideToMultiByte(kCodePageUtf8, not_a_character), "a??b");
  // Runs of eight ASCII units pass whole; a unit above ASCII anywhere in one is encoded.
  EXPECT_EQ(WideToMultiByte(kCodePageUtf8, L"abcdefghébcdefgh" + not_a_character + L"1234567"),
            "abcdefgh\xC3\xA9" "bcdefgha??b1234567");
  EXPECT_EQ(WideToMultiByte(12345, L"a" + kChinese), "a??");
}

TEST(CodePageTest, AnsiCodePageIsAProcessSetting) {
  EXPECT_TRUE(IsCodePageSupported(kCodePageAnsi));
  EXPECT_FALSE(SetAnsiCodePage(12345));
  EXPECT_FALSE(SetAnsiCodePage(kCodePageThreadAnsi));
  EXPECT_EQ(GetAnsiCodePage(), unsigned{kCodePageGbk});
  ASSERT_TRUE(SetAnsiCodePage(kCodePageUtf8));
  std::wstring seen_on_other_thread;
  std::thread([&] { seen_on_other_thread = AnsiToWide(kChineseUtf8); }).join();
  SetAnsiCodePage(kCodePageGbk);
  EXPECT_EQ(seen_on_other_thread, kChinese);
}

// One row per entry of the code-page table. Every other converter in the table
// reads the row's bytes or writes its text differently, so an entry that names
// the wrong converter fails its row. `narrowed` is set where the text does not
// go back to the same bytes.
TEST(CodePageTest, EveryCodePageOfTheTableConvertsItsOwnCharactersBothWays) {
  struct Case {
    unsigned code_page;
    std::string bytes;
    std::wstring text;
    const char* narrowed = nullptr;
  };
  const std::vector<Case> cases = {
      {437, "\x80\x9D", L"Ç¥"}, {737, "\xE0", L"ω"}, {775, "\xC6", L"Ų"}, {850, "\xD0", L"ð"},
      {852, "\xC6", L"Ă"}, {855, "\xC6", L"к"}, {857, "\xD0", L"º"}, {860, "\xA9", L"Ò"}, {861, "\xA4", L"Á"},
      {862, "\x80", L"א"}, {863, "\xA8", L"Î"}, {864, "\xC1", L"ﺀ"}, {865, "\xAF", L"¤"}, {866, "\xF0", L"Ё"},
      {869, "\xC6", L"Π"}, {874, "\xC0", L"ภ"}, {932, "\x82\xA0", L"あ"},
      {936, "\x80\x81\x40", L"€丂"},  // one-byte euro and a character beyond GB2312
      {949, "\x81\x41", L"갂"},  // a syllable beyond EUC-KR
      {950, "\xA4\xA4", L"中"}, {1250, "\xA1", L"ˇ"}, {1251, "\xC6", L"Ж"}, {1252, "\xC0\x8E", L"ÀŽ"},
      {1253, "\xA2", L"Ά"}, {1254, "\xD0\x83", L"Ğƒ"}, {1255, "\xD4", L"װ"}, {1256, "\xC0", L"ہ"},
      {1257, "\x8E", L"ˇ"}, {1258, "\xD5", L"Ơ"}, {10000, "\xC4", L"ƒ"},
      {20127, "\xA4\xA4", L"\uFFFD\uFFFD", "??"},  // nothing above 0x7F
      {20866, "\xA4", L"╓"}, {20932, "\xC6\xFC\xCB\xDC", L"日本"}, {21866, "\xA4", L"є"},
      {28591, "\xD0\xA4\x80", L"Ð¤\u0080"},  // 0x80 to 0x9F are the C1 controls
      {28592, "\xA5", L"Ľ"}, {28593, "\xC5", L"Ċ"}, {28594, "\xC0", L"Ā"}, {28595, "\xB6", L"Ж"},
      {28596, "\xD7", L"ط"}, {28597, "\xB6", L"Ά"}, {28598, "\xDF", L"‗"}, {28599, "\xD0\x80", L"Ğ\u0080"},
      {28603, "\xFF", L"’"}, {28605, "\xA6", L"Š"}, {51932, "\xC6\xFC\xCB\xDC", L"日本"},
      {51936, "\xD6\xD0\x81\x40", L"中\uFFFD@", "\xD6\xD0?@"},  // 0x81 starts no EUC-CN character
      {51949, "\xB0\xA1\x81\x41", L"가\u0081A"},  // outside EUC-KR 0x81 is the C1 control
      {54936, "\x81\x30\x81\x30", L"\u0080"},  // the four-byte form
      {65001, "\xE4\xB8\xAD", L"中"},  // decoded without the table's converter
  };
  for (const Case& c : cases) {
    EXPECT_EQ(MultiByteToWide(c.code_page, c.bytes), c.text) << c.code_page;
    EXPECT_EQ(WideToMultiByte(c.code_page, c.text), c.narrowed ? c.narrowed : c.bytes) << c.code_page;
  }
}

}  // namespace
}  // namespace pelka
