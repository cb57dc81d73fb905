#include "host/CodePage.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

namespace pelka {
namespace {

const std::wstring kChinese = L"\u4E2D\u6587";
const std::string kChineseGbk = "\xD6\xD0\xCE\xC4";
const std::string kChineseUtf8 = "\xE4\xB8\xAD\xE6\x96\x87";

struct ToWideCase {
  const char* name;
  unsigned code_page;
  std::string bytes;
  std::wstring expected;
};

TEST(CodePageTest, BytesToWide) {
  const std::vector<ToWideCase> cases = {
      {"zero byte kept", kCodePageGbk, std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
      {"gbk", kCodePageGbk, "x" + kChineseGbk + "y", L"x" + kChinese + L"y"},
      {"ansi is gbk by default", kCodePageThreadAnsi, kChineseGbk, kChinese},
      {"utf-8 beyond the basic plane", kCodePageUtf8, kChineseUtf8 + "\xF0\x9F\x98\x80", kChinese + L"\U0001F600"},
      {"invalid utf-8 goes on", kCodePageUtf8, "a\xC3(\x80\x80z", L"a\uFFFD(\uFFFD\uFFFDz"},
      {"truncated utf-8 at the end", kCodePageUtf8, "ok\xE4\xB8", L"ok\uFFFD\uFFFD"},
      {"invalid gbk goes on", kCodePageGbk, "a\xFF" + kChineseGbk + "\xD6", L"a\uFFFD" + kChinese + L"\uFFFD"},
      {"unknown code page keeps ascii", 12345, "ab\xD6", L"ab\uFFFD"},
  };
  for (const ToWideCase& c : cases) EXPECT_EQ(MultiByteToWide(c.code_page, c.bytes), c.expected) << c.name;
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
        const std::string& bytes = utf8 ? kChineseUtf8 : kChineseGbk;
        if (MultiByteToWide(utf8 ? kCodePageUtf8 : kCodePageGbk, bytes) != kChinese) ++failures[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

// UTF-8 byte strings built from valid characters of every length, truncated
// and overlong forms, surrogates, noncharacters and stray bytes, converted and
// folded into one digest. The digest was taken when every UTF-8 text went
// through the converter underneath; any difference in any text changes it.
TEST(CodePageTest, Utf8TextsConvertAsTheyAlwaysDid) {
  const std::vector<std::string> pieces = {
      "a", " ", "\r\n", std::string(1, '\0'), "\x7F", "\xC3\xA9", "\xE4\xB8\xAD", "\xF0\x9F\x98\x80",
      "\xEF\xBF\xBD", "\xC3", "\xE4\xB8", "\xF0\x9F\x98", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80",
      "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xB7\x90", "\xEF\xBF\xBE", "\xEF\xBF\xBF", "\xF4\x8F\xBF\xBF",
      "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "\x80", "\xBF", "\xFE", "\xFF", "\xC2\x80", "\xDF\xBF"};
  std::mt19937 random(20251123);
  uint64_t digest = 14695981039346656037ull;
  for (int round = 0; round < 5000; ++round) {
    std::string bytes;
    const int length = static_cast<int>(random() % 12);
    for (int i = 0; i < length; ++i) bytes += pieces[random() % pieces.size()];
    for (const wchar_t c : MultiByteToWide(kCodePageUtf8, bytes)) {
      digest = (digest ^ static_cast<uint32_t>(c)) * 1099511628211ull;
    }
    digest = (digest ^ 0xFFFFFFFFu) * 1099511628211ull;
  }
  EXPECT_EQ(digest, 4788039359703302564ull);
}

}  // namespace
}  // namespace pelka
