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

TEST(EmailLogDefinitionTest, ColumnsServeTheExportAndTheHost) {
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
  ASSERT_EQ(log->columns.size(), 27u);
  EXPECT_EQ(log->end_columns_calls, 1);

  // The export reads its header captions by position: without a string table
  // they are the default texts, unmarked.
  ResetEmailLogHeaderCache();
  std::wstring header;
  FormatEmailLogLines(testing::MakeRecordSet(*log).get(), 1, 1, header);
  EXPECT_EQ(header,
            L"日期时间 客户端地址 客户端端口 服务器地址 服务器端口 发送者 发送邮件地址 接收者 接收邮件地址 抄送 标题 "
            L"发送时间 文件大小(字节) 协议 邮件客户端 帐户 附件\r\n");
  ResetEmailLogHeaderCache();

  // Value kinds decide how the host stores a field; the hidden columns close
  // the declaration with empty captions and no width.
  const std::vector<std::pair<std::string, uint32_t>> kinds = {
      {"email_number", 9}, {"email_filesize", 9}, {"email_duration", 11},
      {"email_averagespeed", 11}, {"email_subject", 1}, {"group", 1},
  };
  for (const auto& [key, kind] : kinds) EXPECT_EQ(log->Column(key)->value_kind, kind) << key;
  EXPECT_EQ(log->Column("email_file_path")->flags, 705u);
  EXPECT_EQ(log->Column("src_mac")->standard_field, kLogFieldClientMac);
  for (const char* key : {"protocol_path", "group"}) {
    const auto* column = log->Column(key);
    EXPECT_EQ(column->caption, L"") << key;
    EXPECT_EQ(column->width, 0u) << key;
    EXPECT_EQ(column->flags, 16u) << key;
    EXPECT_EQ(column->final_flag, 1u) << key;
  }
  EXPECT_EQ(log->Column("email_attachment")->final_flag, 0u);

  ASSERT_EQ(log->storages.size(), 2u);
  const auto& saved = *log->storages[0];
  EXPECT_EQ(saved.name + "|" + saved.key + "|" + saved.third, "log_email|log_email|email");
  EXPECT_EQ(saved.caption, L"邮件日志");
  EXPECT_EQ(saved.export_fn, &FormatEmailLogLines);
  const auto& copies = *log->storages[1];
  EXPECT_EQ(copies.name + "|" + copies.key + "|" + copies.third, "email_copy|email_copy|-");
  EXPECT_EQ(copies.caption, L"Email Copy");
  EXPECT_EQ(copies.export_fn, nullptr);
}

TEST(EmailLogDefinitionTest, FailuresLeaveWhatWasReached) {
  struct Case {
    const char* name;
    uint32_t create_status;
    std::string refused_key;
    bool log_expected;
  };
  const std::vector<Case> cases = {
      {"create fails", 0x80920001u, "", false},
      {"a column is refused", 0, "email_cc", true},
      {"the last column is refused", 0, "group", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    InMemoryLogService service;
    service.create_status = c.create_status;
    service.refuse_key = c.refused_key;
    CPelkaEmailModule module;
    module.set_log_service(&service);
    module.DefineEmailLog();
    EXPECT_EQ(module.email_log() != nullptr, c.log_expected);
    InMemoryLog* log = service.log();
    if (!c.log_expected) {
      EXPECT_EQ(log, nullptr);
      continue;
    }
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(log->columns.size(), 27u);   // every column is still declared
    EXPECT_EQ(log->end_columns_calls, 0);  // but the declaration stays open
    EXPECT_EQ(log->storages.size(), 2u);   // the log exists, so its kinds do
  }

  CPelkaEmailModule without_service;
  without_service.DefineEmailLog();
  EXPECT_EQ(without_service.email_log(), nullptr);
}

}  // namespace
}  // namespace pelka
