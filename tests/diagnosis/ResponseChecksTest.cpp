// The diagnosis events and their checks: the line tests behind them, slow
// responses, dubious conversations and server errors packet by packet, and
// what a missing service or a refused definition leaves working. The process
// loads no string table, so every text is its default ("#" marks a text with
// placeholders); the English table is tried in a child process.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>

#include "DiagnosisBench.h"
#include "diagnosis/ResponseChecks.h"
#include "flow/SessionHandlers.h"
#include "module/ResStringTable.h"

namespace pelka {
namespace {

using testing::DiagnosedModule;
using testing::DiagnosisBench;
using testing::InMemoryDiagnosisService;
using testing::kPop3Error;
using testing::kPop3Slow;
using testing::kSmtpDubious;
using testing::kSmtpError;
using testing::kSmtpSlow;

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
      {command, "EHLO client.example.com\r\n", true}, {command, "HELLO\r\n", false},
      {command, "quit\r\n", true},              // letter case ignored
      {command, "MAILX FROM:<a@b>\r\n", true},  // only the beginning is compared
      {command, "QUIT", false},                 // split over packets
      {command, "HI\r\n\r\n", false},           // line end before offset 4
      {command, "QUIT\n", false},               // a bare line feed is no line end
      {reply, "250 OK\r\n", true}, {reply, "+OK ready\r\n", true}, {reply, "-err no such message\r\n", true},
      {reply, " 250 x", true},  // leading white space before the number
      {reply, "12 x", true}, {reply, "599 x", true}, {reply, "600 x", false}, {reply, "000 x", false},
      {reply, "250", false},
      {reply, "250-mail.example.com\r\n250 OK\r\n", false},  // first space too late
      {reply, "* OK IMAP4 ready\r\n", false},
      {error, "-ERR\r\n", true},
      {error, "-err \r\n", true},  // one further character
      {error, "-ERR no such message\r\n", false}, {error, "-ERRx \r\n", false}, {error, "-ERR", false},
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

TEST(SlowResponse, ReportsWholeMillisecondsAboveTheThreshold) {
  // Protocol, threshold (ms), reply time (us), report text ("": none).
  const std::tuple<MailProtocol, int32_t, uint64_t, std::wstring> cases[] = {
      {MailProtocol::kSmtp, 200, 1'250'000, L"SMTP Server  Slow Response#(数据包 [1] 与数据包 [2] 相隔250ms)"},
      {MailProtocol::kSmtp, 250, 1'250'000, L""},  // not strictly above
      {MailProtocol::kSmtp, 200, 1'200'999, L""},  // 200 999 us is 200 ms
      {MailProtocol::kPop3, 1000, 2'500'000, L"POP3 服务器慢响应#(数据包 [1] 与数据包 [2] 相隔1500ms)"},
  };
  for (const auto& [protocol, threshold_ms, reply_time_us, text] : cases) {
    SCOPED_TRACE(reply_time_us);
    DiagnosisBench bench(protocol);
    const bool smtp = protocol == MailProtocol::kSmtp;
    bench.Event(smtp ? kSmtpSlow : kPop3Slow)->SetThreshold(threshold_ms);
    bench.Event(smtp ? kPop3Slow : kSmtpSlow)->SetThreshold(1);  // must not be the one read
    bench.Client(smtp ? "EHLO client.example.com\r\n" : "RETR 1\r\n", 1'000'000);
    bench.Server(smtp ? "250 mail.example.com\r\n" : "+OK 120 octets\r\n", reply_time_us);
    EXPECT_EQ(bench.context().request_packet, 0u) << "the reply closes the request either way";
    ASSERT_EQ(bench.service.reports.size(), text.empty() ? 0u : 1u);
    if (text.empty()) continue;
    const auto& report = bench.service.reports[0];
    EXPECT_EQ(report.Fields(), std::make_tuple(smtp ? kSmtpSlow : kPop3Slow, text, 1u, 1u, 2u, 1u));
    EXPECT_EQ(report.target, &bench.node());
  }
}

TEST(SlowResponse, ReadsSwitchAndThresholdForEveryPacket) {
  DiagnosisBench smtp;
  smtp.Event(kSmtpSlow)->enabled = false;
  smtp.Client("HELO a\r\n", 0);
  EXPECT_EQ(smtp.context().request_packet, 0u) << "no request is kept while switched off";
  smtp.Event(kSmtpSlow)->enabled = true;
  smtp.Client("HELO a\r\n", 0);
  smtp.Client("NOOP\r\n", 100'000);  // does not replace the pending request
  smtp.Event(kSmtpSlow)->SetThreshold(500);
  smtp.Server("250 hi\r\n", 400'000);
  smtp.Event(kSmtpSlow)->SetThreshold(100);
  smtp.Client("MAIL FROM:<a@b>\r\n", 1'000'000);
  smtp.Event(kSmtpSlow)->parameter_read_fails = true;
  smtp.Server("250 OK\r\n", 1'400'000);
  EXPECT_TRUE(smtp.service.reports.empty());
  smtp.Event(kSmtpSlow)->parameter_read_fails = false;
  smtp.Server("250 OK\r\n", 1'400'000);
  ASSERT_EQ(smtp.service.reports.size(), 1u);
  EXPECT_EQ(smtp.service.reports[0].related_packet, 5u);
}

// The probation is kept by the slow-response check while that event is on,
// else by the dubious-conversation check itself.
class DubiousConversation : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { smtp_.Event(kSmtpSlow)->enabled = GetParam(); }
  void ServerGarbage(int packets) {
    for (int i = 0; i < packets; ++i) smtp_.Server("garbage", 0);
  }
  DiagnosisBench smtp_;
};

TEST_P(DubiousConversation, ReportsOnceAtTheFourthNonReply) {
  smtp_.Server("SSH-2.0-OpenSSH_9.0\r\n", 0);
  smtp_.Client("SSH-2.0-PuTTY\r\n", 0);  // no command: the probation goes on
  smtp_.Server("220 a reply does not count\r\n", 0);
  smtp_.Server("HTTP/1.1 200 OK\r\n", 0);
  smtp_.Server("\x16\x03\x01", 0);
  EXPECT_TRUE(smtp_.service.reports.empty());
  smtp_.Server("<html>", 0);
  ASSERT_EQ(smtp_.service.reports.size(), 1u);
  EXPECT_EQ(smtp_.service.reports[0].Fields(),
            std::make_tuple(kSmtpDubious, L"可疑的SMTP会话# (数据包序号 [6])", 1u, 1u, 6u, 0u));
  EXPECT_EQ(smtp_.node().mark, 1u);
  ServerGarbage(6);
  EXPECT_EQ(smtp_.service.reports.size(), 1u) << "never again on this flow";
}

TEST_P(DubiousConversation, AClientCommandEndsTheProbation) {
  ServerGarbage(3);
  smtp_.Client("QUIT\r\n", 0);
  ServerGarbage(7);
  EXPECT_TRUE(smtp_.service.reports.empty());
}

TEST_P(DubiousConversation, EmptyPacketsCountOnlyWithTheSlowCheck) {
  for (int i = 0; i < 4; ++i) smtp_.Server("", 0);
  EXPECT_EQ(smtp_.service.reports.size(), GetParam() ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutSlowCheck, DubiousConversation, ::testing::Bool());

// SMTP codes 400 to 599 and bare POP3 error lines; SMTP's default text names
// POP3 as well.
TEST(ServerError, ReportsSmtpCodes400To599AndBarePop3ErrorLines) {
  const struct {
    const char* name;
    MailProtocol protocol;
    const char* payload;
    bool reported;
    bool enabled = true;
  } cases[] = {
      {"smtp 399", MailProtocol::kSmtp, "399 x\r\n", false},
      {"smtp 400", MailProtocol::kSmtp, "400 x\r\n", true},
      {"smtp 599", MailProtocol::kSmtp, "599 x\r\n", true},
      {"smtp 600", MailProtocol::kSmtp, "600 x\r\n", false},
      {"smtp continuation line", MailProtocol::kSmtp, "421-closing\r\n", true},
      {"smtp shorter than four", MailProtocol::kSmtp, "550", false},
      {"smtp switched off", MailProtocol::kSmtp, "550 no\r\n", false, false},
      {"pop3 bare error", MailProtocol::kPop3, "-ERR\r\n", true},
      {"pop3 smtp code", MailProtocol::kPop3, "550 x\r\n", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    DiagnosisBench bench(c.protocol);
    const char* key = c.protocol == MailProtocol::kSmtp ? kSmtpError : kPop3Error;
    bench.Event(key)->enabled = c.enabled;
    bench.Server(c.payload, 0);
    const auto& reports = bench.service.reports;  // no other check has a reason to report
    ASSERT_EQ(reports.size(), c.reported ? 1u : 0u);
    if (!c.reported) continue;
    EXPECT_EQ(reports[0].Fields(), std::make_tuple(key, L"#POP3 Server Returned Error(See Packet 1)", 0u, 1u, 1u, 0u));
  }
}

TEST(FlowDiagnosis, ImapFlowsRunNoCheck) {
  DiagnosisBench smtp;
  testing::Conversation imap(smtp.module, kImapPort, kProtocolImap4);
  for (int i = 0; i < 6; ++i) imap.Server("550 garbage", 1'000'000 * i);
  EXPECT_TRUE(smtp.service.reports.empty());
  EXPECT_EQ(imap.context().conversation_unconfirmed, 1u);
}

TEST(DefineDiagnosisEvents, NothingWithoutNotificationObjectOrService) {
  InMemoryDiagnosisService service;
  DiagnosedModule without_notify;
  without_notify.Attach(&service, false);
  EXPECT_TRUE(service.events().empty());
  // Without a service no check keeps state.
  without_notify.Attach(nullptr);
  testing::Conversation smtp(without_notify, kSmtpPort, kProtocolSmtp);
  smtp.Client("EHLO a\r\n", 1'000'000);
  EXPECT_EQ(smtp.context().request_packet, 0u);
}

TEST(DefineDiagnosisEvents, AFailedDefinitionSkipsOnlyItsParameter) {
  DiagnosisBench smtp;  // a second definition below overwrites the first
  auto& service = smtp.service;
  service.refused_keys = {kSmtpSlow};
  smtp.module.DefineDiagnosisEvents();
  EXPECT_EQ(service.Event(kPop3Slow)->parameters.size(), 1u);

  // Without their slow event the SMTP checks still find errors, never slowness.
  smtp.Client("HELO a\r\n", 0);
  smtp.Server("550 no\r\n", 9'000'000);
  ASSERT_EQ(service.reports.size(), 1u);
  EXPECT_EQ(service.reports[0].event, kSmtpError);
}

TEST(ReleaseDiagnosisEvents, ReleasesEachDefinedEventOnce) {
  DiagnosisBench smtp;
  smtp.service.refused_keys = {kSmtpDubious};
  smtp.module.DefineDiagnosisEvents();
  smtp.module.ReleaseDiagnosisEvents();
  smtp.module.ReleaseDiagnosisEvents();
  const auto& events = smtp.service.events();
  for (size_t i = 6; i < events.size(); ++i) EXPECT_EQ(events[i]->releases, 1) << events[i]->key;
  smtp.Server("550 no\r\n", 0);
  EXPECT_TRUE(smtp.service.reports.empty()) << "a released event reports nothing";
}

// The English table is process-wide and loaded once, so this runs in a child
// process and leaves the defaults to the other tests.
[[noreturn]] void RunWithEnglishTable(const std::string& path) {
  CResStringTable::Instance().LoadFromFile(std::wstring(path.begin(), path.end()).c_str());
  DiagnosisBench smtp, dubious, pop3(MailProtocol::kPop3);
  smtp.Client("EHLO a\r\n", 1'000'000);
  smtp.Server("250 OK\r\n", 1'250'000);
  smtp.Server("550 no\r\n", 1'260'000);
  for (int i = 0; i < 4; ++i) dubious.Server("garbage", 0);
  pop3.Server("-ERR\r\n", 0);
  std::wstring texts;
  for (DiagnosisBench* bench : {&smtp, &dubious, &pop3}) {
    for (const auto& report : bench->service.reports) texts += report.text + L"\n";
  }
  const std::wstring expected =
      L"SMTP Server Slow Response (250 ms between packet [1] and packet [2])\n"
      L"SMTP Server Returned Error (see packet 3)\nDubious SMTP conversation (packet number [4])\n"
      L"POP3 Server Returned Error (see packet 1)\n";
  if (texts != expected) std::fprintf(stderr, "got:\n%ls", texts.c_str());
  std::exit(texts == expected ? 0 : 1);
}

TEST(EnglishTextsDeathTest, ReportsUseTheTranslatedTemplates) {
  const std::string path = std::string(PELKA_SOURCE_DIR) + "/resources/en/PelkaEmailRes.cst";
  ASSERT_TRUE(std::filesystem::exists(path)) << path;
  EXPECT_EXIT(RunWithEnglishTable(path), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace pelka
