// A whole SMTP session through the flow client: the copies on disk, the
// records and the export lines made from them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "module/EmailModule.h"
#include "output/EmailLogExport.h"
#include "support/Conversation.h"
#include "support/InMemoryLog.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;

TEST(EmailPipelineTest, TwoMessagesOnOneSmtpSession) {
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  char pattern[] = "/tmp/pelka-pipeline-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  const std::string root = std::string(pattern) + "/";

  testing::InMemoryLogService service;
  CPelkaEmailModule module;
  module.set_log_service(&service);
  module.DefineEmailLog();
  service.EnableCopies(std::wstring(root.begin(), root.end()));

  const std::string first = "From: Ann <ann@example.org>\r\nTo: bob@example.org\r\nSubject: one, two\r\n\r\nx\r\n.\r\n";
  const std::string second = "From: ann@example.org\r\nTo: Carl <carl@example.org>\r\nSubject: three\r\n\r\ny\r\n.\r\n";
  {
    testing::Conversation smtp(module, 25, kProtocolSmtp);
    smtp.Server("220 ready\r\n", 1709622480'000000);
    smtp.Client("DATA\r\n", 1709622481'000000);
    smtp.Server("354 go\r\n", 1709622482'000000);
    smtp.Client(first, 1709622489'000042);
    smtp.Server("250 ok\r\n", 1709622490'000000);
    smtp.Client("DATA\r\n", 1709622491'000000);
    smtp.Server("354 go\r\n", 1709622492'000000);
    smtp.Client(second, 1709622493'500000);
  }

  const auto& records = service.log()->records;
  ASSERT_EQ(records.size(), 2u);
  const std::string copy1 = root + "email_copy/2024-03-05 07.08.09.42.eml";
  const std::string copy2 = root + "email_copy/2024-03-05 07.08.13.500000.eml";
  for (const auto& [record, path, bytes] : {std::tuple{&records[0], copy1, first}, {&records[1], copy2, second}}) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), bytes) << path;
    EXPECT_EQ(record->Text("email_file_path"), std::wstring(path.begin(), path.end()));
  }
  EXPECT_EQ(records[0].Number("email_number"), 1u);
  EXPECT_EQ(records[1].Number("email_number"), 2u);
  EXPECT_EQ(records[0].seconds, 1709622480u);  // the session's first packet
  EXPECT_EQ(records[1].seconds, 1709622490u);  // the first packet after the first message
  EXPECT_EQ(records[1].Text("email_receiver"), L"Carl ");  // the blank before "<" stays
  EXPECT_EQ(service.log()->entries[1].summary, L"ann@example.org To carl@example.org");

  ResetEmailLogHeaderCache();
  std::wstring csv;
  FormatEmailLogLines(testing::MakeRecordSet(*service.log()).get(), kEmailExportCsv, 0, csv);
  const std::wstring lines = csv.substr(csv.find(L"\r\n") + 2);
  EXPECT_EQ(lines,
            L"1709622480, 10.0.0.2, 40001, 10.0.0.1, 25, Ann , ann@example.org, , bob@example.org, , one\xFF0C two, , "
            + std::to_wstring(first.size()) + L", SMTP, , , \r\n"
            L"1709622490, 10.0.0.2, 40001, 10.0.0.1, 25, , ann@example.org, Carl , carl@example.org, , three, , "
            + std::to_wstring(second.size()) + L", SMTP, , , \r\n");
  ResetEmailLogHeaderCache();
  fs::remove_all(root);
}

}  // namespace
}  // namespace pelka
