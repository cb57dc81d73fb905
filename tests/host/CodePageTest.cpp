#include "host/CodePage.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "host/Base64Coder.h"

namespace pelka {
namespace {

const std::wstring kChinese = L"\u4E2D\u6587";
const std::string kChineseGbk = "\xD6\xD0\xCE\xC4";
const std::string kChineseUtf8 = "\xE4\xB8\xAD\xE6\x96\x87";

TEST(CodePageTest, BytesToWide) {
  struct Case {
    const char* name;
    unsigned code_page;
    std::string bytes;
    std::wstring expected;
  };
  const std::vector<Case> cases = {
      {"zero byte kept", kCodePageGbk, std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
      {"gbk", kCodePageGbk, "x" + kChineseGbk + "y", L"x" + kChinese + L"y"},
      {"ansi is gbk by default", kCodePageThreadAnsi, kChineseGbk, kChinese},
      {"utf-8 beyond the basic plane", kCodePageUtf8, kChineseUtf8 + "\xF0\x9F\x98\x80", kChinese + L"\U0001F600"},
      {"invalid utf-8 goes on", kCodePageUtf8, "a\xC3(\x80\x80z", L"a\uFFFD(\uFFFD\uFFFDz"},
      {"truncated utf-8 at the end", kCodePageUtf8, "ok\xE4\xB8", L"ok\uFFFD\uFFFD"},
      {"utf-8 overlong forms and surrogates", kCodePageUtf8, "\xC0\xAF|\xE0\x80\xAF|\xED\xA0\x80|\xED\x9F\xBF",
       L"\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD|\uD7FF"},
      {"utf-8 noncharacters and stray bytes", kCodePageUtf8, "\xEF\xBF\xBE\xEF\xB7\x90|\xBF\xFE\xFF|\xF4\x8F\xBF\xBF",
       L"\uFFFE\uFDD0|\uFFFD\uFFFD\uFFFD|\U0010FFFF"},
      {"invalid gbk goes on", kCodePageGbk, "a\xFF" + kChineseGbk + "\xD6", L"a\uFFFD" + kChinese + L"\uFFFD"},
      {"unknown code page keeps ascii", 12345, "ab\xD6", L"ab\uFFFD"},
  };
  for (const Case& c : cases) EXPECT_EQ(MultiByteToWide(c.code_page, c.bytes), c.expected) << c.name;
}

TEST(CodePageTest, WideToBytes) {
  const std::wstring not_a_character = std::wstring(L"a") + wchar_t(0x110000) + wchar_t(0xD800) + L"b";
  EXPECT_EQ(WideToMultiByte(kCodePageGbk, L"<" + kChinese + L">"), "<" + kChineseGbk + ">");
  EXPECT_EQ(WideToMultiByte(kCodePageUtf8, kChinese), kChineseUtf8);
  EXPECT_EQ(WideToMultiByte(kCodePageGbk, L"a\u0E01b"), "a?b");
  EXPECT_EQ(WideToMultiByte(kCodePageUtf8, not_a_character), "a??b");
  EXPECT_EQ(WideToMultiByte(12345, L"a" + kChinese), "a??");
}

TEST(CodePageTest, LongTextRoundTripsThroughEveryBufferGrowth) {
  std::wstring text;
  for (int i = 0; i < 5000; ++i) text += kChinese + L"." + wchar_t(L'a' + i % 26);
  for (unsigned code_page : {unsigned{kCodePageGbk}, unsigned{kCodePageUtf8}}) {
    EXPECT_EQ(MultiByteToWide(code_page, WideToMultiByte(code_page, text)), text) << code_page;
  }
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

TEST(CodePageTest, ThreadsConvertIndependently) {
  std::vector<int> failures(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < 500; ++i) {
        const bool utf8 = (i + t) % 2;
        if (MultiByteToWide(utf8 ? kCodePageUtf8 : kCodePageGbk, utf8 ? kChineseUtf8 : kChineseGbk) != kChinese)
          ++failures[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

TEST(Base64CoderTest, DecodeString) {
  const std::vector<std::pair<const wchar_t*, const wchar_t*>> cases = {  // null: nothing decodes
      {nullptr, nullptr},
      {L"", nullptr},
      {L"====", nullptr},
      {L" ?*\r\nQ", nullptr},
      {L"aGVs\r\n b\u4E2DG8", L"hello"},  // characters outside the alphabet skipped
      {L"aGk=aGVsbG8=", L"hi"},           // "=" ends the data
      {L"1tDOxA==", L"\u4E2D\u6587"},     // GBK bytes read in the ANSI code page
  };
  CTQBase64Coder coder;  // one coder for all: each call replaces its text
  for (const auto& [input, expected] : cases) {
    const wchar_t* decoded = coder.DecodeString(input);
    EXPECT_EQ(decoded ? std::wstring(decoded) : L"(null)", expected ? expected : L"(null)")
        << (input ? input : L"(null)");
  }
}

}  // namespace
}  // namespace pelka
