#include "output/EmailLogExport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "module/EmailModule.h"
#include "support/InMemoryLog.h"

namespace pelka {
namespace {

using testing::InMemoryLogService;
using testing::InMemoryRecordSet;

// The email log's columns in position order, as the module declares them.
std::vector<std::pair<std::string, std::wstring>> EmailLogColumns() {
  InMemoryLogService service;
  CPelkaEmailModule module;
  module.set_log_service(&service);
  module.DefineEmailLog();
  std::vector<std::pair<std::string, std::wstring>> columns;
  for (const auto& column : service.log()->columns) columns.emplace_back(column->key, column->caption);
  return columns;
}

// An empty field, null ones, and commas at either end and doubled.
const InMemoryRecordSet::Row kRow = {{"timestamp", L"T"}, {"email_sender", L""}, {"email_subject", L",x,, y,"}};

// Default captions: the process loads no string table.
constexpr wchar_t kTextHeader[] =
    L"日期时间 客户端地址 客户端端口 服务器地址 服务器端口 发送者 发送邮件地址 接收者 接收邮件地址 抄送 标题 "
    L"发送时间 文件大小(字节) 协议 邮件客户端 帐户 附件\r\n";
constexpr wchar_t kCsvHeader[] =
    L"日期时间, 客户端地址, 客户端端口, 服务器地址, 服务器端口, 发送者, 发送邮件地址, 接收者, 接收邮件地址, 抄送, "
    L"标题, 发送时间, 文件大小(字节), 协议, 邮件客户端, 帐户, 附件\r\n";
constexpr wchar_t kTextLine[] = L"T : : \"\"  \"\"  \"\" ,x,, y,    \"\"  \"\"\r\n";
constexpr wchar_t kCsvLine[] = L"T, , , , , , , , , , \xFF0Cx\xFF0C\xFF0C y\xFF0C, , , , , , \r\n";

class EmailLogExportTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetEmailLogHeaderCache(); }
  void TearDown() override { ResetEmailLogHeaderCache(); }

  std::wstring Export(InMemoryRecordSet& set, uint32_t format, uint32_t header_wanted) {
    std::wstring out = L"stale";
    FormatEmailLogLines(&set, format, header_wanted, out);
    return out;
  }
};

TEST_F(EmailLogExportTest, HeaderIsCachedAndBuiltWhenMissing) {
  // One sequence of calls in one process: the cache survives between them.
  // Each: format, header wanted, expected header, records.
  const std::tuple<uint32_t, uint32_t, const wchar_t*, int> calls[] = {
      {kEmailExportCsv, 0, kCsvHeader, 1},  // first call: a header all the same
      {kEmailExportCsv, 0, L"", 3},
      {1, 0, L"", 1},  // a cached CSV header does not stop a text call
      {1, 1, kTextHeader, 1},
      {kEmailExportCsv, 0, L"", 0},
      {kEmailExportCsv, 1, kCsvHeader, 0},
      {7, 1, kTextHeader, 1},  // any format but CSV is text
  };
  for (size_t i = 0; i < std::size(calls); ++i) {
    const auto& [format, header_wanted, header, records] = calls[i];
    InMemoryRecordSet set(EmailLogColumns());
    std::wstring expected = header;
    for (int r = 0; r < records; ++r) {
      set.rows.push_back(kRow);
      expected += format == kEmailExportCsv ? kCsvLine : kTextLine;
    }
    EXPECT_EQ(Export(set, format, header_wanted), expected) << "call " << i;
    EXPECT_EQ(set.nonzero_flag_requests, 0) << "call " << i;
  }
}

TEST_F(EmailLogExportTest, EveryColumnReadsItsOwnKey) {
  InMemoryRecordSet set(EmailLogColumns());
  set.rows.push_back({{"timestamp", L"T"}, {"src_ip4", L"CA"}, {"src_port", L"CP"}, {"dst_ip4", L"SA"},
                      {"dst_port", L"SP"}, {"email_sender", L"S"}, {"email_sender_email", L"SE"},
                      {"email_receiver", L"R"}, {"email_receive_email", L"RE"}, {"email_cc", L"CC"},
                      {"email_subject", L"J"}, {"email_sent_time", L"ST"}, {"email_filesize", L"FS"},
                      {"protocol", L"P"}, {"email_emailclient", L"M"}, {"email_account", L"A"},
                      {"email_attachment", L"AT"}, {"email_number", L"N"}, {"email_server", L"SV"},
                      {"email_client", L"CL"}});
  EXPECT_EQ(Export(set, 1, 0),
            std::wstring(kTextHeader) + L"T CA:CP SA:SP \"S\" SE \"R\" RE \"CC\" J ST FS P \"M\" A \"AT\"\r\n");
  EXPECT_EQ(Export(set, kEmailExportCsv, 0), L"T, CA, CP, SA, SP, S, SE, R, RE, CC, J, ST, FS, P, M, A, AT\r\n");
}

TEST_F(EmailLogExportTest, EveryLookedUpKeyAndTheSetMustExist) {
  const std::vector<std::string> optional = {"src_mac",         "dst_mac",       "email_duration", "email_averagespeed",
                                             "email_file_path", "protocol_path", "group"};
  for (const auto& entry : EmailLogColumns()) {
    const std::string& key = entry.first;
    auto columns = EmailLogColumns();
    std::erase_if(columns, [&](const auto& column) { return column.first == key; });
    InMemoryRecordSet set(columns);
    set.rows.push_back(kRow);
    const bool may_be_missing = std::find(optional.begin(), optional.end(), key) != optional.end();
    EXPECT_EQ(Export(set, 1, 1).empty(), !may_be_missing) << key;
  }
  std::wstring out = L"stale";
  FormatEmailLogLines(nullptr, 1, 1, out);
  EXPECT_EQ(out, L"") << "no record set";
}

}  // namespace
}  // namespace pelka
