// SMTP, POP3 and IMAP4 conversations, packet by packet through the flow
// client. Whole sessions and their records are in ConversationRecordsTest.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "flow/EmailFlowData.h"
#include "host/CodePage.h"
#include "support/Conversation.h"

namespace pelka {
namespace {

using testing::CollectedBytes;

// A module with one flow on the given service port.
struct Session : CPelkaEmailModule, testing::Conversation {
  explicit Session(uint16_t port)
      : Conversation(*this, port, port == 25 ? kProtocolSmtp : port == 110 ? kProtocolPop3 : kProtocolImap4) {}
};

const char kFetch[] = "A3 UID FETCH 1 (BODY.PEEK[])\r\n";

TEST(ClientLineTest, StartsOrEndsABodyAndSetsTheLoginName) {
  const struct {
    uint16_t port;
    const char* line;
    uint32_t in_body_before, in_body_after;
    const wchar_t* account = L"old";
    const char* fetch_tag = "old";
  } cases[] = {
      // SMTP: DATA or BDAT; only the first four bytes are compared.
      {25, "DATA\r\n", 0, 1}, {25, "data\r\n", 0, 1}, {25, "bdat 86\r\n", 0, 1},
      {25, "DATAX\r\n", 0, 1}, {25, "DAT\r\n", 0, 0}, {25, "DATA", 0, 0}, {25, "DATA without line end", 0, 0},
      {25, " DATA\r\n", 0, 0}, {25, "\r\nDATA\r\n", 0, 0}, {25, "MAIL FROM:<a@b>\r\n", 0, 0},
      // POP3: RETR starts a retrieval, the listed commands end it.
      {110, "RETR 1\r\n", 0, 1}, {110, "retr 1\r\n", 0, 1}, {110, "RETR", 0, 0}, {110, "RETR 1", 0, 0},
      {110, "TOP 1 10\r\n", 1, 0}, {110, "top 1 10\r\n", 1, 0}, {110, "QUIT\r\n", 1, 0}, {110, "LIST\r\n", 1, 0},
      {110, "UIDL\r\n", 1, 0}, {110, "AUTH PLAIN\r\n", 1, 0}, {110, "CAPA\r\n", 1, 1}, {110, "XTND\r\n", 1, 1},
      {110, "\r\nQUIT\r\n", 1, 1},  // the line end stands before index 4
      {110, "TOP\r\n", 1, 1},       // too short: ignored before the list is looked at
      {110, "USER alice\r\n", 0, 0, L"alice"}, {110, "user bob@example.org\r\n", 0, 0, L"bob@example.org"},
      {110, "USER\r\n", 0, 0, L""}, {110, "USER alice", 0, 0},  // no line end: ignored
      // IMAP4: LOGIN names the account, a UID FETCH of a body starts one.
      {143, "A1 LOGIN bob secret\r\n", 1, 0, L"bob"}, {143, "a1 login bob secret\r\n", 1, 0, L"bob"},
      {143, "A1 LOGIN bob\r\n", 1, 0, L""},  // no blank after the name
      {143, "A1 LOGIN bob secret", 1, 1},    // no line end: ignored
      {143, "A2 UID FETCH 1:* (BODY.PEEK[])\r\n", 1, 1, L"old", "A2"},
      {143, "tag7 uid fetch 5 (body.peek[header])\r\n", 1, 1, L"old", "tag7"},
      {143, "A3 UID FETCH 1:* (FLAGS)\r\n", 1, 1}, {143, "A4 FETCH 1 (BODY.PEEK[])\r\n", 1, 1}, {143, "\r\n", 1, 1},
      // Only a body fetch that leaves the message unread starts one.
      {143, "A5 UID FETCH 1 (BODY[])\r\n", 0, 0}, {143, "A6 UID FETCH 1 (FLAGS)\r\n", 0, 0},
      {143, "A7 FETCH 1 (BODY.PEEK[])\r\n", 0, 0}, {143, "A8 UID FETCH 1 (BODY.PEEK[])\r\n", 0, 1, L"old", "A8"},
  };
  for (const auto& c : cases) {
    Session session(c.port);
    session.context().account = L"old";
    session.context().fetch_tag = "old";
    session.context().in_body = c.in_body_before;
    session.Client(c.line, 1);
    EXPECT_EQ(session.context().in_body, c.in_body_after) << c.line;
    EXPECT_EQ(session.context().account, c.account) << c.line;
    EXPECT_EQ(session.context().fetch_tag, c.fetch_tag) << c.line;
  }
}

TEST(EndOfBodyTest, SmtpEndMarkerAndImapCompletionWhereverTheyFall) {
  const struct {
    uint16_t port;
    std::vector<std::string> packets;
    bool complete;
  } cases[] = {
      {25, {"\r\n.\r\n"}, true},
      {25, {"abc\r\n", ".\r\n"}, true},
      {25, {"abc\r", "\n", ".", "\r", "\n"}, true},
      {25, {"abc\r\n..\r\n"}, false},  // a dot-stuffed line
      {25, {"abc\r\n.", "x\r\n"}, false},
      {25, {std::string(5000, 'x'), "\r\n.\r\n", "tail"}, true},
      {143, {"* 1 FETCH ...\r\nA3 OK done\r\n"}, true},
      {143, {"message text mentions A3 OK inside\r\n"}, true},  // completes early
      {143, {"A3 ok\r\n"}, false},                              // the marker is case-sensitive
      {143, {std::string("abc\0A3 OK\r\n", 11)}, false},        // hidden behind a zero byte
      {143, {"\x81\x40" "A3 OK"}, true},                        // a whole GBK character before it
  };
  for (const auto& c : cases) {
    Session session(c.port);
    session.Client(c.port == 25 ? "DATA\r\n" : kFetch, 1);
    for (const std::string& packet : c.packets) {
      if (session.context().in_body) session.Send(c.port == 25 ? kFromClient : kFromServer, packet, 2);
    }
    EXPECT_EQ(session.context().in_body == 0, c.complete) << ::testing::PrintToString(c.packets);
  }
}

// The completion marker may not start on a double-byte character's second byte.
TEST(EndOfBodyTest, ImapMarkerAfterALeadByteIsNoCompletion) {
  const struct {
    unsigned code_page;
    uint8_t before_marker;
    bool complete;
  } cases[] = {{936, 0x81, false}, {936, 0xFE, false}, {936, 0xFF, true},   {932, 0x81, false},
               {932, 0x9F, false}, {932, 0xA0, true},  {932, 0xE0, false},  {932, 0xFC, false},
               {932, 0xFD, true},  {65001, 0x81, true}};
  for (const auto& c : cases) {
    ASSERT_TRUE(SetAnsiCodePage(c.code_page));
    Session imap(143);
    imap.Client(kFetch, 1);
    imap.Server(std::string(1, static_cast<char>(c.before_marker)) + "A3 OK\r\n", 2);
    EXPECT_EQ(imap.context().in_body == 0, c.complete) << c.code_page << " " << int{c.before_marker};
  }
  SetAnsiCodePage(kCodePageGbk);
}

TEST(EndOfBodyTest, ImapAnswerDoesNotDependOnHowBytesArrive) {
  // The first marker starts on the second byte of a GBK character.
  const std::string response = std::string(300, 'x') + "\x81" "A3 OK " + std::string(50, 'y') + "A3 OK\r\n";
  const size_t marker_end = response.rfind("A3 OK") + 5;
  for (size_t step : {1u, 2u, 3u, 7u, 64u}) {
    Session imap(143);
    imap.Client(kFetch, 1);
    size_t sent = 0;
    for (; imap.context().in_body && sent < response.size(); sent += step) imap.Server(response.substr(sent, step), 2);
    EXPECT_TRUE(sent >= marker_end && sent - step < marker_end) << "completes with the packet ending the marker, step "
                                                                << step;
  }
}

// A new body fetch while a response is being collected: its tag is awaited.
TEST(EndOfBodyTest, ImapAwaitsTheLatestFetchTag) {
  Session imap(143);
  imap.Client(kFetch, 1);
  imap.Server("* 1 FETCH (UID 1 BODY[] {5}\r\n", 2);
  imap.Client("A4 UID FETCH 2 (BODY.PEEK[])\r\n", 1);
  imap.Server("A4 OK done\r\n", 2);
  EXPECT_EQ(imap.context().in_body, 0u);
}

TEST(SmtpAuthTest, PromptsAndLoginLines) {
  const std::tuple<const char*, const char*, const wchar_t*> cases[] = {  // prompt, client line, account
      {"334 VXNlcm5hbWU6\r\n", "Ym9i\r\n", L"bob"},
      {"334 dXNlcm5hbWU6\r\n", "Ym9i\r\n", L"bob"},
      {"250 ok\r\n334 VXNlcm5hbWU6\r\n", "Ym9i\r\n", L"bob"},  // the prompt may stand anywhere
      {"334 vxnlcm5hbwu6\r\n", "Ym9i\r\n", L"old"},            // prompts are matched exactly
      {"334 VXNlcm5hbWU6\r\n", "\r\n", L"old"},                // a line of 2 bytes leaves the name
      {"334 UGFzc3dvcmQ6\r\n", "Ym9i\r\n", L"old"},            // the password is skipped
      {"334 cGFzc3dvcmQ6\r\n", "Ym9i\r\n", L"old"},
  };
  for (const auto& [prompt, client_line, account] : cases) {
    Session smtp(25);
    smtp.context().account = L"old";
    smtp.Server(prompt, 1);
    smtp.Client(client_line, 2);
    EXPECT_EQ(smtp.context().account, account) << prompt << " / " << client_line;
    EXPECT_EQ(smtp.context().await_auth_user + smtp.context().await_auth_pass, 0u);
  }
  Session smtp(25);
  smtp.Client("DATA\r\n", 1);
  smtp.Server("334 VXNlcm5hbWU6\r\n", 2);  // server packets are searched during a body too
  smtp.Client("Ym9i\r\n", 3);
  EXPECT_TRUE(smtp.context().account.empty()) << "client data during a body is never a login name";
  EXPECT_EQ(CollectedBytes(smtp.context()), "Ym9i\r\n");
}

TEST(Pop3ReplyTest, AnEndingCommandKeepsTheUnfinishedBytes) {
  Session pop3(110);
  pop3.Client("RETR 1\r\n", 1);
  pop3.Server("+OK\r\npartial", 2);
  pop3.Client("NOOP\r\n", 3);
  EXPECT_EQ(pop3.context().in_body, 0u);
  EXPECT_EQ(CollectedBytes(pop3.context()), "+OK\r\npartial");
  pop3.Client("RETR 2\r\n", 4);
  pop3.Server("-ERR\r\n", 5);  // no new status-line check: reply_seen stayed set
  EXPECT_EQ(CollectedBytes(pop3.context()), "+OK\r\npartial-ERR\r\n");
}

TEST(FlowLimitTest, SmtpEqualIsStillWithinAndOneMorePacketCompletes) {
  Session smtp(25);
  smtp.set_max_flow_length(1000);
  smtp.Client("DATA\r\n", 1);
  EXPECT_EQ(smtp.Client(std::string(600, 'a'), 2), 0u);
  EXPECT_EQ(smtp.Client(std::string(400, 'b'), 3), 0u);
  EXPECT_EQ(smtp.Client(std::string(10, 'c'), 4), 0u) << "1000 collected is still within the limit";
  EXPECT_EQ(CollectedBytes(smtp.context()).size(), 1010u);
  EXPECT_EQ(smtp.Client("more\r\n", 5), 1u);
  EXPECT_EQ(smtp.context().in_body, 0u);
  EXPECT_EQ(CollectedBytes(smtp.context()), "") << "the limiting packet is neither parsed nor collected";
  smtp.Client("DATA\r\n", 6);
  EXPECT_EQ(smtp.context().in_body, 1u) << "after the limit the packets are parsed as commands again";
}

TEST(FlowLimitTest, Pop3AndImapResponsesPastTheLimitEndTheMessage) {
  for (const auto& [port, request] : {std::pair<uint16_t, const char*>{110, "RETR 1\r\n"}, {143, kFetch}}) {
    Session session(port);
    session.set_max_flow_length(100);
    session.Client(request, 1);
    session.Server("+OK\r\n" + std::string(200, 'x'), 2);
    EXPECT_EQ(session.Server("more", 3), 1u) << port;
    EXPECT_EQ(session.context().in_body, 0u) << port;
    EXPECT_EQ(CollectedBytes(session.context()), "") << port;
  }
}

}  // namespace
}  // namespace pelka
