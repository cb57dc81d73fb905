#include "mail/HeaderExtractor.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "flow/EmailFlowData.h"
#include "host/RefPtr.h"

namespace pelka {
namespace {

const std::wstring kZhongWen = L"\u4E2D\u6587";

constexpr MailProtocol kSmtp = MailProtocol::kSmtp;
constexpr MailProtocol kPop3 = MailProtocol::kPop3;

std::unique_ptr<MessageFields> Extract(const std::string& message, MailProtocol protocol = kSmtp, uint64_t start = 0,
                                       uint64_t end = 0) {
  auto data = RefPtr<CEmailFlowDataImpl>::Adopt(new CEmailFlowDataImpl);
  data->Append(reinterpret_cast<const uint8_t*>(message.data()), static_cast<uint32_t>(message.size()));
  data->Commit();
  auto fields = std::make_unique<MessageFields>();
  fields->body_start_time = start;
  fields->body_end_time = end;
  CTQBase64Coder coder;
  std::wstring qp_text;
  ExtractMailHeaders(*data, SplitScratch{coder, qp_text}, *fields, protocol);
  return fields;
}

std::string Message(const std::string& header_lines) { return header_lines + "\r\nBody text.\r\n.\r\n"; }

// Whole messages with every field are compared in ConversationRecordsTest.
TEST(HeaderExtractorTest, HeaderFieldCases) {
  using C = MessageFields;
  struct FieldCase { const char* name; std::string header_lines; std::wstring C::*field; std::wstring expected; };
  const std::vector<FieldCase> cases = {
      {"subject of an empty word", "Subject: =?gbk?b?\?=\r\n", &C::subject, L""},
      {"subject with brackets", "Subject: Meeting <today>\r\n", &C::subject, L"today"},
      {"folded subject keeps the tab", "Subject: Hello\r\n\tworld\r\n", &C::subject, L"Hello\tworld"},
      {"list without brackets", "To: x@a, y@b\r\n", &C::receiver_address, L"x@a, y@b"},
      {"zero byte ends a value", std::string("Subject: ab\0cd\r\n", 16), &C::subject, L"ab"},
      {"first To gives the address", "To: x@a\r\nTo: N <y@b>\r\n", &C::receiver_address, L"x@a"},
      {"a later To gives the name", "To: x@a\r\nTo: N <y@b>\r\n", &C::receiver_name, L"N "},
      {"first From wins", "From: a@x\r\nFrom: b@x\r\n", &C::sender_address, L"a@x"},
      {"names in any case", "fROm: a@x\r\n", &C::sender_address, L"a@x"},
      {"blank before the colon", "From : a@x\r\n", &C::sender_address, L""},
      {"other names ignored", "Reply-To: r@x\r\nResent-From: s@x\r\n", &C::sender_address, L""},
      {"cc without a name", "Cc: x@a\r\n", &C::cc, L"x@a"},
      {"cc with an encoded name", "Cc: =?gbk?b?1tDOxA==?= <x@a>\r\n", &C::cc, L"\"" + kZhongWen + L"\"<x@a>"},
      {"date not decoded", "Date: =?utf-8?b?5Lit?=\r\n", &C::sent_time, L"=?utf-8?b?5Lit?="},
      {"mailer not decoded", "X-Mailer: App 7.2 =?utf-8?b?5Lit?=\r\n", &C::mailer, L"App 7.2 =?utf-8?b?5Lit?="},
      {"return path without brackets", "Return-Path: <r@x.com>\r\n", &C::return_path, L"r@x.com"},
      {"envelope-to", "Envelope-To: e@y.com\r\n", &C::envelope_to, L"e@y.com"},
      // U+FFFD has no GBK form, so the round trip through ANSI bytes makes it '?'.
      {"invalid gbk goes on", "Subject: a\xFFz\r\n", &C::subject, L"a?z"},
  };
  for (const FieldCase& c : cases) EXPECT_EQ((*Extract(Message(c.header_lines))).*(c.field), c.expected) << c.name;
}

TEST(HeaderExtractorTest, AttachmentNames) {
  const std::string part = "--b\r\nContent-Type: application/octet-stream\r\n";
  const std::vector<std::tuple<const char*, std::string, std::wstring>> cases = {
      {"two names, the second header folded",
       part + "Content-Disposition: attachment; filename=\"a.doc\"\r\n\r\nA\r\n" + part +
           "Content-Disposition: attachment;\r\n\tfilename=\"b.xls\"\r\n\r\nB\r\n",
       L"a.doc;b.xls;"},
      {"gbk encoded name decoded",
       part + "Content-Disposition: attachment; filename=\"=?gbk?b?uL28/i5kb2M=?=\"\r\n\r\n", L"\u9644\u4EF6.doc;"},
      {"no file name", part + "Content-Disposition: attachment\r\n\r\n", L""},
      {"utf-8 encoded name kept", part + "Content-Disposition: attachment; filename=\"=?utf-8?b?5Lit?=\"\r\n\r\n",
       L"=?utf-8?b?5Lit?=;"},
      {"unquoted name", part + "Content-Disposition: attachment; filename=a.doc\r\n\r\n", L""},
      {"other letter case", part + "content-disposition: Attachment; filename=\"a.doc\"\r\n\r\n", L""},
      {"inline parts ignored", part + "Content-Disposition: inline; filename=\"a.png\"\r\n\r\n", L""},
      {"file name in the next part's header is not taken",
       part + "Content-Disposition: attachment\r\n\r\n" + part + "Content-Type: x; filename=\"c.txt\"\r\n\r\n", L""},
      {"name without a closing quote runs to the part's end",
       part + "Content-Disposition: attachment; filename=\"a.doc; size=3\r\n\r\n", L"a.doc; size=3;"},
      {"part header without an empty line after it", part + "Content-Disposition: attachment; filename=\"z.zip\"",
       L"z.zip;"},
  };
  for (const auto& [name, body, expected] : cases) {
    EXPECT_EQ(Extract("From: a@x\r\nContent-Type: multipart/mixed\r\n\r\n" + body)->attachments, expected) << name;
  }
}

// POP3 status lines and whole messages are checked by ConversationRecordsTest.
TEST(HeaderExtractorTest, SizeDurationAndSpeed) {
  struct TimingCase {
    const char* name;
    std::string message;
    MailProtocol protocol;
    uint64_t start, end, size;
    double duration, speed;
  };
  const std::string m(1000, 'x');
  const std::vector<TimingCase> cases = {
      {"times the wrong way round", m, kSmtp, 3000000, 1000000, 1000, 2.0, 500.0},
      {"no end time", m, kSmtp, 1000000, 0, 1000, 0.0, 0.0},
      {"empty message", "", kSmtp, 1000000, 1500000, 0, 0.5, 0.0},
      {"pop3 status line without its line end", "+OK From: a@x", kPop3, 0, 0, 0, 0.0, 0.0},
  };
  for (const TimingCase& c : cases) {
    const auto context = Extract(c.message, c.protocol, c.start, c.end);
    EXPECT_EQ(context->message_size, c.size) << c.name;
    EXPECT_DOUBLE_EQ(context->duration, c.duration) << c.name;
    EXPECT_DOUBLE_EQ(context->average_speed, c.speed) << c.name;
  }
}

}  // namespace
}  // namespace pelka
