#include "mail/EncodedWords.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace pelka {
namespace {

const std::wstring kZhongWen = L"\u4E2D\u6587";  // "=?utf-8?b?5Lit5paH?=", GBK "1tDOxA=="

TEST(EncodedWordsTest, DecodeEncodedWords) {
  struct WordsCase { const char* name; std::string input; std::wstring expected; std::wstring output_before = L""; };
  const std::vector<WordsCase> cases = {
      {"plain gbk bytes", "\xD6\xD0\xCE\xC4!", kZhongWen + L"!"},
      {"line break becomes a blank", "a\r\nb\rc\nd", L"a b\rc\nd"},
      {"utf-8 base64 after plain text", "Re: =?utf-8?b?5Lit5paH?=", L"Re: " + kZhongWen},
      {"prefix in capitals", "=?UTF-8?B?5Lit5paH?=", kZhongWen},
      {"words joined before decoding, blank dropped", "=?utf-8?b?5Lit5p?= =?utf-8?b?aH?=", kZhongWen},
      {"tail after the last word dropped", "=?utf-8?b?5Lit5paH?= tail", kZhongWen},
      {"text between words dropped", "A =?gbk?b?aGVs?= mid =?gbk?b?bG8?= end", L"A hello"},
      {"gb2312 quoted-printable", "=?gb2312?q?=D6=D0=CE=C4?=", kZhongWen},
      {"padding stops what was joined after it", "=?gb2312?b?aGk=?==?gb2312?b?aGVsbG8=?=", L"hi"},
      {"decoded with the last word's form", "=?utf-8?b?5Lit?==?utf-8?q?=E6=96=87?=", L"5Lit\u6587"},
      {"form order decides, not position", "=?gbk?b?1tDOxA==?= =?gb2312?b?aGk=?=",
       L"=?gbk?b?1tDOxA==?= hi"},
      {"other charsets are plain text", "=?iso-8859-1?q?caf=E9?=", L"=?iso-8859-1?q?caf=E9?="},
      {"underscore stays", "=?utf-8?q?a_b?=", L"a_b"},
      {"equals sign without digits ends the text", "=?gbk?q?ab=XYcd?=", L"ab"},
      {"invalid utf-8 goes on", "=?utf-8?q?a=FFb?=", L"a\uFFFDb"},
      {"utf-8 cut short inside the text: one U+FFFD", "=?utf-8?q?=E4=BA_x?=", L"\uFFFD_x"},
      {"empty payload keeps the leading text", "Re: =?gbk?b?\?=", L"Re: ", L"old"},
      {"empty utf-8 result keeps the output behind the leading text", "Re: =?utf-8?b?\?=", L"Re: old", L"old"},
      {"prefix without a closing mark", "Re: =?utf-8?b?5Lit5paH", L"Re: old", L"old"},
      {"unclosed prefix after a word", "=?gbk?b?aGk=?= =?gbk?b?", L"hi"},
      {"zero byte ends the text", std::string("ab\0=?utf-8?b?5Lit5paH?=", 23), L"ab"},
      {"zero byte inside the decoded bytes", "=?gbk?q?ab=00cd?=", L"ab"},
  };
  for (const WordsCase& c : cases) {
    std::string text = c.input;
    std::wstring output = c.output_before;
    DecodeEncodedWords(text, output);
    EXPECT_EQ(output, c.expected) << c.name;
  }
}

// Bytes written before the terminating zero, and the decoder's answer.
struct BytesCase { const char* name; std::string input, expected; size_t result; };

// A "=" ends base64 data, counts one more and leaves the byte after the data
// as the caller had it; everything else ends with a zero byte.
TEST(EncodedWordsTest, ByteDecoders) {
  using Decoder = size_t (*)(std::string_view, std::span<char>);
  const std::vector<std::pair<Decoder, std::vector<BytesCase>>> decoders = {
      {DecodeBase64Bytes,
       {{"unpadded", "aGVsbG8", "hello", 5},
        {"padding ends and counts one more", "aGk=", "hi", 3},
        {"padding stops later data", "aGk=aGVsbG8", "hi", 3},
        {"bytes outside the alphabet skipped", "aG Vs\r\n?\xC3" "bG8", "hello", 5},
        {"zero byte ends the input", std::string("aGk\0aGk", 7), "hi", 2}}},
      {DecodeQuotedPrintableBytes,
       {{"empty", "", "", 0},
        {"copied", "a_b c", "a_b c", 5},
        {"hex in either case", "a=3Db=3dc", "a=b=c", 5},
        {"soft line break skipped", "soft=\r\nbreak", "softbreak", 9},
        {"no digit leaves a zero byte", "a=XYb", std::string("a\0b", 3), 3},
        {"one digit, the next byte consumed too", "a=4zb", "a\x04" "b", 3},
        {"one digit at the end", "a=4", "a\x04", 2},
        {"equals and carriage return at the end", "a=\r", std::string("a\0", 2), 2},
        {"zero byte ends the input", std::string("ab\0cd", 5), "ab", 2}}},
  };
  for (const auto& [decode, cases] : decoders) {
    for (const BytesCase& c : cases) {
      std::vector<char> buffer(c.input.size() + 1, '\x7F');
      EXPECT_EQ(decode(c.input, buffer), c.result) << c.name;
      EXPECT_EQ(std::string(buffer.data(), c.expected.size()), c.expected) << c.name;
      EXPECT_EQ(buffer[c.expected.size()], c.result > c.expected.size() ? '\x7F' : '\0') << c.name;
    }
  }
}

TEST(EncodedWordsTest, ByteDecodersNeverWritePastTheBuffer) {
  std::array<char, 4> storage{'#', '#', '#', '#'};
  const std::span<char> two(storage.data(), 2);
  EXPECT_EQ(DecodeBase64Bytes("aGVsbG8", two), 5u);
  EXPECT_EQ(DecodeQuotedPrintableBytes("=41=42=43", two), 3u);
  EXPECT_EQ(storage[2], '#');
  EXPECT_EQ(storage[3], '#');
  EXPECT_EQ(DecodeBase64Bytes("aGVsbG8", std::span<char>()), 5u);
}

}  // namespace
}  // namespace pelka
