// The host's log service on its own: records posted through the log's
// interface must come out as the same record lines, export field texts and
// entry lines as they always have.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "capture/HostLog.h"
#include "capture/OutputFiles.h"
#include "tests/support/FakeFlow.h"
#include "tests/support/TempFile.h"

namespace pelka {
namespace {

constexpr uint64_t kStart = 1'700'000'000;  // 2023-11-14 22:13:20 UTC

std::string FileText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// What local time the host must write, computed the plain way.
std::string ReferenceLocalTime(uint64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  localtime_r(&time, &local);
  char text[32];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local));
}

// An export that shows every field text the host hands out, as UTF-8:
// "<none>" where the host has no text, fields joined by '|'.
void ShowFields(IPelkaLogRecordSet* records, uint32_t format, uint32_t header_wanted, std::wstring& out) {
  if (header_wanted) out += L"header " + std::to_wstring(format) + L"\n";
  for (int32_t record = 0; record < records->GetRecordCount(); ++record) {
    out += std::to_wstring(format);
    for (uint16_t column = 0; column < 12; ++column) {
      const FieldText text(records->GetFieldText(record, column, 0));
      out += L'|';
      out += text ? text.get() : L"<none>";
    }
    out += L'\n';
  }
  IPelkaLogColumns* columns = records->GetColumns();
  EXPECT_EQ(columns->FindColumn("email_subject")->GetId(), 7) << "the first of two columns with the key";
  EXPECT_EQ(columns->FindColumn("timestamp")->GetId(), 0);
  EXPECT_EQ(columns->FindColumn("group")->GetId(), 11);
  EXPECT_EQ(columns->FindColumn("")->GetId(), 10) << "a standard field without a host key";
  EXPECT_EQ(columns->FindColumn("email_subjec"), nullptr);
  EXPECT_EQ(columns->FindColumn(nullptr), nullptr);
  EXPECT_EQ(records->GetFieldText(-1, 0, 0), nullptr);
  EXPECT_EQ(records->GetFieldText(records->GetRecordCount(), 0, 0), nullptr);
}

class HostLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (auto* file : {&records_, &entries_, &csv_, &text_}) ASSERT_TRUE(file->first.Open(file->second.path()));
    service_ = std::make_unique<HostLogService>(
        LogOutputs{&records_.first, &entries_.first, &csv_.first, &text_.first}, "/out/", false);
    ASSERT_EQ(service_->CreateLog("email", L"Email", 0, 0, &log_), 0u);
    log_->AddStandardColumn(L"Time", kLogFieldDateTime, 0, 0);
    number_ = log_->AddColumn("email_number", L"No.", kLogValueNumber, 0, 0, 0);
    log_->AddStandardColumn(L"Client MAC", kLogFieldClientMac, 0, 0);
    log_->AddStandardColumn(L"Client", kLogFieldClientAddress, 0, 0);
    log_->AddStandardColumn(L"Client port", kLogFieldClientPort, 0, 0);
    log_->AddStandardColumn(L"Server", kLogFieldServerAddress, 0, 0);
    log_->AddStandardColumn(L"Server port", kLogFieldServerPort, 0, 0);
    subject_ = log_->AddColumn("email_subject", L"Subject", kLogValueText, 0, 0, 0);
    duration_ = log_->AddColumn("email_duration", L"Duration", kLogValueDouble, 0, 0, 0);
    path_ = log_->AddColumn("email_file_path", L"Path", kLogValueText, 0, 0, 0);
    log_->AddStandardColumn(L"Unknown", 9, 0, 0);
    group_ = log_->AddColumn("group", L"Group", kLogValueText, 0, 0, 0);
    log_->AddColumn("email_subject", L"Subject again", kLogValueText, 0, 0, 0);
    log_->EndColumns();
    log_->AddStorage("log", "email_log", "", L"Log", ShowFields);
  }

  // Finishes the log and closes the files.
  void Finish() {
    service_->Finish();
    for (auto* file : {&records_, &entries_, &csv_, &text_}) file->first.Close();
  }

  struct File {
    OutputFile first;
    test::TempFile second{""};
  };
  File records_, entries_, csv_, text_;
  std::unique_ptr<HostLogService> service_;
  IPelkaLog* log_ = nullptr;
  uint16_t number_ = 0, subject_ = 0, duration_ = 0, path_ = 0, group_ = 0;
};

TEST_F(HostLogTest, RecordsComeOutAsLinesAndExportFieldsWithTheirTexts) {
  struct Case {
    uint64_t seconds;
    bool with_flow;
    const wchar_t* subject;  // null: left unset
    double duration;
    const wchar_t* path;
    std::string json;    // the record line after the timestamp
    std::string fields;  // the export's fields after the time
  };
  const std::wstring odd = {L'a', static_cast<wchar_t>(-1), L'\xD800', static_cast<wchar_t>(0x110000), L'z'};
  const Case cases[] = {
      {kStart, true, L"Hello \"world\" \\ \r\n\t\x01\x7f", 0.5, L"",
       ", \"email_number\": 1, \"src_ip4\": \"10.0.0.1\", \"src_port\": 40000, \"dst_ip4\": \"192.168.1.2\", "
       "\"dst_port\": 25, \"email_subject\": \"Hello \\\"world\\\" \\\\ \\r\\n\\t\\u0001\\u007f\", "
       "\"email_duration\": 0.5, \"email_file_path\": \"\", \"group\": \"g\"}",
       "|1||10.0.0.1|40000|192.168.1.2|25|Hello \"world\" \\ \r\n\t\x01\x7f|0.5|||g"},
      // Without a flow the addresses are unknown, the ports 0.
      {0, false, L"\x4F60\x597D \U0001F600 \xE9", std::numeric_limits<double>::quiet_NaN(), L"/out/copy.eml",
       ", \"email_number\": 2, \"src_port\": 0, \"dst_port\": 0, \"email_subject\": \"\xe4\xbd\xa0\xe5\xa5\xbd \xf0\x9f\x98\x80 \xc3\xa9\", "
       "\"email_duration\": null, \"email_file_path\": \"/out/copy.eml\", \"group\": \"g\"}",
       "|2|||0||0|\xe4\xbd\xa0\xe5\xa5\xbd \xf0\x9f\x98\x80 \xc3\xa9|nan|/out/copy.eml||g"},
      {kStart, true, nullptr, 2.0, nullptr,
       ", \"email_number\": 3, \"src_ip4\": \"10.0.0.1\", \"src_port\": 40000, \"dst_ip4\": \"192.168.1.2\", "
       "\"dst_port\": 25, \"email_duration\": 2.0, \"group\": \"g\"}",
       "|3||10.0.0.1|40000|192.168.1.2|25|<none>|2.0|<none>||g"},
      {kStart - 86400 * 200, true, odd.c_str(), -std::numeric_limits<double>::infinity(), L"",
       ", \"email_number\": 4, \"src_ip4\": \"10.0.0.1\", \"src_port\": 40000, \"dst_ip4\": \"192.168.1.2\", "
       "\"dst_port\": 25, \"email_subject\": \"a???z\", \"email_duration\": null, \"email_file_path\": \"\", "
       "\"group\": \"g\"}",
       "|4||10.0.0.1|40000|192.168.1.2|25|a???z|-inf|||g"},
  };
  testing::FakeFlow flow(0x0A000001, 40000, 0xC0A80102, 25);
  uint64_t number = 0;
  for (const Case& c : cases) {
    IPelkaLogRecord* record = log_->NewRecord(c.seconds, c.with_flow ? &flow : nullptr, 0);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(log_->SetNumber(record, number_, ++number), 0u);
    if (c.subject) {
      EXPECT_EQ(log_->SetText(record, subject_, c.subject), 0u);
    }
    EXPECT_EQ(log_->SetDouble(record, duration_, c.duration), 0u);
    if (c.path) {
      EXPECT_EQ(log_->SetText(record, path_, c.path), 0u);
    }
    EXPECT_EQ(log_->SetText(record, group_, L"first"), 0u);
    EXPECT_EQ(log_->SetText(record, group_, L"g"), 0u) << "the last value counts";
    EXPECT_NE(log_->SetText(record, 0, L"standard"), 0u);
    EXPECT_NE(log_->SetNumber(record, 13, 1), 0u) << "no such column";
    EXPECT_EQ(log_->PostRecord(record), 0u);
    EXPECT_NE(log_->PostRecord(record), 0u) << "posted once";
  }
  Finish();

  std::string json, csv = "header 0\n", text = "header 1\n";
  for (const Case& c : cases) {
    json += "{\"timestamp\": \"" + ReferenceLocalTime(c.seconds) + "\"" + c.json + "\n";
    csv += "0|" + ReferenceLocalTime(c.seconds) + c.fields + "\n";
    text += "1|" + ReferenceLocalTime(c.seconds) + c.fields + "\n";
  }
  EXPECT_EQ(FileText(records_.second.path()), json);
  EXPECT_EQ(FileText(csv_.second.path()), csv);
  EXPECT_EQ(FileText(text_.second.path()), text);
  EXPECT_EQ(service_->records(), 4u);
  EXPECT_EQ(service_->copies(), 1u);
}

TEST_F(HostLogTest, BatchesAreExportedAsPostedAndTheRestAtFinish) {
  // Records open side by side and posted out of order keep their own fields.
  constexpr int kCount = 2 * HostLog::kExportBatch + 5;
  std::vector<IPelkaLogRecord*> open;
  for (int i = 0; i < kCount; ++i) {
    open.push_back(log_->NewRecord(kStart + static_cast<uint64_t>(i / 3), nullptr, 0));
    log_->SetNumber(open.back(), number_, static_cast<uint64_t>(i));
    log_->SetText(open.back(), subject_, std::to_wstring(i * 7).c_str());
    if (i % 2) {
      log_->PostRecord(open.front());
      open.erase(open.begin());
    }
  }
  for (IPelkaLogRecord* record : open) log_->PostRecord(record);
  log_->AddEntry(kStart, nullptr, L"Email", L"a@b To \x4F60\"", nullptr);
  log_->AddEntry(0, nullptr, nullptr, nullptr, L"grp");
  Finish();

  const std::string csv = FileText(csv_.second.path());
  EXPECT_EQ(csv.find("header 0\n"), 0u);
  EXPECT_EQ(csv.find("header", 1), std::string::npos) << "the header comes with the first batch only";
  std::istringstream lines(FileText(records_.second.path()));
  std::string line;
  std::vector<std::string> numbers;
  while (std::getline(lines, line)) {
    const size_t at = line.find("\"email_number\": ");
    ASSERT_NE(at, std::string::npos) << line;
    const std::string number = line.substr(at + 16, line.find(',', at) - at - 16);
    const int i = std::stoi(number);
    EXPECT_NE(line.find("\"timestamp\": \"" + ReferenceLocalTime(kStart + static_cast<uint64_t>(i / 3)) + "\""),
              std::string::npos)
        << line;
    EXPECT_NE(line.find("\"email_subject\": \"" + std::to_string(i * 7) + "\""), std::string::npos) << line;
    EXPECT_NE(csv.find("0|" + ReferenceLocalTime(kStart + static_cast<uint64_t>(i / 3)) + "|" + number +
                       "|||0||0|" + std::to_string(i * 7) + "|<none>|<none>||<none>\n"),
              std::string::npos)
        << line;
    numbers.push_back(number);
  }
  EXPECT_EQ(numbers.size(), static_cast<size_t>(kCount));
  EXPECT_EQ(FileText(entries_.second.path()),
            "{\"time\": \"" + ReferenceLocalTime(kStart) +
                "\", \"kind\": \"Email\", \"summary\": \"a@b To \xe4\xbd\xa0\\\"\", \"group\": \"\"}\n"
                "{\"time\": \"" + ReferenceLocalTime(0) + "\", \"kind\": \"\", \"summary\": \"\", \"group\": \"grp\"}\n");
  EXPECT_EQ(service_->entries(), 2u);
}

TEST_F(HostLogTest, RecordsFromSeveralThreadsKeepTheirOwnFields) {
  // Records are reused once exported: a record posted by one thread must never
  // lend its buffers to another thread's open record.
  constexpr int kThreads = 4;
  constexpr int kPerThread = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kPerThread; ++i) {
        const uint64_t number = static_cast<uint64_t>(t * kPerThread + i);
        IPelkaLogRecord* record = log_->NewRecord(kStart + number % 7, nullptr, 0);
        log_->SetNumber(record, number_, number);
        log_->SetText(record, subject_, (L"subject " + std::to_wstring(number) + L" \x4F60").c_str());
        log_->SetText(record, group_, std::to_wstring(number).c_str());
        log_->PostRecord(record);
        log_->AddEntry(kStart, nullptr, L"Email", std::to_wstring(number).c_str(), L"");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  Finish();

  std::istringstream lines(FileText(records_.second.path()));
  std::string line;
  size_t count = 0;
  while (std::getline(lines, line)) {
    const size_t at = line.find("\"email_number\": ");
    ASSERT_NE(at, std::string::npos) << line;
    const std::string number = line.substr(at + 16, line.find(',', at) - at - 16);
    EXPECT_NE(line.find("\"email_subject\": \"subject " + number + " \xe4\xbd\xa0\""), std::string::npos) << line;
    EXPECT_NE(line.find("\"group\": \"" + number + "\"}"), std::string::npos) << line;
    EXPECT_NE(line.find(ReferenceLocalTime(kStart + std::stoull(number) % 7)), std::string::npos) << line;
    ++count;
  }
  EXPECT_EQ(count, static_cast<size_t>(kThreads * kPerThread));
  const std::string csv = FileText(csv_.second.path());
  EXPECT_EQ(static_cast<size_t>(std::count(csv.begin(), csv.end(), '\n')), static_cast<size_t>(kThreads * kPerThread + 1));
  EXPECT_EQ(service_->entries(), static_cast<uint64_t>(kThreads * kPerThread));
}

}  // namespace
}  // namespace pelka
