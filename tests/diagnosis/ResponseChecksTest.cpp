// Slow responses, dubious conversations and server errors, packet by packet
// through the module's checks. The process loads no string table, so every
// text is its default ("#" marks a text with placeholders).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DiagnosisBench.h"

namespace pelka {
namespace {

using testing::DiagnosisBench;
using testing::DiagnosisReport;
using testing::kPop3Dubious;
using testing::kPop3Error;
using testing::kPop3Slow;
using testing::kSmtpDubious;
using testing::kSmtpError;
using testing::kSmtpSlow;

struct SlowCase {
  int32_t threshold_ms;
  uint64_t reply_time_us;
  bool reported;
  const char* why;
};

TEST(SlowResponse, ComparesWholeMillisecondsStrictlyWithTheThreshold) {
  const std::vector<SlowCase> cases = {
      {200, 1'250'000, true, "250 ms against 200"},
      {250, 1'250'000, false, "250 ms is not above 250"},
      {200, 1'200'999, false, "200 999 us is 200 ms"},
      {200, 1'201'000, true, "201 ms"},
  };
  for (const SlowCase& c : cases) {
    DiagnosisBench smtp;
    smtp.Event(kSmtpSlow)->SetThreshold(c.threshold_ms);
    smtp.Client(5, 1'000'000, "EHLO client.example.com\r\n");
    smtp.Server(6, c.reply_time_us, "250 mail.example.com\r\n");
    EXPECT_EQ(smtp.service().ReportsOf(kSmtpSlow).size(), c.reported ? 1u : 0u) << c.why;
    EXPECT_EQ(smtp.context().request_packet, 0u) << c.why << ": the reply closes the request either way";
  }
}

TEST(SlowResponse, ReportsTheRequestAsRelatedPacketWithTheDefaultText) {
  DiagnosisBench smtp;
  smtp.Client(5, 1'000'000, "EHLO client.example.com\r\n");
  EXPECT_EQ(smtp.context().request_packet, 5u);
  EXPECT_EQ(smtp.context().request_time, 1'000'000u);
  smtp.Server(6, 1'250'000, "250 mail.example.com\r\n");

  ASSERT_EQ(smtp.service().reports.size(), 1u);
  const DiagnosisReport& report = smtp.service().reports[0];
  EXPECT_EQ(report.event, kSmtpSlow);
  EXPECT_EQ(report.text, L"SMTP Server  Slow Response#(数据包 [5] 与数据包 [6] 相隔250ms)");
  EXPECT_EQ(report.code1, 1u);
  EXPECT_EQ(report.code2, 1u);
  EXPECT_EQ(report.packet, 6u);
  EXPECT_EQ(report.related_packet, 5u);
  EXPECT_EQ(report.target, &smtp.node());
}

TEST(SlowResponse, Pop3UsesItsOwnEventThresholdAndTitle) {
  DiagnosisBench pop3(MailProtocol::kPop3);
  pop3.Event(kPop3Slow)->SetThreshold(1000);
  pop3.Event(kSmtpSlow)->SetThreshold(1);  // must not be the one read
  pop3.Client(3, 0, "RETR 1\r\n");
  pop3.Server(4, 900'000, "+OK 120 octets\r\n");
  EXPECT_TRUE(pop3.service().reports.empty());

  pop3.Client(5, 1'000'000, "DELE 1\r\n");
  pop3.Server(6, 2'500'000, "+OK deleted\r\n");
  ASSERT_EQ(pop3.service().reports.size(), 1u);
  EXPECT_EQ(pop3.service().reports[0].event, kPop3Slow);
  EXPECT_EQ(pop3.service().reports[0].text, L"POP3 服务器慢响应#(数据包 [5] 与数据包 [6] 相隔1500ms)");
}

TEST(SlowResponse, MeasuresAMultiLineReplyToItsFinalLine) {
  DiagnosisBench smtp;
  smtp.Client(1, 0, "EHLO client.example.com\r\n");
  smtp.Client(2, 10'000, "NOOP\r\n");  // does not replace the pending request
  smtp.Server(3, 100'000, "250-mail.example.com\r\n");
  EXPECT_EQ(smtp.context().request_packet, 1u) << "a continuation line leaves the request pending";
  smtp.Server(4, 150'000, "");  // an acknowledgement neither
  smtp.Server(5, 300'000, "250 PIPELINING\r\n");

  ASSERT_EQ(smtp.service().reports.size(), 1u);
  EXPECT_EQ(smtp.service().reports[0].related_packet, 1u);
  EXPECT_EQ(smtp.service().reports[0].text, L"SMTP Server  Slow Response#(数据包 [1] 与数据包 [5] 相隔300ms)");
  smtp.Server(6, 900'000, "250 OK\r\n");
  EXPECT_EQ(smtp.service().reports.size(), 1u) << "a reply without a pending request measures nothing";
}

TEST(SlowResponse, ReadsTheThresholdForEveryPacket) {
  DiagnosisBench smtp;
  smtp.Client(1, 0, "HELO a\r\n");
  smtp.Event(kSmtpSlow)->SetThreshold(500);
  smtp.Server(2, 400'000, "250 hi\r\n");
  smtp.Event(kSmtpSlow)->SetThreshold(100);
  smtp.Client(3, 1'000'000, "MAIL FROM:<a@b>\r\n");
  smtp.Server(4, 1'400'000, "250 OK\r\n");
  ASSERT_EQ(smtp.service().reports.size(), 1u);
  EXPECT_EQ(smtp.service().reports[0].packet, 4u);
}

TEST(SlowResponse, DoesNothingWhileSwitchedOffOrUnreadable) {
  for (const bool unreadable : {false, true}) {
    DiagnosisBench smtp;
    if (unreadable) {
      smtp.Event(kSmtpSlow)->parameter_read_fails = true;
    } else {
      smtp.Event(kSmtpSlow)->enabled = false;
    }
    smtp.Client(1, 0, "HELO a\r\n");
    EXPECT_EQ(smtp.context().request_packet, 0u) << "no pending request is kept";
    smtp.Server(2, 5'000'000, "250 hi\r\n");
    EXPECT_TRUE(smtp.service().ReportsOf(kSmtpSlow).empty());
  }
}

// The probation is kept by the slow-response check while that event is on,
// else by the dubious-conversation check itself.
class DubiousConversation : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { smtp_.Event(kSmtpSlow)->enabled = GetParam(); }
  DiagnosisBench smtp_;
};

TEST_P(DubiousConversation, ReportsOnceAtTheFourthNonReply) {
  smtp_.Server(1, 0, "SSH-2.0-OpenSSH_9.0\r\n");
  smtp_.Server(2, 10, "\x01\x02\x03\x04\x05\x06");
  smtp_.Server(3, 20, "HTTP/1.1 200 OK\r\n");
  EXPECT_TRUE(smtp_.service().reports.empty());
  smtp_.Server(4, 30, "<html>");

  ASSERT_EQ(smtp_.service().reports.size(), 1u);
  const DiagnosisReport& report = smtp_.service().reports[0];
  EXPECT_EQ(report.event, kSmtpDubious);
  EXPECT_EQ(report.text, L"可疑的SMTP会话# (数据包序号 [4])");
  EXPECT_EQ(report.code1, 1u);
  EXPECT_EQ(report.code2, 1u);
  EXPECT_EQ(report.packet, 4u);
  EXPECT_EQ(report.related_packet, 0u);
  EXPECT_EQ(smtp_.node().mark, 1u);
  EXPECT_EQ(smtp_.context().conversation_unconfirmed, 0u);

  for (uint64_t number = 5; number < 12; ++number) smtp_.Server(number, 40, "garbage");
  EXPECT_EQ(smtp_.service().reports.size(), 1u) << "never again on this flow";
}

TEST_P(DubiousConversation, AClientCommandEndsTheProbation) {
  smtp_.Server(1, 0, "garbage");
  smtp_.Server(2, 0, "garbage");
  smtp_.Server(3, 0, "garbage");
  smtp_.Client(4, 0, "QUIT\r\n");
  EXPECT_EQ(smtp_.context().conversation_unconfirmed, 0u);
  EXPECT_EQ(smtp_.context().dubious_count, 0u);
  for (uint64_t number = 5; number < 12; ++number) smtp_.Server(number, 0, "garbage");
  EXPECT_TRUE(smtp_.service().ReportsOf(kSmtpDubious).empty());
}

TEST_P(DubiousConversation, RepliesDoNotCountAndEmptyPacketsOnlyWithTheSlowCheck) {
  smtp_.Server(1, 0, "220 mail.example.com ESMTP\r\n");
  smtp_.Server(2, 0, "250 OK\r\n");
  for (uint64_t number = 3; number < 7; ++number) smtp_.Server(number, 0, "");
  EXPECT_EQ(smtp_.service().ReportsOf(kSmtpDubious).size(), GetParam() ? 1u : 0u);
}

TEST_P(DubiousConversation, KeepsAnExistingMarkOfTheFlowNode) {
  smtp_.node().mark = 7;
  for (uint64_t number = 1; number < 5; ++number) smtp_.Server(number, 0, "garbage");
  EXPECT_EQ(smtp_.service().ReportsOf(kSmtpDubious).size(), 1u);
  EXPECT_EQ(smtp_.node().mark, 7u);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutSlowCheck, DubiousConversation, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "SlowCheckOn" : "SlowCheckOff";
                         });

TEST(DubiousConversation, Pop3UsesItsOwnEventAndTitle) {
  DiagnosisBench pop3(MailProtocol::kPop3);
  for (uint64_t number = 1; number < 5; ++number) pop3.Server(number, 0, "* OK IMAP4rev1 ready\r\n");
  ASSERT_EQ(pop3.service().reports.size(), 1u);
  EXPECT_EQ(pop3.service().reports[0].event, kPop3Dubious);
  EXPECT_EQ(pop3.service().reports[0].text, L"可疑的POP3会话# (数据包序号 [4])");
}

TEST(DubiousConversation, SwitchedOffCountsNothingButTheSlowCheckStillDoes) {
  DiagnosisBench smtp;
  smtp.Event(kSmtpDubious)->enabled = false;
  for (uint64_t number = 1; number < 6; ++number) smtp.Server(number, 0, "garbage");
  EXPECT_TRUE(smtp.service().reports.empty());
  // Switching the event on later takes up the flow's current state.
  smtp.Event(kSmtpDubious)->enabled = true;
  smtp.Server(6, 0, "garbage");
  EXPECT_EQ(smtp.service().ReportsOf(kSmtpDubious).size(), 1u);
}

struct ErrorCase {
  std::string payload;
  bool reported;
};

TEST(ServerError, SmtpReportsCodesFrom400To599) {
  const std::vector<ErrorCase> cases = {
      {"550 mailbox unavailable\r\n", true}, {"421 closing\r\n", true}, {"599x", true},
      {"550-first line\r\n", true},          {"250 OK\r\n", false},     {"354 go ahead\r\n", false},
      {"600 x\r\n", false},                  {"550", false},            {"", false},
  };
  for (const ErrorCase& c : cases) {
    DiagnosisBench smtp;
    smtp.Client(1, 0, "HELO a\r\n");  // keeps the dubious check quiet
    smtp.Server(7, 0, c.payload);
    const auto reports = smtp.service().ReportsOf(kSmtpError);
    ASSERT_EQ(reports.size(), c.reported ? 1u : 0u) << c.payload;
    if (!c.reported) continue;
    EXPECT_EQ(reports[0].text, L"#POP3 Server Returned Error(See Packet 7)");
    EXPECT_EQ(reports[0].code1, 0u);
    EXPECT_EQ(reports[0].code2, 1u);
    EXPECT_EQ(reports[0].packet, 7u);
    EXPECT_EQ(reports[0].related_packet, 0u);
  }
}

TEST(ServerError, Pop3ReportsOnlyBareErrorLines) {
  const std::vector<ErrorCase> cases = {
      {"-ERR\r\n", true}, {"-ERR no such message\r\n", false}, {"+OK\r\n", false}, {"550 x\r\n", false}};
  for (const ErrorCase& c : cases) {
    DiagnosisBench pop3(MailProtocol::kPop3);
    pop3.Client(1, 0, "USER bob\r\n");
    pop3.Server(9, 0, c.payload);
    const auto reports = pop3.service().ReportsOf(kPop3Error);
    ASSERT_EQ(reports.size(), c.reported ? 1u : 0u) << c.payload;
    if (c.reported) {
      EXPECT_EQ(reports[0].text, L"#POP3 Server Returned Error(See Packet 9)");
    }
  }
}

TEST(ServerError, SwitchedOffReportsNothing) {
  DiagnosisBench smtp;
  smtp.Event(kSmtpError)->enabled = false;
  smtp.Server(1, 0, "550 no\r\n");
  EXPECT_TRUE(smtp.service().ReportsOf(kSmtpError).empty());
}

TEST(Checks, AnImapFlowIsNeverChecked) {
  DiagnosisBench smtp;
  CEmailFlowContext& context = smtp.context();
  const std::string garbage = "garbage";
  for (int i = 0; i < 6; ++i) {
    smtp.module().CheckSlowResponse(context, nullptr, kFromServer, reinterpret_cast<const uint8_t*>(garbage.data()),
                                    7, &smtp.node(), MailProtocol::kImap4);
    smtp.module().CheckDubiousConversation(context, nullptr, kFromServer,
                                           reinterpret_cast<const uint8_t*>(garbage.data()), 7, &smtp.node(),
                                           MailProtocol::kImap4);
  }
  EXPECT_EQ(context.dubious_count, 0u);
  EXPECT_TRUE(smtp.service().reports.empty());
}

}  // namespace
}  // namespace pelka
