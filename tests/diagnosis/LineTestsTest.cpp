// The line tests behind the checks: client command, server reply, bare POP3
// error line and the leading status number.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "diagnosis/ResponseChecks.h"

namespace pelka {
namespace {

const uint8_t* Bytes(const std::string& text) { return reinterpret_cast<const uint8_t*>(text.data()); }
uint32_t Length(const std::string& text) { return static_cast<uint32_t>(text.size()); }

struct LineCase {
  std::string payload;
  bool expected;
  const char* why;
};

TEST(IsClientCommand, RecognisesCommandLines) {
  const std::vector<LineCase> cases = {
      {"EHLO client.example.com\r\n", true, "a command word and its line end"},
      {"quit\r\n", true, "letter case is ignored"},
      {"MAILX FROM:<a@b>\r\n", true, "only the first four letters are compared"},
      {"VRFY bob\r\n", true, "the last word of the list"},
      {"AUTH", false, "too short to hold a line end"},
      {"QUIT", false, "no line end: a command split over packets"},
      {"HI\r\n\r\n", false, "the line end lies before offset 4"},
      {"RETR 1 and more of it", false, "no line end at all"},
      {"HELLO\r\n", false, "HELL is no command word"},
      {"250 OK\r\n", false, "a reply is no command"},
      {"\r\nQUIT\r\n", false, "the first line end counts"},
      {"QUIT\n", false, "a bare line feed is no line end"},
  };
  for (const LineCase& c : cases) {
    EXPECT_EQ(IsClientCommand(Bytes(c.payload), Length(c.payload)), c.expected) << c.why << ": " << c.payload;
  }
}

TEST(IsServerReply, RecognisesStatusLines) {
  const std::vector<LineCase> cases = {
      {"250 OK\r\n", true, "a code and its space"},
      {"220 mail.example.com ESMTP\r\n", true, "a greeting"},
      {"+OK ready\r\n", true, "a POP3 success line"},
      {"-err no such message\r\n", true, "a POP3 error line, letter case ignored"},
      {"599 x", true, "the highest code"},
      {"600 x", false, "above 599"},
      {"000 x", false, "below 1"},
      {"250-mail.example.com\r\n250 OK\r\n", false, "a continuation line: its first space comes later"},
      {"250-first\r\n", false, "a continuation line without any space"},
      {"25000 x", false, "the space lies beyond offset 4"},
      {"abc x", false, "no number"},
      {" 250 x", true, "leading white space before the number is accepted"},
      {"+250 x", true, "a sign before the number is accepted"},
      {"12 x", true, "a short code still lies in range"},
      {"250", false, "shorter than four characters"},
      {"* OK IMAP4 ready\r\n", false, "no status of these protocols"},
  };
  for (const LineCase& c : cases) {
    EXPECT_EQ(IsServerReply(Bytes(c.payload), Length(c.payload)), c.expected) << c.why << ": " << c.payload;
  }
}

TEST(IsPop3ErrorReply, AcceptsOnlyBareErrorLines) {
  const std::vector<LineCase> cases = {
      {"-ERR\r\n", true, "a bare error line"},
      {"-err\r\n", true, "letter case is ignored"},
      {"-ERR \r\n", true, "one further character before the line end"},
      {"-ERR no such message\r\n", false, "an error line that carries a message"},
      {"-ERRx \r\n", false, "the line end lies at offset 6"},
      {"-ERR", false, "no line end"},
      {"+OK\r\n", false, "not an error"},
      {"-ER\r\n", false, "not -ERR"},
  };
  for (const LineCase& c : cases) {
    EXPECT_EQ(IsPop3ErrorReply(Bytes(c.payload), Length(c.payload)), c.expected) << c.why << ": " << c.payload;
  }
}

TEST(LineTests, NeverReadPastTheGivenLength) {
  // The bytes after the length would make each test true.
  const std::string text = "QUIT\r\n-ERR\r\n";
  EXPECT_FALSE(IsClientCommand(Bytes(text), 5));
  EXPECT_FALSE(IsServerReply(Bytes("250 OK"), 3));
  EXPECT_FALSE(IsPop3ErrorReply(Bytes(text) + 6, 5));
  EXPECT_EQ(ParseLeadingNumber(Bytes("5501"), 3), 550);
  EXPECT_FALSE(IsClientCommand(nullptr, 10));
  EXPECT_FALSE(IsServerReply(nullptr, 10));
  EXPECT_FALSE(IsPop3ErrorReply(nullptr, 10));
}

TEST(ParseLeadingNumber, ReadsLikeTheCLibrary) {
  const std::vector<std::pair<std::string, int64_t>> cases = {
      {"550 denied", 550}, {"  \t354 go", 354}, {"-421 x", -421}, {"+250", 250},
      {"abc", 0},          {"", 0},            {"- 5", 0},        {"99999999999999999999999", int64_t{1} << 40},
  };
  for (const auto& [text, expected] : cases) {
    const int64_t value = ParseLeadingNumber(Bytes(text), Length(text));
    if (expected == (int64_t{1} << 40)) {
      EXPECT_GT(value, 599) << text << ": huge numbers stay out of the status range";
    } else {
      EXPECT_EQ(value, expected) << text;
    }
  }
}

}  // namespace
}  // namespace pelka
