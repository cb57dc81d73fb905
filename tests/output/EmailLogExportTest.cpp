#include "output/EmailLogExport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/InMemoryLog.h"

namespace pelka {
namespace {

using testing::InMemoryRecordSet;

// The email log's columns in position order, with short captions.
std::vector<std::pair<std::string, std::wstring>> EmailLogColumns() {
  return {
      {"email_number", L"No"},          {"timestamp", L"Time"},
      {"protocol", L"Ptl"},             {"src_mac", L"CMac"},
      {"src_ip4", L"CAddr"},            {"src_port", L"CPort"},
      {"dst_mac", L"SMac"},             {"dst_ip4", L"SAddr"},
      {"dst_port", L"SPort"},           {"email_server", L"Server"},
      {"email_client", L"Client"},      {"email_sender", L"Sender"},
      {"email_sender_email", L"From"},  {"email_receiver", L"Receiver"},
      {"email_receive_email", L"To"},   {"email_cc", L"Cc"},
      {"email_subject", L"Subject"},    {"email_sent_time", L"Sent"},
      {"email_emailclient", L"Mailer"}, {"email_account", L"Account"},
      {"email_attachment", L"Attach"},  {"email_filesize", L"Size"},
      {"email_duration", L"Dur"},       {"email_averagespeed", L"Speed"},
      {"email_file_path", L"Path"},     {"protocol_path", L""},
      {"group", L""},
  };
}

InMemoryRecordSet::Row SampleRow() {
  return {
      {"email_number", L"7"},
      {"timestamp", L"2024-03-05 07:08:09"},
      {"protocol", L"SMTP"},
      {"src_ip4", L"10.0.0.2"},
      {"src_port", L"40000"},
      {"dst_ip4", L"10.0.0.1"},
      {"dst_port", L"25"},
      {"email_server", L"10.0.0.1:25"},
      {"email_client", L"10.0.0.2:40000"},
      {"email_sender", L"Ann"},
      {"email_sender_email", L"ann@example.org"},
      {"email_receiver", L"Bob"},
      {"email_receive_email", L"bob@example.org"},
      {"email_cc", L"carl@example.org"},
      {"email_subject", L",Hello,, world,"},  // every comma, at either end too
      {"email_sent_time", L"Tue, 5 Mar 2024"},
      {"email_emailclient", L"Mailer 1"},
      {"email_account", L"ann"},
      {"email_attachment", L"a.txt;b.txt;"},
      {"email_filesize", L"1234"},
      {"email_duration", L"0.5"},
  };
}

constexpr wchar_t kTextHeader[] =
    L"Time CAddr CPort SAddr SPort Sender From Receiver To Cc Subject Sent Size Ptl Mailer Account Attach\r\n";
constexpr wchar_t kCsvHeader[] =
    L"Time, CAddr, CPort, SAddr, SPort, Sender, From, Receiver, To, Cc, Subject, Sent, Size, Ptl, Mailer, Account, "
    L"Attach\r\n";
constexpr wchar_t kTextLine[] =
    L"2024-03-05 07:08:09 10.0.0.2:40000 10.0.0.1:25 \"Ann\" ann@example.org \"Bob\" bob@example.org "
    L"\"carl@example.org\" ,Hello,, world, Tue, 5 Mar 2024 1234 SMTP \"Mailer 1\" ann \"a.txt;b.txt;\"\r\n";
constexpr wchar_t kCsvLine[] =
    L"2024-03-05 07:08:09, 10.0.0.2, 40000, 10.0.0.1, 25, Ann, ann@example.org, Bob, bob@example.org, "
    L"carl@example.org, \xFF0CHello\xFF0C\xFF0C world\xFF0C, Tue\xFF0C 5 Mar 2024, 1234, SMTP, Mailer 1, ann, "
    L"a.txt;b.txt;\r\n";

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
  struct Call {
    uint32_t format;
    uint32_t header_wanted;
    const wchar_t* expected_header;  // null: the result starts with the record
  };
  // One sequence of calls in one process: the cache survives between them.
  const std::vector<Call> calls = {
      {kEmailExportCsv, 0, kCsvHeader},  // first call: a header all the same
      {kEmailExportCsv, 0, nullptr},
      {1, 0, nullptr},                   // a cached CSV header does not stop a text call
      {1, 1, kTextHeader},
      {kEmailExportCsv, 0, nullptr},
      {kEmailExportCsv, 1, kCsvHeader},
      {7, 1, kTextHeader},               // any format but CSV is text
  };
  for (size_t i = 0; i < calls.size(); ++i) {
    InMemoryRecordSet set(EmailLogColumns());
    set.rows.push_back(SampleRow());
    const std::wstring line = calls[i].format == kEmailExportCsv ? kCsvLine : kTextLine;
    const std::wstring expected = (calls[i].expected_header ? calls[i].expected_header : L"") + line;
    EXPECT_EQ(Export(set, calls[i].format, calls[i].header_wanted), expected) << "call " << i;
    EXPECT_EQ(set.nonzero_flag_requests, 0) << "call " << i;
    EXPECT_EQ(set.field_requests, 17) << "call " << i;
  }
}

TEST_F(EmailLogExportTest, EveryLookedUpKeyMustExist) {
  const std::vector<std::string> optional = {"src_mac",        "dst_mac",         "email_duration", "email_averagespeed",
                                             "email_file_path", "protocol_path", "group"};
  for (const auto& entry : EmailLogColumns()) {
    const std::string& key = entry.first;
    auto columns = EmailLogColumns();
    std::erase_if(columns, [&](const auto& column) { return column.first == key; });
    InMemoryRecordSet set(columns);
    set.rows.push_back(SampleRow());
    const bool may_be_missing = std::find(optional.begin(), optional.end(), key) != optional.end();
    EXPECT_EQ(Export(set, 1, 1).empty(), !may_be_missing) << key;
    if (!may_be_missing) {
      EXPECT_EQ(set.field_requests, 0) << key;
    }
  }
}

TEST_F(EmailLogExportTest, NullAndEmptyFieldsAreEmptyTexts) {
  InMemoryRecordSet set(EmailLogColumns());
  set.rows.push_back({{"timestamp", L"T"}, {"email_sender", L""}});
  EXPECT_EQ(Export(set, 1, 0), std::wstring(kTextHeader) + L"T : : \"\"  \"\"  \"\"     \"\"  \"\"\r\n");
  EXPECT_EQ(Export(set, kEmailExportCsv, 0), L"T, , , , , , , , , , , , , , , , \r\n");

  std::wstring out = L"stale";
  FormatEmailLogLines(nullptr, 1, 1, out);
  EXPECT_EQ(out, L"");
}

TEST_F(EmailLogExportTest, OneLinePerRecordEachEndedByCrLf) {
  InMemoryRecordSet set(EmailLogColumns());
  for (int i = 0; i < 3; ++i) set.rows.push_back(SampleRow());
  const std::wstring out = Export(set, kEmailExportCsv, 0);
  EXPECT_EQ(out, std::wstring(kCsvHeader) + kCsvLine + kCsvLine + kCsvLine);
  EXPECT_EQ(set.record_count_calls, 4);  // asked again after each record

  InMemoryRecordSet empty(EmailLogColumns());
  EXPECT_EQ(Export(empty, kEmailExportCsv, 0), L"");  // header cached, none wanted
  EXPECT_EQ(Export(empty, kEmailExportCsv, 1), kCsvHeader);
}

}  // namespace
}  // namespace pelka
