// Slow responses, dubious conversations and server errors, packet by packet
// through the module's checks. The process loads no string table, so every
// text is its default ("#" marks a text with placeholders).
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "DiagnosisBench.h"

namespace pelka {
namespace {

using testing::DiagnosisBench;
using testing::kPop3Error;
using testing::kPop3Slow;
using testing::kSmtpDubious;
using testing::kSmtpError;
using testing::kSmtpSlow;

TEST(SlowResponse, ReportsWholeMillisecondsAboveTheThreshold) {
  const struct {
    MailProtocol protocol;
    int32_t threshold_ms;
    uint64_t reply_time_us;
    std::wstring text;  // empty: nothing reported
  } cases[] = {
      {MailProtocol::kSmtp, 200, 1'250'000, L"SMTP Server  Slow Response#(数据包 [5] 与数据包 [6] 相隔250ms)"},
      {MailProtocol::kSmtp, 250, 1'250'000, L""},  // not strictly above
      {MailProtocol::kSmtp, 200, 1'200'999, L""},  // 200 999 us is 200 ms
      {MailProtocol::kPop3, 1000, 2'500'000, L"POP3 服务器慢响应#(数据包 [5] 与数据包 [6] 相隔1500ms)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply_time_us);
    DiagnosisBench bench(c.protocol);
    const bool smtp = c.protocol == MailProtocol::kSmtp;
    bench.Event(smtp ? kSmtpSlow : kPop3Slow)->SetThreshold(c.threshold_ms);
    bench.Event(smtp ? kPop3Slow : kSmtpSlow)->SetThreshold(1);  // must not be the one read
    bench.Client(5, 1'000'000, smtp ? "EHLO client.example.com\r\n" : "RETR 1\r\n");
    bench.Server(6, c.reply_time_us, smtp ? "250 mail.example.com\r\n" : "+OK 120 octets\r\n");
    EXPECT_EQ(bench.context().request_packet, 0u) << "the reply closes the request either way";
    ASSERT_EQ(bench.service().reports.size(), c.text.empty() ? 0u : 1u);
    if (c.text.empty()) continue;
    const auto& report = bench.service().reports[0];
    EXPECT_EQ(report.Fields(), std::make_tuple(smtp ? kSmtpSlow : kPop3Slow, c.text, 1u, 1u, 6u, 5u));
    EXPECT_EQ(report.target, &bench.node());
  }
}

TEST(SlowResponse, ReadsSwitchAndThresholdForEveryPacket) {
  DiagnosisBench smtp;
  smtp.Event(kSmtpSlow)->enabled = false;
  smtp.Client(1, 0, "HELO a\r\n");
  EXPECT_EQ(smtp.context().request_packet, 0u) << "no request is kept while switched off";
  smtp.Event(kSmtpSlow)->enabled = true;
  smtp.Client(2, 0, "HELO a\r\n");
  smtp.Client(3, 100'000, "NOOP\r\n");  // does not replace the pending request
  smtp.Event(kSmtpSlow)->SetThreshold(500);
  smtp.Server(4, 400'000, "250 hi\r\n");
  smtp.Event(kSmtpSlow)->SetThreshold(100);
  smtp.Client(5, 1'000'000, "MAIL FROM:<a@b>\r\n");
  smtp.Event(kSmtpSlow)->parameter_read_fails = true;
  smtp.Server(6, 1'400'000, "250 OK\r\n");
  EXPECT_TRUE(smtp.service().reports.empty());
  smtp.Event(kSmtpSlow)->parameter_read_fails = false;
  smtp.Server(7, 1'400'000, "250 OK\r\n");
  ASSERT_EQ(smtp.service().reports.size(), 1u);
  EXPECT_EQ(smtp.service().reports[0].related_packet, 5u);
}

// The probation is kept by the slow-response check while that event is on,
// else by the dubious-conversation check itself.
class DubiousConversation : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { smtp_.Event(kSmtpSlow)->enabled = GetParam(); }
  void ServerGarbage(uint64_t from, uint64_t to) {
    for (uint64_t number = from; number < to; ++number) smtp_.Server(number, 0, "garbage");
  }
  DiagnosisBench smtp_;
};

TEST_P(DubiousConversation, ReportsOnceAtTheFourthNonReply) {
  smtp_.Server(1, 0, "SSH-2.0-OpenSSH_9.0\r\n");
  smtp_.Client(1, 0, "SSH-2.0-PuTTY\r\n");  // no command: the probation goes on
  smtp_.Server(2, 0, "220 a reply does not count\r\n");
  smtp_.Server(3, 0, "HTTP/1.1 200 OK\r\n");
  smtp_.Server(4, 0, "\x16\x03\x01");
  EXPECT_TRUE(smtp_.service().reports.empty());
  smtp_.Server(5, 0, "<html>");
  ASSERT_EQ(smtp_.service().reports.size(), 1u);
  EXPECT_EQ(smtp_.service().reports[0].Fields(),
            std::make_tuple(kSmtpDubious, L"可疑的SMTP会话# (数据包序号 [5])", 1u, 1u, 5u, 0u));
  EXPECT_EQ(smtp_.node().mark, 1u);
  ServerGarbage(6, 12);
  EXPECT_EQ(smtp_.service().reports.size(), 1u) << "never again on this flow";
}

TEST_P(DubiousConversation, AClientCommandEndsTheProbation) {
  ServerGarbage(1, 4);
  smtp_.Client(4, 0, "QUIT\r\n");
  ServerGarbage(5, 12);
  EXPECT_TRUE(smtp_.service().reports.empty());
}

TEST_P(DubiousConversation, EmptyPacketsCountOnlyWithTheSlowCheck) {
  for (uint64_t number = 1; number < 5; ++number) smtp_.Server(number, 0, "");
  EXPECT_EQ(smtp_.service().reports.size(), GetParam() ? 1u : 0u);
}

TEST_P(DubiousConversation, SwitchedOnLaterTakesUpTheCount) {
  smtp_.Event(kSmtpDubious)->enabled = false;
  ServerGarbage(1, 6);
  EXPECT_TRUE(smtp_.service().reports.empty());
  smtp_.Event(kSmtpDubious)->enabled = true;
  ServerGarbage(6, 7);
  // Only the slow check keeps counting while this one is off.
  EXPECT_EQ(smtp_.service().ReportsOf(kSmtpDubious).size(), GetParam() ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutSlowCheck, DubiousConversation, ::testing::Bool());

TEST(ServerError, ReportsSmtpCodes400To599AndBarePop3ErrorLines) {
  // SMTP's default text names POP3 as well. Payload, then whether it is reported.
  const std::wstring text = L"#POP3 Server Returned Error(See Packet 7)";
  const std::tuple<MailProtocol, std::string, bool> cases[] = {
      {MailProtocol::kSmtp, "550 mailbox unavailable\r\n", true},
      {MailProtocol::kSmtp, "421-closing\r\n", true},  // every packet of a multi-line error
      {MailProtocol::kSmtp, "354 go ahead\r\n", false},
      {MailProtocol::kSmtp, "600 x\r\n", false},
      {MailProtocol::kSmtp, "550", false},  // shorter than four characters
      {MailProtocol::kPop3, "-ERR\r\n", true},
      {MailProtocol::kPop3, "-ERR no such message\r\n", false},
      {MailProtocol::kPop3, "550 x\r\n", false},
  };
  for (const auto& [protocol, payload, reported] : cases) {
    DiagnosisBench bench(protocol);
    bench.Server(7, 0, payload);
    const auto reports = bench.service().ReportsOf(protocol == MailProtocol::kSmtp ? kSmtpError : kPop3Error);
    ASSERT_EQ(reports.size(), reported ? 1u : 0u) << payload;
    if (reported) {
      EXPECT_EQ(reports[0].Fields(), std::make_tuple(reports[0].event, text, 0u, 1u, 7u, 0u));
    }
  }
  DiagnosisBench off;
  off.Event(kSmtpError)->enabled = false;
  off.Server(1, 0, "550 no\r\n");
  EXPECT_TRUE(off.service().ReportsOf(kSmtpError).empty()) << "switched off";
}

}  // namespace
}  // namespace pelka
