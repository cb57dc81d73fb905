// Whole SMTP, POP3 and IMAP4 conversations through the flow client, checked
// at the records they leave in an in-memory email log.
#include <gtest/gtest.h>

#include <string>

#include "support/Conversation.h"
#include "support/InMemoryLog.h"

namespace pelka {
namespace {

using testing::Conversation;
using testing::InMemoryLog;
using testing::InMemoryLogService;
using testing::InMemoryRecord;

class ConversationRecordsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    module_.set_log_service(&service_);
    module_.DefineEmailLog();
    ASSERT_NE(service_.log(), nullptr);
  }
  const std::vector<InMemoryRecord>& records() const { return service_.log()->records; }

  InMemoryLogService service_;
  CPelkaEmailModule module_;
};

std::string SmtpMessage(const std::string& subject) {
  return "From: =?gb2312?B?1cXI/Q==?= <zhang@example.com>\r\n"
         "To: Bob <bob@example.org>\r\n"
         "Cc: \"Carl\" <carl@example.org>\r\n"
         "Subject: " + subject + "\r\n"
         "Date: Tue, 1 Jan 2013 10:00:00 +0800\r\n"
         "X-Mailer: Mail Client 7\r\n"
         "MIME-Version: 1.0\r\n"
         "Content-Type: multipart/mixed; boundary=\"b\"\r\n"
         "\r\n--b\r\nContent-Type: text/plain\r\n\r\nhello\r\n"
         "--b\r\nContent-Disposition: attachment; filename=\"report.pdf\"\r\n\r\nAAAA\r\n"
         "--b--\r\n.\r\n";
}

TEST_F(ConversationRecordsTest, SmtpMessagesCarryEveryHeaderField) {
  Conversation smtp(module_, 25, kProtocolSmtp);
  smtp.Server("220 ready\r\n", 10'000'000);
  smtp.Client("AUTH LOGIN\r\n", 10'100'000);
  smtp.Server("334 VXNlcm5hbWU6\r\n", 10'200'000);
  smtp.Client("emhhbmc=\r\n", 10'300'000);  // "zhang"
  // Raw and decoded subjects; the charsets themselves are the mail tests' part.
  const std::pair<const char*, const wchar_t*> subjects[] = {
      {"=?gb2312?B?xOO6ww==?=", L"\x4F60\x597D"}, {"plain", L"plain"}, {"=?utf-8?B?5L2g5aW9?=", L"\x4F60\x597D"}};
  uint64_t time = 20'000'000;
  for (const auto& subject : subjects) {
    smtp.Client("DATA\r\n", time);
    const std::string message = SmtpMessage(subject.first);
    const size_t half = message.size() / 2;
    smtp.Client(message.substr(0, half), time + 1'000'000);
    smtp.Client(message.substr(half), time + 3'000'000);  // two seconds later
    smtp.Server("250 queued\r\n", time + 3'100'000);  // the next message's first packet
    time += 10'000'000;
  }

  // The sender's text after the encoded word is dropped; attachment names are
  // the header extractor's tests.
  const std::pair<const char*, const wchar_t*> texts[] = {
      {"email_sender", L"\x5F20\x4E09"}, {"email_sender_email", L"zhang@example.com"}, {"email_receiver", L"Bob "},
      {"email_receive_email", L"bob@example.org"}, {"email_cc", L"\"Carl\"<carl@example.org>"},
      {"email_sent_time", L"Tue, 1 Jan 2013 10:00:00 +0800"}, {"email_emailclient", L"Mail Client 7"},
      {"email_account", L"zhang"}, {"email_attachment", L"report.pdf;"}, {"protocol", L"SMTP"}};
  ASSERT_EQ(records().size(), 3u);
  for (int i = 0; i < 3; ++i) {
    const InMemoryRecord& record = records()[i];
    const size_t size = SmtpMessage(subjects[i].first).size();
    EXPECT_EQ(record.Number("email_number"), i + 1u);
    EXPECT_EQ(record.seconds, i == 0 ? 10u : 13u + 10 * i);
    EXPECT_EQ(record.Text("email_subject"), subjects[i].second);
    for (const auto& [key, text] : texts) EXPECT_EQ(record.Text(key), text) << key;
    EXPECT_EQ(record.Number("email_filesize"), size) << "the DATA line is not collected";
    EXPECT_EQ(record.Double("email_duration"), 2.0);
    EXPECT_EQ(record.Double("email_averagespeed"), size / 2.0);
  }
}

TEST_F(ConversationRecordsTest, Pop3RetrievalsBecomeRecordsWithoutTheStatusLine) {
  const std::string first = "From: a@example.org\r\nTo: alice@example.org\r\nSubject: one\r\n\r\nbody one\r\n.\r\n";
  const std::string second = "From: b@example.org\r\nTo: alice@example.org\r\nSubject: two\r\n\r\nbody two\r\n.\r\n";
  Conversation pop3(module_, 110, kProtocolPop3);
  pop3.Client("USER alice\r\n", 1'000'000);
  pop3.Client("RETR 1\r\n", 2'000'000);
  pop3.Server("+OK message follows\r\n" + first.substr(0, 20), 2'100'000);
  pop3.Server(first.substr(20, 30), 2'600'000);
  pop3.Server(first.substr(50), 3'100'000);
  pop3.Client("RETR 2\r\n", 4'000'000);
  pop3.Server("+OK\r\n" + second, 4'100'000);  // status line, message and end marker at once
  pop3.Client("RETR 9\r\n", 5'000'000);
  EXPECT_EQ(pop3.Server("-ERR\r\n", 5'100'000), 1u);
  pop3.Client("TOP 1 0\r\n", 5'200'000);
  pop3.Server("+OK\r\nFrom: a@example.org\r\nTo: alice@example.org\r\n\r\n.\r\n", 5'300'000);

  ASSERT_EQ(records().size(), 2u);
  EXPECT_EQ(records()[0].Text("email_subject"), L"one");
  EXPECT_EQ(records()[0].Number("email_filesize"), first.size());
  EXPECT_EQ(records()[0].Double("email_duration"), 1.0);
  EXPECT_EQ(records()[1].Number("email_filesize"), second.size());
  EXPECT_EQ(records()[1].Double("email_duration"), 0.0);
  for (const InMemoryRecord& record : records()) {
    EXPECT_EQ(record.Text("email_account"), L"alice");
    EXPECT_EQ(record.Text("protocol"), L"POP3");
  }
}

TEST_F(ConversationRecordsTest, ImapFetchLiteralsBecomeOneRecordEach) {
  Conversation imap(module_, 143, kProtocolImap4);
  imap.Server("* OK IMAP4 ready\r\n", 1'000'000);
  imap.Client("A1 LOGIN bob secret\r\n", 1'100'000);
  imap.Client("A3 UID FETCH 1:* (FLAGS)\r\n", 1'500'000);
  imap.Server("* 1 FETCH (UID 1 FLAGS (\\Seen))\r\nA3 OK done\r\n", 1'600'000);
  EXPECT_TRUE(records().empty()) << "a FLAGS fetch collects nothing";

  imap.Client("A4 UID FETCH 1:* (BODY.PEEK[])\r\n", 2'000'000);
  std::string response;  // one literal per message
  for (const std::string uid : {"1", "2", "3"}) {
    const std::string message = "From: s@example.org\r\nTo: bob@example.org\r\nSubject: m" + uid + "\r\n\r\nx\r\n";
    response += "* " + uid + " FETCH (UID " + uid + " BODY[] {" + std::to_string(message.size()) + "}\r\n" +
                message + ")\r\n";
  }
  for (size_t at = 0; at < response.size(); at += 40) imap.Server(response.substr(at, 40), 2'100'000 + at);
  EXPECT_TRUE(records().empty()) << "nothing before the tagged completion";
  imap.Server("A4 OK UID FETCH completed\r\n", 3'000'000);

  ASSERT_EQ(records().size(), 3u);
  for (int i = 0; i < 3; ++i) {
    const InMemoryRecord& record = records()[i];
    EXPECT_EQ(record.Text("email_subject"), L"m" + std::to_wstring(i + 1));
    EXPECT_EQ(record.Text("email_account"), L"bob");
    EXPECT_EQ(record.Text("protocol"), L"IMAPv4");
    EXPECT_EQ(record.Double("email_duration"), 0.0);
    EXPECT_EQ(record.Double("email_averagespeed"), 0.0);
    EXPECT_EQ(record.seconds, 1u) << "every literal shares the session's first packet time";
  }
}

// A literal longer than the response's text, or a negative one, takes all of it.
TEST_F(ConversationRecordsTest, ImapLiteralLengthCutsTheMessage) {
  const std::string message = "From: s@example.org\r\nTo: bob@example.org\r\n\r\nbody\r\n";
  const std::string rest = ")\r\nA4 OK done\r\n";
  // Declared length, and whether it takes the rest of the response.
  const std::pair<std::string, bool> cases[] = {
      {std::to_string(message.size()), false}, {"+50", false}, {" 50", false}, {"4000", true}, {"-5", true},
      {"99999999999", true}};
  for (const auto& [declared, takes_all] : cases) {
    Conversation imap(module_, 143, kProtocolImap4);
    imap.Client("A4 UID FETCH 1 (BODY.PEEK[])\r\n", 1'000'000);
    imap.Server("* 1 FETCH (UID 1 BODY[] {" + declared + "}\r\n" + message + rest, 2'000'000);
    ASSERT_EQ(records().size(), 1u) << declared;
    EXPECT_EQ(records()[0].Number("email_filesize"), message.size() + (takes_all ? rest.size() : 0)) << declared;
    service_.log()->records.clear();
  }
}

}  // namespace
}  // namespace pelka
