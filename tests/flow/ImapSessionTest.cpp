// The IMAP4 conversation, packet by packet through the flow client.
#include <gtest/gtest.h>

#include <string>

#include "support/Conversation.h"

namespace pelka {
namespace {

using testing::Conversation;

TEST(ImapCommandTest, LoginAndFetchLines) {
  struct Case {
    const char* line;
    const wchar_t* account;
    uint32_t in_body;
    const char* tag;
  } cases[] = {
      {"A1 LOGIN bob secret\r\n", L"bob", 0, "old"},
      {"a1 login bob secret\r\n", L"bob", 0, "old"},
      {"A1 LOGIN bob\r\n", L"", 0, "old"},  // no blank after the name
      {"A1 LOGIN bob secret", L"old", 1, "old"},  // no line end: ignored
      {"A2 UID FETCH 1:* (BODY.PEEK[])\r\n", L"old", 1, "A2"},
      {"tag7 uid fetch 5 (body.peek[header])\r\n", L"old", 1, "tag7"},
      {"A3 UID FETCH 1:* (FLAGS)\r\n", L"old", 1, "old"},  // changes nothing
      {"A4 FETCH 1 (BODY.PEEK[])\r\n", L"old", 1, "old"},
      {"\r\n", L"old", 1, "old"},
  };
  for (const Case& c : cases) {
    CPelkaEmailModule module;
    Conversation imap(module, 143, kProtocolImap4);
    imap.context().account = L"old";
    imap.context().fetch_tag = "old";
    imap.context().in_body = 1;
    imap.Client(c.line, 1);
    EXPECT_EQ(imap.context().account, c.account) << c.line;
    EXPECT_EQ(imap.context().in_body, c.in_body) << c.line;
    EXPECT_EQ(imap.context().fetch_tag, c.tag) << c.line;
  }
}

TEST(ImapCompletionTest, MarkerRules) {
  const std::pair<std::string, bool> cases[] = {
      {"* 1 FETCH ...\r\nA3 OK done\r\n", true},
      {"message text mentions A3 OK inside\r\n", true},  // completes early
      {"A3 ok\r\n", false},                              // the marker is case-sensitive
      {std::string("abc\0A3 OK\r\n", 11), false},        // hidden behind a zero byte
      {"\x81" "A3 OK", false},                           // second byte of a GBK character
      {"\x81\x40" "A3 OK", true},
  };
  for (const auto& [collected, complete] : cases) {
    CPelkaEmailModule module;
    Conversation imap(module, 143, kProtocolImap4);
    imap.Client("A3 UID FETCH 1 (BODY.PEEK[])\r\n", 1);
    imap.Server(collected, 2);
    EXPECT_EQ(imap.context().in_body == 0, complete) << ::testing::PrintToString(collected);
  }
}

TEST(ImapCompletionTest, AnswerDoesNotDependOnHowBytesArrive) {
  const std::string response = std::string(300, 'x') + "\x81" "A3 OK " + std::string(50, 'y') + "A3 OK\r\n";
  // The first marker starts on the second byte of a GBK character.
  const size_t marker_end = response.rfind("A3 OK") + 5;
  for (size_t step : {1u, 2u, 3u, 7u, 64u}) {
    CPelkaEmailModule module;
    Conversation imap(module, 143, kProtocolImap4);
    imap.Client("A3 UID FETCH 1 (BODY.PEEK[])\r\n", 1);
    size_t sent = 0;
    while (imap.context().in_body && sent < response.size()) {
      imap.Server(response.substr(sent, step), 2);
      sent += step;
    }
    EXPECT_TRUE(sent >= marker_end && sent - step < marker_end) << "completes with the packet that ends the marker, step " << step;
    EXPECT_EQ(imap.context().in_body, 0u) << step;
  }
}

}  // namespace
}  // namespace pelka
