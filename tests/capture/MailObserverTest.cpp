// Hand-made conversations through the mail observer: each notice kind it
// gives, grouped by protocol, and the sessions that give none. A turn says
// which side sent it and how many records the module had posted after it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "capture/MailObserver.h"
#include "host/Types.h"

namespace pelka {
namespace {

struct Turn {
  char side;  // 'C' from the client, 'S' from the server
  std::string bytes;
  uint64_t records = 0;  // posted on the connection once the module had this turn
};

struct Conversation {
  const char* name;
  uint16_t protocol;
  std::vector<Turn> turns;
  std::vector<std::string> notices;  // the kinds, in order
  uint64_t max_flow_length = 1 << 20;
};

class Collect final : public NoticeListener {
 public:
  void OnNotice(NoticeKind kind, uint64_t) override { kinds.emplace_back(NoticeKey(kind)); }
  std::vector<std::string> kinds;
};

const std::string kMessage = "From: a@example.org\r\nTo: b@example.net\r\nSubject: hi\r\n\r\nbody\r\n.\r\n";
const std::string kGreeting = "220 mx ESMTP\r\n";

const std::vector<Conversation> kConversations = {
    // --- SMTP
    {.name = "SmtpPlainSessionGivesNone", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "MAIL FROM:<a@example.org>\r\n"}, {'S', "250 ok\r\n"}, {'C', "DATA\r\n"},
               {'S', "354 go\r\n"}, {'C', kMessage, 1}, {'S', "250 queued\r\n", 1}},
     .notices = {}},
    {.name = "SmtpDataInsideASegmentIsPipelined", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "MAIL FROM:<a@example.org>\r\nRCPT TO:<b@example.net>\r\nDATA\r\n"},
               {'S', "250 ok\r\n250 ok\r\n354 go\r\n"}, {'C', kMessage}},
     .notices = {"smtp-pipelined"}},
    {.name = "SmtpBodySentWithItsDataIsPipelined", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "DATA\r\n" + kMessage}, {'S', "354 go\r\n250 queued\r\n"}},
     .notices = {"smtp-pipelined"}},
    {.name = "SmtpRefusedPipelinedDataSendsNoMessage", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "MAIL FROM:<a@example.org>\r\nDATA\r\n"}, {'S', "250 ok\r\n503 no\r\n"},
               {'C', "QUIT\r\n"}},
     .notices = {}},
    {.name = "SmtpMessageTheAddressTestDrops", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "DATA\r\n"}, {'S', "354 go\r\n"}, {'C', "Subject: no one\r\n\r\nx\r\n.\r\n"}},
     .notices = {"no-receiver-address"}},
    {.name = "SmtpStarttlsThenHandshake", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "STARTTLS\r\n"}, {'S', "220 go ahead\r\n"}, {'C', "\x16\x03\x01 hello"},
               {'C', "DATA\r\n"}},
     .notices = {"starttls"}},
    {.name = "SmtpStarttlsThatStaysClearGivesNone", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "STARTTLS\r\n"}, {'S', "220 go ahead\r\n"}, {'C', "EHLO me\r\n"}},
     .notices = {}},
    {.name = "SmtpAuthPlainNameNotTaken", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "AUTH PLAIN AGFsaWNlAHNlY3JldA==\r\n"}, {'S', "235 ok\r\n"},
               {'C', "AUTH PLAIN\r\n"}},
     .notices = {"login-not-taken"}},
    {.name = "SmtpAuthLoginWithUsualPromptsGivesNone", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "AUTH LOGIN\r\n"}, {'S', "334 VXNlcm5hbWU6\r\n"}, {'C', "YWxpY2U=\r\n"},
               {'S', "334 UGFzc3dvcmQ6\r\n"}, {'C', "c2VjcmV0\r\n"}, {'S', "235 ok\r\n"}},
     .notices = {}},
    {.name = "SmtpAuthLoginWithOtherPrompt", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "AUTH LOGIN\r\n"}, {'S', "334 VXNlciBOYW1lAA==\r\n"}},
     .notices = {"login-not-taken"}},
    {.name = "SmtpBdatMessageStaysOpen", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "BDAT 5 LAST\r\nhello"}, {'S', "250 ok\r\n"}, {'C', "QUIT\r\n"}},
     .notices = {"unfinished"}},
    {.name = "SmtpBodyPastTheLimitIsCut", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "DATA\r\n"}, {'S', "354 go\r\n"}, {'C', "To: b@example.net\r\n"},
               {'C', "more\r\n"}, {'C', ".\r\n"}},
     .notices = {"cut-at-limit"},
     .max_flow_length = 8},
    {.name = "SmtpConnectionEndsInsideData", .protocol = kProtocolSmtp,
     .turns = {{'S', kGreeting}, {'C', "DATA\r\n"}, {'S', "354 go\r\n"}, {'C', "To: b@example.net\r\n"}},
     .notices = {"unfinished"}},
    // --- POP3
    {.name = "Pop3RetrGivesNone", .protocol = kProtocolPop3,
     .turns = {{'S', "+OK ready\r\n"}, {'C', "USER alice\r\n"}, {'S', "+OK\r\n"}, {'C', "RETR 1\r\n"},
               {'S', "+OK 60 octets\r\n" + kMessage, 1}},
     .notices = {}},
    {.name = "Pop3Top", .protocol = kProtocolPop3,
     .turns = {{'S', "+OK ready\r\n"}, {'C', "TOP 1 0\r\n"}, {'S', "+OK\r\nSubject: hi\r\n\r\n.\r\n"},
               {'C', "TOP 2 0\r\n"}, {'S', "-ERR no such message\r\n"}},
     .notices = {"pop3-top"}},
    {.name = "Pop3ApopNameNotTaken", .protocol = kProtocolPop3,
     .turns = {{'S', "+OK ready <1@mx>\r\n"}, {'C', "APOP alice c4c9334bac560ecc979e58001b3e22fb\r\n"}},
     .notices = {"login-not-taken"}},
    {.name = "Pop3StlsThenHandshake", .protocol = kProtocolPop3,
     .turns = {{'S', "+OK ready\r\n"}, {'C', "STLS\r\n"}, {'S', "+OK begin\r\n"}, {'C', "\x16\x03\x01"}},
     .notices = {"starttls"}},
    {.name = "Pop3RetrCutByTheConnectionEnd", .protocol = kProtocolPop3,
     .turns = {{'S', "+OK ready\r\n"}, {'C', "RETR 1\r\n"}, {'S', "+OK\r\nTo: b@example.net\r\n"}},
     .notices = {"unfinished"}},
    // --- IMAP4
    {.name = "ImapUidFetchPeekGivesNone", .protocol = kProtocolImap4,
     .turns = {{'S', "* OK ready\r\n"}, {'C', "a1 LOGIN alice secret\r\n"}, {'S', "a1 OK\r\n"},
               {'C', "a2 UID FETCH 1 (BODY.PEEK[])\r\n"},
               {'S', "* 1 FETCH (UID 7 BODY[] {" + std::to_string(kMessage.size()) + "}\r\n" + kMessage + ")\r\n"},
               {'S', "a2 OK done\r\n", 1}},
     .notices = {}},
    {.name = "ImapFetchRfc822WithoutUid", .protocol = kProtocolImap4,
     .turns = {{'C', "a2 FETCH 1 RFC822\r\n"}, {'S', "* 1 FETCH (RFC822 {4}\r\nabcd)\r\na2 OK\r\n"}},
     .notices = {"imap-fetch-form"}},
    {.name = "ImapUidAfterTheLiteral", .protocol = kProtocolImap4,
     .turns = {{'C', "a2 UID FETCH 1 (BODY.PEEK[])\r\n"},
               {'S', "* 1 FETCH (BODY[] {4}\r\nabcd UID 7)\r\na2 OK\r\n"}},
     .notices = {"imap-fetch-form"}},
    {.name = "ImapHeaderFetchIsNoMessage", .protocol = kProtocolImap4,
     .turns = {{'C', "a2 FETCH 1 (BODY[HEADER])\r\n"}, {'S', "* 1 FETCH (BODY[HEADER] {4}\r\nabcd)\r\na2 OK\r\n"}},
     .notices = {}},
    {.name = "ImapAuthenticateNameNotTaken", .protocol = kProtocolImap4,
     .turns = {{'C', "a1 AUTHENTICATE PLAIN\r\n"}},
     .notices = {"login-not-taken"}},
    {.name = "ImapStarttlsThenHandshake", .protocol = kProtocolImap4,
     .turns = {{'C', "a1 STARTTLS\r\n"}, {'S', "a1 OK begin\r\n"}, {'C', "\x16\x03\x01"}},
     .notices = {"starttls"}},
};

class MailObserverTest : public testing::TestWithParam<Conversation> {};

TEST_P(MailObserverTest, GivesTheNoticesOfItsConversation) {
  const Conversation& conversation = GetParam();
  Collect notices;
  MailObserver observer(conversation.protocol, conversation.max_flow_length, notices);
  uint64_t packet = 0, records = 0;
  for (const Turn& turn : conversation.turns) {
    records = turn.records;
    const auto* bytes = reinterpret_cast<const uint8_t*>(turn.bytes.data());
    observer.OnSegment(++packet, turn.side == 'C' ? kFromClient : kFromServer, bytes,
                       static_cast<uint32_t>(turn.bytes.size()), records);
  }
  observer.OnEnd(packet, records);
  EXPECT_EQ(notices.kinds, conversation.notices);
}

INSTANTIATE_TEST_SUITE_P(Conversations, MailObserverTest, testing::ValuesIn(kConversations),
                         [](const testing::TestParamInfo<Conversation>& info) { return info.param.name; });

}  // namespace
}  // namespace pelka
