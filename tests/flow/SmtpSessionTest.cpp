// The SMTP conversation, packet by packet through the flow client.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "flow/EmailFlowData.h"
#include "support/Conversation.h"

namespace pelka {
namespace {

using testing::CollectedBytes;
using testing::Conversation;

// Packet times and ports are read the same from every record layout (the
// record reader's own test shows it), so one layout serves here.
TEST(SmtpConversationTest, FollowsAWholeSession) {
  CPelkaEmailModule module;
  Conversation smtp(module, 25, kProtocolSmtp);
  ASSERT_TRUE(smtp.bound());
  EXPECT_EQ(smtp.flow().swaps, 0);

  EXPECT_EQ(smtp.Server("220 mail.example.com ESMTP\r\n", 1'000'000), 0u);
  EXPECT_EQ(smtp.Client("EHLO client.example.com\r\n", 1'010'000), 0u);
  EXPECT_EQ(smtp.Server("250-mail.example.com\r\n250 AUTH LOGIN PLAIN\r\n", 1'020'000), 0u);
  smtp.Client("MAIL FROM:<alice@example.com>\r\n", 1'090'000);
  smtp.Server("250 OK\r\n", 1'100'000);
  smtp.Client("RCPT TO:<bob@example.org>\r\n", 1'110'000);
  smtp.Server("250 OK\r\n", 1'120'000);
  smtp.Client("DATA\r\n", 1'130'000);
  EXPECT_EQ(smtp.context().in_body, 1u);
  EXPECT_EQ(CollectedBytes(smtp.context()), "") << "the DATA line itself is not collected";
  smtp.Server("354 End data with <CR><LF>.<CR><LF>\r\n", 1'140'000);

  const std::string part1 = "From: Alice <alice@example.com>\r\nTo: bob@example.org\r\n";
  const std::string part2 = "Subject: hello\r\n\r\nfirst line\r\n.\r";  // the end marker is split
  const std::string part3 = "\n";
  EXPECT_EQ(smtp.Client(part1, 2'000'000), 0u);
  EXPECT_EQ(smtp.context().body_start_time, 2'000'000u);
  EXPECT_EQ(smtp.Client(part2, 2'500'000), 0u);
  EXPECT_EQ(CollectedBytes(smtp.context()), part1 + part2);
  EXPECT_EQ(smtp.context().first_packet_time, 1'000'000u);

  EXPECT_EQ(smtp.Client(part3, 3'000'000), 0u);
  CEmailFlowContext& context = smtp.context();
  EXPECT_EQ(context.in_body, 0u);
  EXPECT_EQ(CollectedBytes(context), "");
  EXPECT_EQ(context.first_packet_time, 0u);
  EXPECT_EQ(context.body_start_time, 0u);
  EXPECT_EQ(context.body_end_time, 0u);
  EXPECT_TRUE(context.subject.empty());

  smtp.Server("250 OK queued\r\n", 3'010'000);
  EXPECT_EQ(context.first_packet_time, 3'010'000u) << "the next message's time starts anew";
  EXPECT_EQ(smtp.Client("QUIT\r\n", 3'020'000), 0u);
  EXPECT_EQ(context.in_body, 0u);
}

TEST(SmtpCommandTest, StartsABodyOnlyForDataOrBdatLines) {
  struct Case {
    const char* line;
    bool starts_body;
  } cases[] = {
      {"DATA\r\n", true},
      {"data\r\n", true},
      {"BDAT 1000 LAST\r\n", true},
      {"bdat 86\r\n", true},
      {"DATAX\r\n", true},  // only the first four bytes are compared
      {"DAT\r\n", false},
      {"DATA", false},  // no line end in the packet
      {"DATA without line end", false},
      {"MAIL FROM:<a@b>\r\n", false},
      {" DATA\r\n", false},
      {"\r\nDATA\r\n", false},
  };
  for (const Case& c : cases) {
    CPelkaEmailModule module;
    Conversation smtp(module, 25, kProtocolSmtp);
    smtp.Client(c.line, 1);
    EXPECT_EQ(smtp.context().in_body, c.starts_body ? 1u : 0u) << c.line;
  }
}

TEST(SmtpAuthTest, PromptsAndLoginLines) {
  struct Case {
    const char* prompt;
    const char* client_line;
    const wchar_t* account;
  } cases[] = {
      {"334 VXNlcm5hbWU6\r\n", "Ym9i\r\n", L"bob"},
      {"334 dXNlcm5hbWU6\r\n", "Ym9i\r\n", L"bob"},
      {"250 ok\r\n334 VXNlcm5hbWU6\r\n", "Ym9i\r\n", L"bob"},  // the prompt may stand anywhere
      {"334 vxnlcm5hbwu6\r\n", "Ym9i\r\n", L"old"},            // prompts are matched exactly
      {"334 VXNlcm5hbWU6\r\n", "\r\n", L"old"},                // a line of 2 bytes leaves the name
      {"334 UGFzc3dvcmQ6\r\n", "Ym9i\r\n", L"old"},            // the password is skipped
      {"334 cGFzc3dvcmQ6\r\n", "Ym9i\r\n", L"old"},
  };
  for (const Case& c : cases) {
    CPelkaEmailModule module;
    Conversation smtp(module, 25, kProtocolSmtp);
    smtp.context().account = L"old";
    smtp.Server(c.prompt, 1);
    smtp.Client(c.client_line, 2);
    EXPECT_EQ(smtp.context().account, c.account) << c.prompt << " / " << c.client_line;
    EXPECT_EQ(smtp.context().await_auth_user, 0u);
    EXPECT_EQ(smtp.context().await_auth_pass, 0u);
  }
}

TEST(SmtpAuthTest, ClientDataDuringABodyIsNeverTakenForALoginName) {
  CPelkaEmailModule module;
  Conversation smtp(module, 25, kProtocolSmtp);
  smtp.Client("DATA\r\n", 1);
  smtp.Server("334 VXNlcm5hbWU6\r\n", 2);  // server packets are searched during a body too
  EXPECT_EQ(smtp.context().await_auth_user, 1u);
  smtp.Client("Ym9i\r\n", 3);
  EXPECT_TRUE(smtp.context().account.empty());
  EXPECT_EQ(CollectedBytes(smtp.context()), "Ym9i\r\n");
}

TEST(SmtpFlowLimitTest, EqualIsStillWithinAndOneMorePacketCompletes) {
  CPelkaEmailModule module;
  module.set_max_flow_length(1000);
  Conversation smtp(module, 25, kProtocolSmtp);
  smtp.Client("DATA\r\n", 1);
  EXPECT_EQ(smtp.Client(std::string(600, 'a'), 2), 0u);
  EXPECT_EQ(smtp.Client(std::string(400, 'b'), 3), 0u);
  EXPECT_EQ(CollectedBytes(smtp.context()).size(), 1000u);
  EXPECT_EQ(smtp.Client(std::string(10, 'c'), 4), 0u) << "1000 collected is still within the limit";
  EXPECT_EQ(CollectedBytes(smtp.context()).size(), 1010u);
  EXPECT_EQ(smtp.Client("more\r\n", 5), 1u);
  EXPECT_EQ(smtp.context().in_body, 0u);
  EXPECT_EQ(CollectedBytes(smtp.context()), "") << "the limiting packet is neither parsed nor collected";
  smtp.Client("DATA\r\n", 6);
  EXPECT_EQ(smtp.context().in_body, 1u) << "after the limit the packets are parsed as commands again";
}

TEST(SmtpEndMarkerTest, FoundWhereverItFallsAcrossPackets) {
  struct Case {
    std::vector<std::string> packets;
    bool complete;
  } cases[] = {
      {{"\r\n.\r\n"}, true},
      {{"abc\r\n.\r\n"}, true},
      {{"abc\r\n", ".\r\n"}, true},
      {{"abc\r", "\n", ".", "\r", "\n"}, true},
      {{"abc\r\n..\r\n"}, false},  // a dot-stuffed line
      {{"abc\r\n.", "x\r\n"}, false},
      {{std::string(5000, 'x'), "\r\n.\r\n", "tail"}, true},
      {{"a", "b", "c"}, false},
  };
  for (const Case& c : cases) {
    CPelkaEmailModule module;
    Conversation smtp(module, 25, kProtocolSmtp);
    smtp.Client("DATA\r\n", 1);
    for (const std::string& packet : c.packets) {
      if (smtp.context().in_body == 0) break;
      smtp.Client(packet, 2);
    }
    EXPECT_EQ(smtp.context().in_body == 0, c.complete) << ::testing::PrintToString(c.packets);
  }
}

TEST(SmtpSessionTest, UnbindInTheMiddleOfABodyDropsTheMessage) {
  CPelkaEmailModule module;
  Conversation smtp(module, 25, kProtocolSmtp);
  smtp.Client("DATA\r\n", 1);
  smtp.Client("From: a@b\r\nTo: c@d\r\n\r\nbody", 2);
  smtp.Unbind();
  EXPECT_EQ(module.last_email_number(), 0u);
}

}  // namespace
}  // namespace pelka
