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
  EmailRecordTest() : flow_(0x0A64FF00, 40001, 0xC0A80101, 25), context_(&module_, &flow_) {
    module_.set_log_service(&service_);
    module_.DefineEmailLog();
    log_ = service_.log();
    context_.sender_address = L"ann@example.org";
    context_.receiver_address = L"bob@example.org";
  }
  void Post() { module_.PostEmailRecord(&flow_, context_, &node_); }

  CPelkaEmailModule module_;
  InMemoryLogService service_;
  InMemoryLog* log_ = nullptr;
  FakeFlow flow_;
  FakeFlowNode node_;
  CEmailFlowContext context_;
};

// The header texts, size and times a parsed message gives are compared exactly
// in ConversationRecordsTest; here the fields that come from elsewhere.
TEST_F(EmailRecordTest, FinishedMessageFillsEveryField) {
  context_.copy_path = L"/copies/x.eml";
  context_.first_packet_time = 1700000000999999ull;
  node_.group = L"Office";
  node_.protocol_path = L"ETH/IPv4/TCP/SMTP";
  Post();

  ASSERT_EQ(log_->records.size(), 1u);
  const InMemoryRecord& record = log_->records[0];
  const std::pair<const char*, const wchar_t*> texts[] = {{"email_file_path", L"/copies/x.eml"},
      {"email_client", L"10.100.255.0:40001"}, {"protocol_path", L"ETH/IPv4/TCP/SMTP"}, {"group", L"Office"}};
  for (const auto& [key, value] : texts) EXPECT_EQ(record.Text(key), value) << key;
  EXPECT_EQ(std::tie(record.seconds, record.client_address), std::make_tuple(1700000000u, 0x0A64FF00u));
  EXPECT_EQ(log_->unknown_column_sets, 0);
  EXPECT_EQ(log_->pending_records(), 0u);

  ASSERT_EQ(log_->entries.size(), 1u);
  const auto& entry = log_->entries[0];
  EXPECT_EQ(std::tie(entry.seconds, entry.flow, entry.kind, entry.summary, entry.group),
            std::make_tuple(1700000000u, &flow_, L"Email", L"ann@example.org To bob@example.org", L"Office"));
}

TEST_F(EmailRecordTest, SenderAndReceiverChoice) {
  struct Case {
    const wchar_t *sender_address, *return_path, *receiver_address, *envelope_to;
    const wchar_t *sender, *receiver;  // null: no record at all
  };
  const std::vector<Case> cases = {
      {L"a@x", L"r@x", L"b@y", L"e@y", L"a@x", L"b@y"},
      {L"ann", L"r@x", L"b@y", L"", L"r@x", L"b@y"},  // From without "@": Return-Path
      {L"", L"", L"b@y", L"", L"", L"b@y"},
      {L"a@x", L"", L"bob", L"e@y", L"a@x", L"e@y"},  // To without "@": Envelope-To
      {L"a@x", L"", L"", L"", L"a@x", L""},           // no receiver: posted all the same
      {L"ann", L"bounce", L"bob", L"env", nullptr, nullptr},
      {L"", L"", L"", L"", nullptr, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::wstring(c.sender_address) + L"|" + c.return_path + L"|" + c.receiver_address + L"|" +
                 c.envelope_to);
    const size_t before = log_->records.size();
    context_.sender_address = c.sender_address;
    context_.return_path = c.return_path;
    context_.receiver_address = c.receiver_address;
    context_.envelope_to = c.envelope_to;
    Post();
    ASSERT_EQ(log_->records.size(), before + (c.sender ? 1 : 0));
    ASSERT_EQ(log_->entries.size(), log_->records.size());
    if (!c.sender) continue;
    EXPECT_EQ(log_->records.back().Text("email_sender_email"), c.sender);
    EXPECT_EQ(log_->records.back().Text("email_receive_email"), c.receiver);
    EXPECT_EQ(log_->entries.back().summary, std::wstring(c.sender) + L" To " + c.receiver);
  }
  EXPECT_EQ(module_.last_email_number(), 5u) << "a message without record takes no number";
}

TEST_F(EmailRecordTest, ProtocolByPort) {
  const std::tuple<uint16_t, uint16_t, const wchar_t*> cases[] = {
      {25, 40000, L"SMTP"},    {40000, 25, L"SMTP"},    {110, 40000, L"POP3"}, {40000, 110, L"POP3"},
      {143, 40000, L"IMAPv4"}, {40000, 143, L"IMAPv4"}, {110, 25, L"SMTP"},    {143, 110, L"POP3"},
      {8025, 40000, nullptr},  // the field is left unset
  };
  for (const auto& [server_port, client_port, protocol] : cases) {
    FakeFlow flow(0x7F000001, client_port, 0x7F000002, server_port);
    module_.PostEmailRecord(&flow, context_, &node_);
    const InMemoryRecord& record = log_->records.back();
    EXPECT_EQ(record.Has("protocol") ? record.Text("protocol") : L"(unset)", protocol ? protocol : L"(unset)")
        << server_port;
    EXPECT_EQ(record.Text("email_server"), L"127.0.0.2:" + std::to_wstring(server_port));
  }
}

TEST_F(EmailRecordTest, NumberingCountsOnlyOpenedRecords) {
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

// Without a log service (copies without one are EmailCopyTest's).
TEST(EmailRecordWithoutLogTest, NothingIsDefinedOrPosted) {
  CPelkaEmailModule module;
  FakeFlow flow(1, 40000, 2, 25);
  FakeFlowNode node;
  CEmailFlowContext context(&module, &flow);
  context.sender_address = L"a@x";
  module.DefineEmailLog();
  module.PostEmailRecord(&flow, context, &node);
  EXPECT_EQ(module.last_email_number(), 0u);
}

// The columns, captions and export reach the host's output files, where the
// capture host's tests check them; here what a refused column leaves.
TEST(EmailLogDefinitionTest, ARefusedColumnLeavesTheDeclarationOpen) {
  // Refused column key, EndColumns calls.
  const std::pair<std::string, int> cases[] = {{"", 1}, {"email_cc", 0}, {"group", 0}};
  for (const auto& [refused_key, end_columns_calls] : cases) {
    SCOPED_TRACE(refused_key);
    InMemoryLogService service;
    service.refuse_key = refused_key;
    CPelkaEmailModule module;
    module.set_log_service(&service);
    module.DefineEmailLog();
    ASSERT_NE(service.log(), nullptr);
    EXPECT_EQ(module.email_log(), service.log());
    EXPECT_EQ(service.log()->columns.size(), 27u);  // every column is still declared
    EXPECT_EQ(service.log()->end_columns_calls, end_columns_calls);
    EXPECT_EQ(service.log()->storages.size(), 2u);  // the log exists, so its kinds do
  }
}

}  // namespace
}  // namespace pelka
