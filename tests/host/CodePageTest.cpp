#include "host/CodePage.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace pelka {
namespace {

const std::wstring kChinese = L"\u4E2D\u6587";        // two ideographs
const std::string kChineseGbk = "\xD6\xD0\xCE\xC4";
const std::string kChineseUtf8 = "\xE4\xB8\xAD\xE6\x96\x87";

// Restores the process's ANSI code page when a test changed it.
class AnsiCodePageGuard {
 public:
  AnsiCodePageGuard() : saved_(GetAnsiCodePage()) {}
  ~AnsiCodePageGuard() { SetAnsiCodePage(saved_); }

 private:
  unsigned saved_;
};

struct ToWideCase {
  const char* name;
  unsigned code_page;
  std::string bytes;
  std::wstring expected;
};

TEST(CodePageTest, BytesToWide) {
  const std::vector<ToWideCase> cases = {
      {"empty", kCodePageGbk, "", L""},
      {"ascii", kCodePageGbk, "Re: hello", L"Re: hello"},
      {"zero byte kept", kCodePageGbk, std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
      {"gbk", kCodePageGbk, "x" + kChineseGbk + "y", L"x" + kChinese + L"y"},
      {"ansi is gbk by default", kCodePageAnsi, kChineseGbk, kChinese},
      {"thread ansi is gbk by default", kCodePageThreadAnsi, kChineseGbk, kChinese},
      {"utf-8", kCodePageUtf8, kChineseUtf8, kChinese},
      {"utf-8 beyond the basic plane", kCodePageUtf8, "\xF0\x9F\x98\x80", L"\U0001F600"},
      {"invalid utf-8 goes on", kCodePageUtf8, "a\xC3(b", L"a\uFFFD(b"},
      {"lone continuation bytes", kCodePageUtf8, "\x80\x80z", L"\uFFFD\uFFFDz"},
      {"truncated utf-8 at the end", kCodePageUtf8, "ok\xE4\xB8", L"ok\uFFFD\uFFFD"},
      {"gbk lead byte at the end", kCodePageGbk, kChineseGbk + "\xD6", kChinese + L"\uFFFD"},
      {"invalid gbk byte goes on", kCodePageGbk, "a\xFF" + kChineseGbk, L"a\uFFFD" + kChinese},
      {"unknown code page keeps ascii", 12345, "ab\xD6", L"ab\uFFFD"},
      {"latin-1", 28591, "caf\xE9", L"caf\u00E9"},
  };
  for (const ToWideCase& c : cases) {
    EXPECT_EQ(MultiByteToWide(c.code_page, c.bytes), c.expected) << c.name;
  }
}

struct ToBytesCase {
  const char* name;
  unsigned code_page;
  std::wstring text;
  std::string expected;
};

TEST(CodePageTest, WideToBytes) {
  const std::vector<ToBytesCase> cases = {
      {"empty", kCodePageGbk, L"", ""},
      {"ascii", kCodePageGbk, L"plain", "plain"},
      {"gbk", kCodePageGbk, L"<" + kChinese + L">", "<" + kChineseGbk + ">"},
      {"utf-8", kCodePageUtf8, kChinese, kChineseUtf8},
      {"unmappable becomes ?", kCodePageGbk, L"a\u0E01b", "a?b"},
      {"not a character", kCodePageUtf8, std::wstring(L"a") + wchar_t(0x110000) + L"b", "a?b"},
      {"unknown code page", 12345, L"a" + kChinese, "a??"},
  };
  for (const ToBytesCase& c : cases) {
    EXPECT_EQ(WideToMultiByte(c.code_page, c.text), c.expected) << c.name;
  }
}

TEST(CodePageTest, LongTextRoundTripsThroughEveryBufferGrowth) {
  std::wstring text;
  for (int i = 0; i < 5000; ++i) text += kChinese + L"." + wchar_t(L'a' + i % 26);
  for (unsigned code_page : {unsigned{kCodePageGbk}, unsigned{kCodePageUtf8}}) {
    EXPECT_EQ(MultiByteToWide(code_page, WideToMultiByte(code_page, text)), text) << code_page;
  }
}

TEST(CodePageTest, AnsiCodePageIsAProcessSetting) {
  AnsiCodePageGuard guard;
  EXPECT_EQ(GetAnsiCodePage(), unsigned{kCodePageGbk});
  EXPECT_FALSE(SetAnsiCodePage(12345));
  EXPECT_FALSE(SetAnsiCodePage(kCodePageThreadAnsi));
  EXPECT_EQ(GetAnsiCodePage(), unsigned{kCodePageGbk});

  ASSERT_TRUE(SetAnsiCodePage(kCodePageUtf8));
  EXPECT_EQ(AnsiToWide(kChineseUtf8), kChinese);
  std::wstring seen_on_other_thread;
  std::thread([&] { seen_on_other_thread = AnsiToWide(kChineseUtf8); }).join();
  EXPECT_EQ(seen_on_other_thread, kChinese);
}

TEST(CodePageTest, SupportedCodePages) {
  EXPECT_TRUE(IsCodePageSupported(kCodePageGbk));
  EXPECT_TRUE(IsCodePageSupported(kCodePageUtf8));
  EXPECT_TRUE(IsCodePageSupported(kCodePageAnsi));
  EXPECT_FALSE(IsCodePageSupported(12345));
}

TEST(CodePageTest, ThreadsConvertIndependently) {
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < 500; ++i) {
        const unsigned code_page = (i + t) % 2 ? kCodePageUtf8 : kCodePageGbk;
        const std::string bytes = code_page == kCodePageUtf8 ? kChineseUtf8 : kChineseGbk;
        if (MultiByteToWide(code_page, bytes) != kChinese) ++failures[t];
        if (WideToMultiByte(code_page, kChinese) != bytes) ++failures[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace pelka
