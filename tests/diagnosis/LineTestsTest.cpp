// The line tests behind the checks: client command, server reply and bare
// POP3 error line.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "diagnosis/ResponseChecks.h"

namespace pelka {
namespace {

enum class LineTest { kClientCommand, kServerReply, kPop3Error };

struct LineCase {
  LineTest test;
  std::string payload;
  bool expected;
};

bool RunLineTest(LineTest test, const std::string& payload, uint32_t length) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(payload.data());
  switch (test) {
    case LineTest::kClientCommand:
      return IsClientCommand(bytes, length);
    case LineTest::kServerReply:
      return IsServerReply(bytes, length);
    case LineTest::kPop3Error:
      return IsPop3ErrorReply(bytes, length);
  }
  return false;
}

TEST(LineTests, RecogniseCommandsRepliesAndBareErrors) {
  const std::vector<LineCase> cases = {
      {LineTest::kClientCommand, "EHLO client.example.com\r\n", true},
      {LineTest::kClientCommand, "quit\r\n", true},            // letter case ignored
      {LineTest::kClientCommand, "MAILX FROM:<a@b>\r\n", true},  // only the beginning is compared
      {LineTest::kClientCommand, "QUIT", false},               // split over packets
      {LineTest::kClientCommand, "HI\r\n\r\n", false},         // line end before offset 4
      {LineTest::kClientCommand, "HELLO\r\n", false},
      {LineTest::kClientCommand, "QUIT\n", false},             // a bare line feed is no line end
      {LineTest::kServerReply, "250 OK\r\n", true},
      {LineTest::kServerReply, "+OK ready\r\n", true},
      {LineTest::kServerReply, "-err no such message\r\n", true},
      {LineTest::kServerReply, " 250 x", true},    // leading white space before the number
      {LineTest::kServerReply, "12 x", true},
      {LineTest::kServerReply, "600 x", false},
      {LineTest::kServerReply, "000 x", false},
      {LineTest::kServerReply, "250-mail.example.com\r\n250 OK\r\n", false},  // first space too late
      {LineTest::kServerReply, "250-first\r\n", false},
      {LineTest::kServerReply, "* OK IMAP4 ready\r\n", false},
      {LineTest::kServerReply, "250", false},
      {LineTest::kPop3Error, "-ERR\r\n", true},
      {LineTest::kPop3Error, "-err \r\n", true},  // one further character
      {LineTest::kPop3Error, "-ERR no such message\r\n", false},
      {LineTest::kPop3Error, "-ERRx \r\n", false},
      {LineTest::kPop3Error, "-ERR", false},
  };
  for (const LineCase& c : cases) {
    EXPECT_EQ(RunLineTest(c.test, c.payload, static_cast<uint32_t>(c.payload.size())), c.expected)
        << static_cast<int>(c.test) << ": " << c.payload;
  }
}

TEST(LineTests, NeverReadPastTheGivenLength) {
  // The bytes after the length would make each test true.
  EXPECT_FALSE(RunLineTest(LineTest::kClientCommand, "QUIT\r\n", 5));
  EXPECT_FALSE(RunLineTest(LineTest::kServerReply, "250 OK", 3));
  EXPECT_FALSE(RunLineTest(LineTest::kPop3Error, "-ERR\r\n", 5));
  EXPECT_EQ(ParseLeadingNumber(reinterpret_cast<const uint8_t*>("5501"), 3), 550);
  EXPECT_FALSE(IsClientCommand(nullptr, 10));
  EXPECT_FALSE(IsServerReply(nullptr, 10));
  EXPECT_FALSE(IsPop3ErrorReply(nullptr, 10));
}

}  // namespace
}  // namespace pelka
