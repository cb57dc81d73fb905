#include "host/Base64Coder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace pelka {
namespace {

struct DecodeCase {
  const char* name;
  const wchar_t* input;
  const wchar_t* expected;  // null: no decoded text
};

TEST(Base64CoderTest, DecodeString) {
  const std::vector<DecodeCase> cases = {
      {"null", nullptr, nullptr},
      {"empty", L"", nullptr},
      {"only padding", L"====", nullptr},
      {"only characters outside the alphabet", L" ?*\r\n", nullptr},
      {"too short for a byte", L"Q", nullptr},
      {"ascii", L"aGVsbG8=", L"hello"},
      {"unpadded", L"aGVsbG8", L"hello"},
      {"gbk bytes read in the ansi code page", L"1tDOxA==", L"\u4E2D\u6587"},
      {"gb2312 subject", L"suLK1NPKvP4=", L"\u6D4B\u8BD5\u90AE\u4EF6"},
      {"blanks and line ends skipped", L"aGVs\r\n bG8=", L"hello"},
      {"padding stops the data", L"aGk=aGVsbG8=", L"hi"},
      {"wide characters outside the alphabet skipped", L"aG\u4E2DVsbG8", L"hello"},
  };
  for (const DecodeCase& c : cases) {
    CTQBase64Coder coder;
    const wchar_t* decoded = coder.DecodeString(c.input);
    if (!c.expected) {
      EXPECT_EQ(decoded, nullptr) << c.name;
      continue;
    }
    ASSERT_NE(decoded, nullptr) << c.name;
    EXPECT_EQ(std::wstring(decoded), c.expected) << c.name;
  }
}

TEST(Base64CoderTest, DecodedTextStaysUntilTheNextCall) {
  CTQBase64Coder coder;
  const wchar_t* first = coder.DecodeString(L"aGk=");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(std::wstring(first), L"hi");
  EXPECT_EQ(coder.DecodeString(L"!!"), nullptr);
  const wchar_t* second = coder.DecodeString(L"aGVsbG8=");
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(std::wstring(second), L"hello");
}

}  // namespace
}  // namespace pelka
