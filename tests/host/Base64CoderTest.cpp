#include "host/Base64Coder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace pelka {
namespace {

TEST(Base64CoderTest, DecodeString) {
  struct Case {
    const wchar_t* input;
    const wchar_t* expected;  // null: nothing decodes
  };
  const std::vector<Case> cases = {
      {nullptr, nullptr},
      {L"", nullptr},
      {L"====", nullptr},
      {L" ?*\r\nQ", nullptr},
      {L"aGVs\r\n b\u4E2DG8", L"hello"},     // characters outside the alphabet skipped
      {L"aGk=aGVsbG8=", L"hi"},              // "=" ends the data
      {L"1tDOxA==", L"\u4E2D\u6587"},        // GBK bytes read in the ANSI code page
  };
  CTQBase64Coder coder;  // one coder for all: each call replaces its text
  for (const Case& c : cases) {
    const wchar_t* decoded = coder.DecodeString(c.input);
    if (!c.expected) {
      EXPECT_EQ(decoded, nullptr) << (c.input ? c.input : L"(null)");
    } else {
      ASSERT_NE(decoded, nullptr) << c.input;
      EXPECT_EQ(std::wstring(decoded), c.expected) << c.input;
    }
  }
}

}  // namespace
}  // namespace pelka
