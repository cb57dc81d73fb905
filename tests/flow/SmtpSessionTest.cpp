// The SMTP conversation, packet by packet through the flow client. Whole
// sessions and their records are in ConversationRecordsTest.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "flow/EmailFlowData.h"
#include "support/Conversation.h"

namespace pelka {
namespace {

using testing::CollectedBytes;
using testing::Conversation;

TEST(SmtpCommandTest, StartsABodyOnlyForDataOrBdatLines) {
  const std::pair<const char*, bool> cases[] = {
      {"DATA\r\n", true},   {"data\r\n", true},      {"BDAT 1000 LAST\r\n", true}, {"bdat 86\r\n", true},
      {"DATAX\r\n", true},  // only the first four bytes are compared
      {"DAT\r\n", false},   {"DATA", false},         {"DATA without line end", false},
      {" DATA\r\n", false}, {"\r\nDATA\r\n", false}, {"MAIL FROM:<a@b>\r\n", false},
  };
  for (const auto& [line, starts_body] : cases) {
    CPelkaEmailModule module;
    Conversation smtp(module, 25, kProtocolSmtp);
    smtp.Client(line, 1);
    EXPECT_EQ(smtp.context().in_body, starts_body ? 1u : 0u) << line;
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
    EXPECT_EQ(smtp.context().await_auth_user + smtp.context().await_auth_pass, 0u);
  }
}

TEST(SmtpAuthTest, ClientDataDuringABodyIsNeverTakenForALoginName) {
  CPelkaEmailModule module;
  Conversation smtp(module, 25, kProtocolSmtp);
  smtp.Client("DATA\r\n", 1);
  smtp.Server("334 VXNlcm5hbWU6\r\n", 2);  // server packets are searched during a body too
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
  EXPECT_EQ(smtp.Client(std::string(10, 'c'), 4), 0u) << "1000 collected is still within the limit";
  EXPECT_EQ(CollectedBytes(smtp.context()).size(), 1010u);
  EXPECT_EQ(smtp.Client("more\r\n", 5), 1u);
  EXPECT_EQ(smtp.context().in_body, 0u);
  EXPECT_EQ(CollectedBytes(smtp.context()), "") << "the limiting packet is neither parsed nor collected";
  smtp.Client("DATA\r\n", 6);
  EXPECT_EQ(smtp.context().in_body, 1u) << "after the limit the packets are parsed as commands again";
}

TEST(SmtpEndMarkerTest, FoundWhereverItFallsAcrossPackets) {
  const std::pair<std::vector<std::string>, bool> cases[] = {
      {{"\r\n.\r\n"}, true},
      {{"abc\r\n", ".\r\n"}, true},
      {{"abc\r", "\n", ".", "\r", "\n"}, true},
      {{"abc\r\n..\r\n"}, false},  // a dot-stuffed line
      {{"abc\r\n.", "x\r\n"}, false},
      {{std::string(5000, 'x'), "\r\n.\r\n", "tail"}, true},
  };
  for (const auto& [packets, complete] : cases) {
    CPelkaEmailModule module;
    Conversation smtp(module, 25, kProtocolSmtp);
    smtp.Client("DATA\r\n", 1);
    for (const std::string& packet : packets) {
      if (smtp.context().in_body) smtp.Client(packet, 2);
    }
    EXPECT_EQ(smtp.context().in_body == 0, complete) << ::testing::PrintToString(packets);
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
