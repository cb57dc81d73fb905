// The platform layer: code pages, base64 text, the wide formatting of the
// original platform and the packet record reader.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "host/Base64Coder.h"
#include "host/CodePage.h"
#include "host/PacketRecord.h"
#include "host/WideFormat.h"
#include "support/FakeFlow.h"

namespace pelka {
namespace {

const std::wstring kChinese = L"\u4E2D\u6587";
const std::string kChineseGbk = "\xD6\xD0\xCE\xC4";
const std::string kChineseUtf8 = "\xE4\xB8\xAD\xE6\x96\x87";

TEST(CodePageTest, BytesToWide) {
  struct Case { const char* name; unsigned code_page; std::string bytes; std::wstring expected; };
  const std::vector<Case> cases = {
      {"zero byte kept", kCodePageGbk, std::string("a\0b", 3), std::wstring(L"a\0b", 3)},
      {"gbk", kCodePageGbk, "x" + kChineseGbk + "y", L"x" + kChinese + L"y"},
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

using Layout = testing::PacketRecordBuilder::Layout;

TEST(WideFormat, WindowsConversionsMeanWhatTheyMeantThere) {
  EXPECT_EQ(TranslateWideFormat(L"%-10s|%c|100%%"), L"%-10ls|%lc|100%%");
  EXPECT_EQ(TranslateWideFormat(L"%I64u/%I64d/%I64x"), L"%llu/%lld/%llx");
  EXPECT_EQ(FormatWide(L"%I64u-%I64d", uint64_t{18446744073709551615u}, int64_t{-5}), L"18446744073709551615--5");
  EXPECT_EQ(FormatWide(L"%c%s", L'\x4E2D', L"a"), L"\x4E2D" L"a");
  const std::wstring long_text(5000, L'z');
  EXPECT_EQ(FormatWide(L"[%s]", long_text.c_str()), L"[" + long_text + L"]") << "the buffer grows";
}

TEST(PacketRecordReader, ReadsNumberTimeAndPortsInEveryLayout) {
  for (Layout layout : {Layout::kInline, Layout::kShifted, Layout::kIndirect}) {
    testing::PacketRecordBuilder builder(layout);
    const PacketRecord* packet = builder.Build(42, 1'234'567, 40001, 25);
    uint16_t source = 0, destination = 0;
    ASSERT_TRUE(FindTcpPorts(packet, &source, &destination));
    EXPECT_EQ(source, 40001);
    EXPECT_EQ(destination, 25);
    EXPECT_EQ(GetPacketNumber(packet), 42u);
    EXPECT_EQ(GetPacketTime(packet), 1'234'567u);
  }
}

TEST(PacketRecordReader, RefusesRecordsWhoseOffsetsPointOutside) {
  using B = testing::PacketRecordBuilder;
  const std::vector<std::tuple<const char*, Layout, std::function<void(B&)>>> cases = {
      {"no layers", Layout::kInline, [](B& b) { b.record_bytes()[7] = 0; }},
      {"no TCP entry", Layout::kInline, [](B& b) { b.record_bytes()[36] = 0x11; }},
      {"table beyond the record", Layout::kInline, [](B& b) { b.record_bytes()[2] = 0xF0; }},
      {"variable area beyond the record", Layout::kInline, [](B& b) { b.record_bytes()[29] = 0x7F; }},
      {"header offset beyond the record", Layout::kInline, [](B& b) { b.record_bytes()[38] = 0xFF; }},
      {"record cut short", Layout::kInline, [](B& b) { b.packet().record_length = 30; }},
      {"stored address before the frame", Layout::kIndirect, [](B& b) { b.record_bytes()[32] -= 1; }},
      {"header beyond the frame", Layout::kIndirect, [](B& b) { b.packet().frame_length = 22; }},
      {"no frame", Layout::kIndirect, [](B& b) { b.packet().frame = nullptr; }},
  };
  for (const auto& [what, layout, damage] : cases) {
    B builder(layout);
    builder.Build(1, 2, 40001, 25);
    damage(builder);
    uint16_t source = 0, destination = 0;
    EXPECT_FALSE(FindTcpPorts(&builder.packet(), &source, &destination)) << what;
  }
  const PacketRecord empty{};
  EXPECT_EQ(GetPacketNumber(&empty), 0u);
  EXPECT_EQ(GetPacketTime(nullptr), 0u);
}

}  // namespace
}  // namespace pelka
