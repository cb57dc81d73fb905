// The POP3 conversation, packet by packet through the flow client.
#include <gtest/gtest.h>

#include <string>

#include "support/Conversation.h"

namespace pelka {
namespace {

using testing::CollectedBytes;
using testing::Conversation;

TEST(Pop3CommandTest, CommandsStartAndEndRetrievals) {
  struct Case {
    const char* line;
    uint32_t in_body_before;
    uint32_t in_body_after;
  } cases[] = {
      {"RETR 1\r\n", 0, 1},  {"retr 1\r\n", 0, 1},  {"RETR", 0, 0},     {"RETR 1", 0, 0},
      {"TOP 1 10\r\n", 1, 0}, {"top 1 10\r\n", 1, 0}, {"QUIT\r\n", 1, 0}, {"LIST\r\n", 1, 0},
      {"UIDL\r\n", 1, 0},     {"AUTH PLAIN\r\n", 1, 0}, {"CAPA\r\n", 1, 1}, {"XTND\r\n", 1, 1},
      {"\r\nQUIT\r\n", 1, 1},  // the line end stands before index 4
      {"TOP\r\n", 1, 1},       // too short: ignored before the list is looked at
  };
  for (const Case& c : cases) {
    CPelkaEmailModule module;
    Conversation pop3(module, 110, kProtocolPop3);
    pop3.context().in_body = c.in_body_before;
    pop3.Client(c.line, 1);
    EXPECT_EQ(pop3.context().in_body, c.in_body_after) << c.line;
  }
}

TEST(Pop3CommandTest, UserLinesSetTheLoginName) {
  const std::pair<const char*, const wchar_t*> cases[] = {
      {"USER alice\r\n", L"alice"}, {"user bob@example.org\r\n", L"bob@example.org"}, {"USER\r\n", L""},
      {"USER alice", L"old"},  // no line end: ignored
  };
  for (const auto& [line, account] : cases) {
    CPelkaEmailModule module;
    Conversation pop3(module, 110, kProtocolPop3);
    pop3.context().account = L"old";
    pop3.Client(line, 1);
    EXPECT_EQ(pop3.context().account, account) << line;
  }
}

TEST(Pop3ErrorReplyTest, OnlyShortErrLinesRefuseARetrieval) {
  const std::pair<const char*, bool> cases[] = {
      {"-ERR\r\n", true},  {"-err\r\n", true}, {"-ERRx\r\n", true}, {"-ERR no such message\r\n", false},
      {"-ERR", false},      {"+OK\r\n", false},
  };
  for (const auto& [reply, refused] : cases) {
    CPelkaEmailModule module;
    Conversation pop3(module, 110, kProtocolPop3);
    pop3.Client("RETR 9\r\n", 1);
    EXPECT_EQ(pop3.Server(reply, 2), refused ? 1u : 0u) << reply;
    EXPECT_EQ(CollectedBytes(pop3.context()), refused ? "" : reply) << reply;
    EXPECT_EQ(pop3.context().reply_seen, refused ? 0u : 1u) << reply;
    EXPECT_EQ(pop3.context().in_body, 1u) << reply;
  }
}

TEST(Pop3SessionTest, AnEndingCommandKeepsTheUnfinishedBytes) {
  CPelkaEmailModule module;
  Conversation pop3(module, 110, kProtocolPop3);
  pop3.Client("RETR 1\r\n", 1);
  pop3.Server("+OK\r\npartial", 2);
  pop3.Client("NOOP\r\n", 3);
  EXPECT_EQ(pop3.context().in_body, 0u);
  EXPECT_EQ(CollectedBytes(pop3.context()), "+OK\r\npartial");
  pop3.Client("RETR 2\r\n", 4);
  pop3.Server("-ERR\r\n", 5);  // no new status-line check: reply_seen stayed set
  EXPECT_EQ(CollectedBytes(pop3.context()), "+OK\r\npartial-ERR\r\n");
}

// SMTP's own test has the limit's edges; here POP3 and IMAP4 reach it too.
TEST(FlowLimitTest, Pop3AndImapResponsesPastTheLimitEndTheMessage) {
  const struct {
    uint16_t port, application;
    const char* request;
  } cases[] = {{110, kProtocolPop3, "RETR 1\r\n"}, {143, kProtocolImap4, "A3 UID FETCH 1 (BODY.PEEK[])\r\n"}};
  for (const auto& c : cases) {
    CPelkaEmailModule module;
    module.set_max_flow_length(100);
    Conversation session(module, c.port, c.application);
    session.Client(c.request, 1);
    session.Server("+OK\r\n" + std::string(200, 'x'), 2);
    EXPECT_EQ(session.Server("more", 3), 1u) << c.port;
    EXPECT_EQ(session.context().in_body, 0u) << c.port;
    EXPECT_EQ(CollectedBytes(session.context()), "") << c.port;
  }
}

}  // namespace
}  // namespace pelka
