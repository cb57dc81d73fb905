#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "flow/EmailFlowContext.h"
#include "module/EmailModule.h"
#include "support/FakeFlow.h"
#include "support/InMemoryLog.h"

namespace pelka {
namespace {

using testing::FakeFlow;
using testing::FakeFlowNode;
using testing::InMemoryLog;
using testing::InMemoryLogService;
using testing::InMemoryRecord;

class EmailRecordTest : public ::testing::Test {
 protected:
  EmailRecordTest() : flow_(0x0A000002, 40001, 0xC0A80101, 25), context_(&module_, &flow_) {
    module_.set_log_service(&service_);
    module_.DefineEmailLog();
    log_ = service_.log();
  }

  // A finished message with every field the record reads.
  void FillMessage(CEmailFlowContext& context) {
    context.first_packet_time = 1700000000999999ull;
    context.sender_name = L"Ann";
    context.sender_address = L"ann@example.org";
    context.return_path = L"bounce@example.org";
    context.receiver_name = L"Bob";
    context.receiver_address = L"bob@example.org";
    context.envelope_to = L"env@example.org";
    context.cc = L"\"Carl\"<carl@example.org>";
    context.subject = L"Quarterly report";
    context.sent_time = L"Tue, 14 Nov 2023 22:13:20 +0000";
    context.mailer = L"Mailer 2.0";
    context.account = L"ann";
    context.attachments = L"a.pdf;b.txt;";
    context.copy_path = L"/data/email_copy/2023-11-14 22.13.20.999999.eml";
    context.message_size = 4096;
    context.duration = 0.5;
    context.average_speed = 8192.0;
  }

  void Post() { module_.PostEmailRecord(&flow_, context_, &node_); }

  CPelkaEmailModule module_;
  InMemoryLogService service_;
  InMemoryLog* log_ = nullptr;
  FakeFlow flow_;
  FakeFlowNode node_;
  CEmailFlowContext context_;
};

TEST_F(EmailRecordTest, FinishedMessageFillsEveryField) {
  ASSERT_NE(log_, nullptr);
  FillMessage(context_);
  node_.group = L"Office";
  node_.protocol_path = L"ETH/IPv4/TCP/SMTP";
  Post();

  ASSERT_EQ(log_->records.size(), 1u);
  const InMemoryRecord& record = log_->records[0];
  EXPECT_EQ(record.seconds, 1700000000u);
  EXPECT_EQ(log_->last_new_record_reserved, 0u);
  EXPECT_EQ(record.client_address, 0x0A000002u);  // the flow given to NewRecord

  EXPECT_EQ(record.Number("email_number"), 1u);
  EXPECT_EQ(record.Number("email_filesize"), 4096u);
  EXPECT_EQ(record.Double("email_duration"), 0.5);
  EXPECT_EQ(record.Double("email_averagespeed"), 8192.0);
  const std::vector<std::pair<std::string, std::wstring>> texts = {
      {"email_server", L"192.168.1.1:25"},
      {"email_client", L"10.0.0.2:40001"},
      {"protocol", L"SMTP"},
      {"email_sender", L"Ann"},
      {"email_sender_email", L"ann@example.org"},
      {"email_receiver", L"Bob"},
      {"email_receive_email", L"bob@example.org"},
      {"email_cc", L"\"Carl\"<carl@example.org>"},
      {"email_subject", L"Quarterly report"},
      {"email_sent_time", L"Tue, 14 Nov 2023 22:13:20 +0000"},
      {"email_emailclient", L"Mailer 2.0"},
      {"email_account", L"ann"},
      {"email_attachment", L"a.pdf;b.txt;"},
      {"email_file_path", L"/data/email_copy/2023-11-14 22.13.20.999999.eml"},
      {"protocol_path", L"ETH/IPv4/TCP/SMTP"},
      {"group", L"Office"},
  };
  for (const auto& [key, value] : texts) EXPECT_EQ(record.Text(key), value) << key;

  EXPECT_EQ(log_->unknown_column_sets, 0);
  EXPECT_EQ(log_->pending_records(), 0u);

  EXPECT_EQ(context_.server_endpoint, L"192.168.1.1:25");
  EXPECT_EQ(context_.client_endpoint, L"10.0.0.2:40001");

  ASSERT_EQ(log_->entries.size(), 1u);
  const auto& entry = log_->entries[0];
  EXPECT_EQ(std::tie(entry.seconds, entry.flow, entry.kind, entry.summary, entry.group),
            std::make_tuple(1700000000u, &flow_, L"Email", L"ann@example.org To bob@example.org", L"Office"));
}

TEST_F(EmailRecordTest, SenderAndReceiverChoice) {
  struct Case {
    const wchar_t* sender_address;
    const wchar_t* return_path;
    const wchar_t* receiver_address;
    const wchar_t* envelope_to;
    const wchar_t* sender;    // null: no record at all
    const wchar_t* receiver;
  };
  const std::vector<Case> cases = {
      {L"a@x", L"r@x", L"b@y", L"e@y", L"a@x", L"b@y"},
      {L"ann", L"r@x", L"b@y", L"", L"r@x", L"b@y"},      // From without "@": Return-Path
      {L"", L"", L"b@y", L"", L"", L"b@y"},
      {L"a@x", L"", L"bob", L"e@y", L"a@x", L"e@y"},      // To without "@": Envelope-To
      {L"a@x", L"", L"", L"", L"a@x", L""},               // no receiver: posted all the same
      {L"ann", L"bounce", L"bob", L"env", nullptr, nullptr},
      {L"", L"", L"", L"", nullptr, nullptr},
  };
  for (const auto& c : cases) {
    InMemoryLogService service;
    CPelkaEmailModule module;
    module.set_log_service(&service);
    module.DefineEmailLog();
    CEmailFlowContext context(&module, &flow_);
    context.sender_name = L"Name";
    context.sender_address = c.sender_address;
    context.return_path = c.return_path;
    context.receiver_address = c.receiver_address;
    context.envelope_to = c.envelope_to;
    module.PostEmailRecord(&flow_, context, &node_);

    SCOPED_TRACE(std::wstring(c.sender_address) + L"|" + c.return_path + L"|" + c.receiver_address + L"|" +
                 c.envelope_to);
    InMemoryLog* log = service.log();
    if (!c.sender) {
      EXPECT_TRUE(log->records.empty());
      EXPECT_TRUE(log->entries.empty());
      EXPECT_EQ(module.last_email_number(), 0u);
      continue;
    }
    ASSERT_EQ(log->records.size(), 1u);
    EXPECT_EQ(log->records[0].Text("email_sender_email"), c.sender);
    EXPECT_EQ(log->records[0].Text("email_receive_email"), c.receiver);
    EXPECT_EQ(log->records[0].Text("email_sender"), L"Name");
    EXPECT_EQ(log->entries[0].summary, std::wstring(c.sender) + L" To " + c.receiver);
  }
}

TEST_F(EmailRecordTest, ProtocolByPort) {
  struct Case {
    uint16_t server_port;
    uint16_t client_port;
    const wchar_t* protocol;  // null: the field is left unset
  };
  const std::vector<Case> cases = {
      {25, 40000, L"SMTP"},  {40000, 25, L"SMTP"},   {110, 40000, L"POP3"}, {40000, 110, L"POP3"},
      {143, 40000, L"IMAPv4"}, {40000, 143, L"IMAPv4"}, {110, 25, L"SMTP"},  {143, 110, L"POP3"},
      {8025, 40000, nullptr},
  };
  for (const auto& c : cases) {
    FakeFlow flow(0x7F000001, c.client_port, 0x7F000002, c.server_port);
    FillMessage(context_);
    module_.PostEmailRecord(&flow, context_, &node_);
    const InMemoryRecord& record = log_->records.back();
    SCOPED_TRACE(c.server_port);
    if (c.protocol) {
      EXPECT_EQ(record.Text("protocol"), c.protocol);
    } else {
      EXPECT_FALSE(record.Has("protocol"));
      EXPECT_EQ(record.fields.size(), 19u);  // every other field is there
    }
    EXPECT_EQ(record.Text("email_server"), L"127.0.0.2:" + std::to_wstring(c.server_port));
  }
}

TEST_F(EmailRecordTest, NumberingCountsOnlyOpenedRecords) {
  FillMessage(context_);
  for (int i = 0; i < 3; ++i) Post();

  log_->enabled = 0;  // the log switched off
  Post();
  log_->enabled = 1;
  log_->refuse_records = true;
  Post();
  log_->refuse_records = false;
  EXPECT_EQ(module_.last_email_number(), 3u);
  EXPECT_EQ(log_->entries.size(), 3u);  // no summary without a record

  module_.ResetNumbering();
  Post();
  std::vector<uint64_t> numbers;
  for (const auto& record : log_->records) numbers.push_back(record.Number("email_number").value_or(0));
  EXPECT_EQ(numbers, (std::vector<uint64_t>{1, 2, 3, 1}));
}

TEST(EmailRecordWithoutLogTest, NothingHappensAndNothingCrashes) {
  FakeFlow flow(1, 40000, 2, 25);
  FakeFlowNode node;
  testing::PacketRecordBuilder builder;

  CPelkaEmailModule without_service;
  CEmailFlowContext context(&without_service, &flow);
  context.sender_address = L"a@x";
  context.receiver_address = L"b@y";
  without_service.DefineEmailLog();
  without_service.SaveEmailCopy(&context, builder.Build(1, 1, 40000, 25));
  without_service.PostEmailRecord(&flow, context, &node);
  EXPECT_EQ(without_service.last_email_number(), 0u);
  EXPECT_EQ(context.copy_path, L"");

  InMemoryLogService failing;
  failing.create_status = 0x8092FFFFu;
  CPelkaEmailModule without_log;
  without_log.set_log_service(&failing);
  without_log.DefineEmailLog();
  without_log.SaveEmailCopy(&context, builder.Build(1, 1, 40000, 25));
  without_log.PostEmailRecord(&flow, context, &node);
  EXPECT_EQ(without_log.email_log(), nullptr);
  EXPECT_EQ(without_log.last_email_number(), 0u);
  without_log.SaveEmailCopy(nullptr, nullptr);
}

}  // namespace
}  // namespace pelka
