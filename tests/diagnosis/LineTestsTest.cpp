// The line tests behind the checks: client command, server reply and bare
// POP3 error line.
#include <gtest/gtest.h>

#include <string>

#include "diagnosis/ResponseChecks.h"

namespace pelka {
namespace {

using LineTest = bool (*)(const uint8_t*, uint32_t);

bool Check(LineTest test, const std::string& payload, size_t length) {
  return test(reinterpret_cast<const uint8_t*>(payload.data()), static_cast<uint32_t>(length));
}

TEST(LineTests, RecogniseCommandsRepliesAndBareErrors) {
  const LineTest command = IsClientCommand, reply = IsServerReply, error = IsPop3ErrorReply;
  const struct {
    LineTest test;
    std::string payload;
    bool expected;
  } cases[] = {
      {command, "EHLO client.example.com\r\n", true},
      {command, "quit\r\n", true},              // letter case ignored
      {command, "MAILX FROM:<a@b>\r\n", true},  // only the beginning is compared
      {command, "QUIT", false},                 // split over packets
      {command, "HI\r\n\r\n", false},           // line end before offset 4
      {command, "HELLO\r\n", false},
      {command, "QUIT\n", false},               // a bare line feed is no line end
      {reply, "250 OK\r\n", true},
      {reply, "+OK ready\r\n", true},
      {reply, "-err no such message\r\n", true},
      {reply, " 250 x", true},  // leading white space before the number
      {reply, "12 x", true},
      {reply, "600 x", false},
      {reply, "000 x", false},
      {reply, "250-mail.example.com\r\n250 OK\r\n", false},  // first space too late
      {reply, "* OK IMAP4 ready\r\n", false},
      {reply, "250", false},
      {error, "-ERR\r\n", true},
      {error, "-err \r\n", true},  // one further character
      {error, "-ERR no such message\r\n", false},
      {error, "-ERRx \r\n", false},
      {error, "-ERR", false},
  };
  for (const auto& c : cases) EXPECT_EQ(Check(c.test, c.payload, c.payload.size()), c.expected) << c.payload;
}

TEST(LineTests, NeverReadPastTheGivenLength) {
  // The bytes after the length would make each test true.
  EXPECT_FALSE(Check(IsClientCommand, "QUIT\r\n", 5));
  EXPECT_FALSE(Check(IsServerReply, "250 OK", 3));
  EXPECT_FALSE(Check(IsPop3ErrorReply, "-ERR\r\n", 5));
  EXPECT_EQ(ParseLeadingNumber(reinterpret_cast<const uint8_t*>("5501"), 3), 550);
  for (LineTest test : {IsClientCommand, IsServerReply, IsPop3ErrorReply}) EXPECT_FALSE(test(nullptr, 10));
}

}  // namespace
}  // namespace pelka
