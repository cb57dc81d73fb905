#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "module/EmailModule.h"
#include "output/EmailLogExport.h"
#include "support/InMemoryLog.h"

namespace pelka {
namespace {

using testing::InMemoryLog;
using testing::InMemoryLogService;

struct ExpectedColumn {
  const char* key;  // standard columns: the host key of their field
  uint32_t standard_field;
  const wchar_t* caption;
  uint32_t kind;
  uint32_t width;
  uint32_t flags;
};

// Without a string table every caption is its default text, unmarked.
const std::vector<ExpectedColumn> kExpected = {
    {"email_number", 0, L"序号", 9, 80, 1},
    {"timestamp", 1, L"日期时间", 0, 140, 1},
    {"protocol", 0, L"协议", 1, 80, 33},
    {"src_mac", 2, L"客户端物理地址", 0, 120, 513},
    {"src_ip4", 4, L"客户端地址", 0, 120, 513},
    {"src_port", 6, L"客户端端口", 0, 80, 513},
    {"dst_mac", 3, L"服务器物理地址", 0, 120, 513},
    {"dst_ip4", 5, L"服务器地址", 0, 120, 513},
    {"dst_port", 7, L"服务器端口", 0, 80, 513},
    {"email_server", 0, L"服务端", 1, 150, 33},
    {"email_client", 0, L"客户端", 1, 150, 33},
    {"email_sender", 0, L"发送者", 1, 80, 161},
    {"email_sender_email", 0, L"发送邮件地址", 1, 200, 161},
    {"email_receiver", 0, L"接收者", 1, 80, 161},
    {"email_receive_email", 0, L"接收邮件地址", 1, 200, 161},
    {"email_cc", 0, L"抄送", 1, 300, 161},
    {"email_subject", 0, L"标题", 1, 200, 161},
    {"email_sent_time", 0, L"发送时间", 1, 180, 1},
    {"email_emailclient", 0, L"邮件客户端", 1, 100, 1},
    {"email_account", 0, L"帐户", 1, 100, 161},
    {"email_attachment", 0, L"附件", 1, 300, 129},
    {"email_filesize", 0, L"文件大小(字节)", 9, 100, 1},
    {"email_duration", 0, L"持续时间(s)", 11, 100, 1},
    {"email_averagespeed", 0, L"平均速度(B/S)", 11, 100, 1},
    {"email_file_path", 0, L"存放邮件副本路径", 1, 200, 705},
    {"protocol_path", 0, L"", 1, 0, 16},
    {"group", 0, L"", 1, 0, 16},
};

TEST(EmailLogDefinitionTest, DeclaresTheLogColumnsAndStorageKinds) {
  InMemoryLogService service;
  CPelkaEmailModule module;
  module.set_log_service(&service);
  module.DefineEmailLog();

  InMemoryLog* log = service.log();
  ASSERT_NE(log, nullptr);
  EXPECT_EQ(module.email_log(), log);
  EXPECT_EQ(log->name, "email_flow");
  EXPECT_EQ(log->caption, L"Email信息");
  EXPECT_EQ(log->capacity, 0x200000u);
  EXPECT_EQ(log->icon, -1);

  ASSERT_EQ(log->columns.size(), kExpected.size());
  for (size_t i = 0; i < kExpected.size(); ++i) {
    const auto& column = *log->columns[i];
    const auto& expected = kExpected[i];
    SCOPED_TRACE(expected.key);
    EXPECT_EQ(column.key, expected.key);
    EXPECT_EQ(column.standard_field, expected.standard_field);
    EXPECT_EQ(column.caption, expected.caption);
    EXPECT_EQ(column.value_kind, expected.kind);
    EXPECT_EQ(column.width, expected.width);
    EXPECT_EQ(column.flags, expected.flags);
    const bool hidden = column.key == "protocol_path" || column.key == "group";
    EXPECT_EQ(column.final_flag, hidden ? 1u : 0u);
  }
  EXPECT_EQ(log->end_columns_calls, 1);

  ASSERT_EQ(log->storages.size(), 2u);
  const auto& saved = *log->storages[0];
  EXPECT_EQ(saved.name, "log_email");
  EXPECT_EQ(saved.key, "log_email");
  EXPECT_EQ(saved.third, "email");
  EXPECT_EQ(saved.caption, L"邮件日志");
  EXPECT_EQ(saved.export_fn, &FormatEmailLogLines);
  const auto& copies = *log->storages[1];
  EXPECT_EQ(copies.name, "email_copy");
  EXPECT_EQ(copies.key, "email_copy");
  EXPECT_EQ(copies.third, "-");
  EXPECT_EQ(copies.caption, L"Email Copy");
  EXPECT_EQ(copies.export_fn, nullptr);
}

TEST(EmailLogDefinitionTest, FailuresLeaveWhatWasReached) {
  struct Case {
    const char* name;
    uint32_t create_status;
    std::string refused_key;
    bool log_expected;
    int end_columns_calls;
  };
  const std::vector<Case> cases = {
      {"create fails", 0x80920001u, "", false, 0},
      {"a column is refused", 0, "email_cc", true, 0},
      {"the last column is refused", 0, "group", true, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    InMemoryLogService service;
    service.create_status = c.create_status;
    CPelkaEmailModule module;
    module.set_log_service(&service);
    service.refuse_key = c.refused_key;
    module.DefineEmailLog();
    EXPECT_EQ(module.email_log() != nullptr, c.log_expected);
    InMemoryLog* log = service.log();
    if (!c.log_expected) {
      EXPECT_EQ(log, nullptr);
      continue;
    }
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(log->columns.size(), 27u);  // every column is still declared
    EXPECT_EQ(log->end_columns_calls, c.end_columns_calls);
    EXPECT_EQ(log->storages.size(), 2u);  // the log exists, so its kinds do
  }
}

TEST(EmailLogDefinitionTest, NoLogServiceNoLog) {
  CPelkaEmailModule module;
  module.DefineEmailLog();
  EXPECT_EQ(module.email_log(), nullptr);
}

}  // namespace
}  // namespace pelka
