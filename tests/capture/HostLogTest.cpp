// The host's log service on its own: posted records become record lines and
// export field texts, including texts and values the module should not send.
// Posting from several threads is ThreadsTest's; a partial last export batch
// and the single header line are counted by StopSignalTest and ProgramTest,
// lines written behind the posting thread by every run of the program.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "capture/BatchWriter.h"
#include "capture/HostLogService.h"
#include "capture/OutputFiles.h"
#include "tests/support/FakeFlow.h"
#include "tests/support/TempFile.h"

namespace pelka {
namespace {

constexpr uint64_t kStart = 1'700'000'000;  // 2023-11-14 22:13:20 UTC

std::string LocalTime(uint64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  localtime_r(&time, &local);
  char text[32];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local));
}

// An export showing every field text the host hands out: "<none>" where it has
// none, fields joined by '|'.
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
  EXPECT_EQ(columns->FindColumn("")->GetId(), 10) << "a standard field without a host key";
  EXPECT_EQ(columns->FindColumn("email_subjec"), nullptr);
  EXPECT_EQ(columns->FindColumn(nullptr), nullptr);
  EXPECT_EQ(records->GetFieldText(-1, 0, 0), nullptr);
  EXPECT_EQ(records->GetFieldText(records->GetRecordCount(), 0, 0), nullptr);
}

TEST(HostLogTest, RecordsComeOutAsLinesAndExportFieldsWithTheirTexts) {
  test::TempFile paths[4] = {test::TempFile(""), test::TempFile(""), test::TempFile(""), test::TempFile("")};
  OutputFile files[4];
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(files[i].Open(paths[i].path()));
  HostLogService service(LogOutputs{&files[0], &files[1], &files[2], &files[3]}, "/out/", false);
  IPelkaLog* log = nullptr;
  ASSERT_EQ(service.CreateLog("email", L"Email", 0, 0, &log), 0u);
  log->AddStandardColumn(L"Time", kLogFieldDateTime, 0, 0);
  const uint16_t number_column = log->AddColumn("email_number", L"No.", kLogValueNumber, 0, 0, 0);
  for (uint32_t field : {kLogFieldClientMac, kLogFieldClientAddress, kLogFieldClientPort, kLogFieldServerAddress,
                         kLogFieldServerPort}) {
    log->AddStandardColumn(L"", field, 0, 0);
  }
  const uint16_t subject = log->AddColumn("email_subject", L"Subject", kLogValueText, 0, 0, 0);
  const uint16_t duration = log->AddColumn("email_duration", L"Duration", kLogValueDouble, 0, 0, 0);
  const uint16_t path = log->AddColumn("email_file_path", L"Path", kLogValueText, 0, 0, 0);
  log->AddStandardColumn(L"Unknown", 9, 0, 0);
  const uint16_t group = log->AddColumn("group", L"Group", kLogValueText, 0, 0, 0);
  log->AddColumn("email_subject", L"Subject again", kLogValueText, 0, 0, 0);
  log->EndColumns();
  log->AddStorage("log", "email_log", "", L"Log", ShowFields);

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
  const std::string flow_json = ", \"src_ip4\": \"10.0.0.1\", \"src_port\": 40000, \"dst_ip4\": \"192.168.1.2\", "
                                "\"dst_port\": 25";
  const Case cases[] = {
      {kStart, true, L"Hello \"world\" \\ \r\n\t\x01\x7f", 0.5, L"",
       flow_json + ", \"email_subject\": \"Hello \\\"world\\\" \\\\ \\r\\n\\t\\u0001\\u007f\", "
       "\"email_duration\": 0.5, \"email_file_path\": \"\", \"group\": \"g\"}",
       "|10.0.0.1|40000|192.168.1.2|25|Hello \"world\" \\ \r\n\t\x01\x7f|0.5|||g"},
      // Without a flow the addresses are unknown, the ports 0.
      {0, false, L"\x4F60\x597D \U0001F600 \xE9", std::numeric_limits<double>::quiet_NaN(), L"/out/copy.eml",
       ", \"src_port\": 0, \"dst_port\": 0, \"email_subject\": \"\xe4\xbd\xa0\xe5\xa5\xbd \xf0\x9f\x98\x80 \xc3\xa9\", "
       "\"email_duration\": null, \"email_file_path\": \"/out/copy.eml\", \"group\": \"g\"}",
       "||0||0|\xe4\xbd\xa0\xe5\xa5\xbd \xf0\x9f\x98\x80 \xc3\xa9|nan|/out/copy.eml||g"},
      {kStart, true, nullptr, 2.0, nullptr, flow_json + ", \"email_duration\": 2.0, \"group\": \"g\"}",
       "|10.0.0.1|40000|192.168.1.2|25|<none>|2.0|<none>||g"},
      {kStart - 86400 * 200, true, odd.c_str(), -std::numeric_limits<double>::infinity(), L"",
       flow_json + ", \"email_subject\": \"a???z\", \"email_duration\": null, \"email_file_path\": \"\", \"group\": \"g\"}",
       "|10.0.0.1|40000|192.168.1.2|25|a???z|-inf|||g"},
  };
  testing::FakeFlow flow(0x0A000001, 40000, 0xC0A80102, 25);
  uint64_t number = 0;
  std::string json, csv = "header 0\n", text = "header 1\n";
  for (const Case& c : cases) {
    IPelkaLogRecord* record = log->NewRecord(c.seconds, c.with_flow ? &flow : nullptr, 0);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(log->SetNumber(record, number_column, ++number), 0u);
    if (c.subject) {
      EXPECT_EQ(log->SetText(record, subject, c.subject), 0u);
    }
    EXPECT_EQ(log->SetDouble(record, duration, c.duration), 0u);
    if (c.path) {
      EXPECT_EQ(log->SetText(record, path, c.path), 0u);
    }
    EXPECT_EQ(log->SetText(record, group, L"first"), 0u);
    EXPECT_EQ(log->SetText(record, group, L"g"), 0u) << "the last value counts";
    EXPECT_NE(log->SetText(record, 0, L"standard"), 0u);
    EXPECT_NE(log->SetNumber(record, 13, 1), 0u) << "no such column";
    EXPECT_EQ(log->PostRecord(record), 0u);
    EXPECT_NE(log->PostRecord(record), 0u) << "posted once";
    const std::string time = LocalTime(c.seconds), n = std::to_string(number);
    json += "{\"timestamp\": \"" + time + "\", \"email_number\": " + n + c.json + "\n";
    csv += "0|" + time + "|" + n + "|" + c.fields + "\n";
    text += "1|" + time + "|" + n + "|" + c.fields + "\n";
  }
  // Entries escape their texts; missing texts are empty.
  log->AddEntry(kStart, nullptr, L"Email", L"a@b To \x4F60\"", nullptr);
  log->AddEntry(0, nullptr, nullptr, nullptr, L"grp");
  service.Finish();
  for (OutputFile& file : files) file.Close();

  EXPECT_EQ(test::ReadWholeFile(paths[0].path()), json);
  EXPECT_EQ(test::ReadWholeFile(paths[1].path()),
            "{\"time\": \"" + LocalTime(kStart) +
                "\", \"kind\": \"Email\", \"summary\": \"a@b To \xe4\xbd\xa0\\\"\", \"group\": \"\"}\n"
                "{\"time\": \"" + LocalTime(0) + "\", \"kind\": \"\", \"summary\": \"\", \"group\": \"grp\"}\n");
  EXPECT_EQ(test::ReadWholeFile(paths[2].path()), csv);
  EXPECT_EQ(test::ReadWholeFile(paths[3].path()), text);
  EXPECT_EQ(service.records(), 4u);
  EXPECT_EQ(service.copies(), 1u);
}

// One line per record, numbered, after one header line.
void NumberLines(IPelkaLogRecordSet* records, uint32_t, uint32_t header_wanted, std::wstring& out) {
  if (header_wanted) out += L"header\n";
  for (int32_t record = 0; record < records->GetRecordCount(); ++record) {
    const FieldText number(records->GetFieldText(record, 0, 0));
    out += std::wstring(number.get()) + L"\n";
  }
}

// A record that fails the conditions leaves no line, no export line and no
// copy, and takes the next entry of its own flow with it, not another flow's.
TEST(HostLogTest, ARecordFailingTheConditionsLeavesNothingBehind) {
  test::TempFile records_path(""), entries_path(""), csv_path(""), copy("message");
  OutputFile files[3];
  for (auto [file, path] : {std::pair{&files[0], &records_path}, {&files[1], &entries_path}, {&files[2], &csv_path}})
    ASSERT_TRUE(file->Open(path->path()));
  const EmailConditions conditions = *ParseConditions(L"attachment=no").value;
  HostLogService service(LogOutputs{&files[0], &files[1], &files[2], nullptr}, "/out/", true, &conditions);
  IPelkaLog* log = nullptr;
  ASSERT_EQ(service.CreateLog("email", L"Email", 0, 0, &log), 0u);
  const uint16_t attachment = log->AddColumn("email_attachment", L"", kLogValueText, 0, 0, 0);
  const uint16_t path = log->AddColumn("email_file_path", L"", kLogValueText, 0, 0, 0);
  log->AddStorage("log", "email_log", "", L"Log", NumberLines);
  testing::FakeFlow refused_flow(0x0A000001, 40000, 0x0A000002, 25), kept_flow(0x0A000001, 40001, 0x0A000002, 25);
  const auto post = [&](IPelkaFlow* flow, const wchar_t* attachments, const std::wstring& copy_path) {
    IPelkaLogRecord* record = log->NewRecord(kStart, flow, 0);
    log->SetText(record, attachment, attachments);
    log->SetText(record, path, copy_path.c_str());
    EXPECT_EQ(log->PostRecord(record), 0u);
  };
  post(&refused_flow, L"a.zip", copy.wide_path());
  post(&kept_flow, L"", L"");
  log->AddEntry(kStart, &kept_flow, L"Email", L"kept", L"");
  log->AddEntry(kStart, &refused_flow, L"Email", L"refused", L"");
  log->AddEntry(kStart, &refused_flow, L"Email", L"later", L"");
  service.Finish();
  for (OutputFile& file : files) file.Close();

  EXPECT_EQ(test::ReadWholeFile(records_path.path()), "{\"email_attachment\": \"\", \"email_file_path\": \"\"}\n");
  const std::string entries = test::ReadWholeFile(entries_path.path());
  EXPECT_NE(entries.find("kept"), std::string::npos) << entries;
  EXPECT_EQ(entries.find("refused"), std::string::npos) << entries;
  EXPECT_NE(entries.find("later"), std::string::npos) << "only the entry right after the record: " << entries;
  EXPECT_EQ(test::ReadWholeFile(csv_path.path()), "header\n\n") << "one exported record";
  EXPECT_FALSE(std::filesystem::exists(copy.path()));
  EXPECT_EQ(service.records(), 1u);
}

// Posting threads may hand their batches over out of the order they filled
// them, more of them than may wait; the writer still writes them in that
// order, and the batch it needs next gets in even when later ones fill every
// place.
TEST(HostLogTest, BatchWriterWritesBatchesInTheOrderTheyFilled) {
  LogColumns columns;
  LocalTimeCache times;
  std::vector<int32_t> written;  // each batch is told by its record count
  {
    BatchWriter writer([&](std::unique_ptr<LogRecordSet> batch) { written.push_back(batch->GetRecordCount()); });
    const uint64_t handed[] = {3, 1, 2, 4, 0, 6, 5};
    static_assert(std::size(handed) > BatchWriter::kMaxWaiting + 1);
    for (const uint64_t sequence : handed) {
      auto batch = std::make_unique<LogRecordSet>(columns, times);
      for (uint64_t i = 0; i < sequence; ++i) batch->Add(std::make_unique<LogRecord>());
      writer.Hand(sequence, std::move(batch));
      // Time for the writer to take whatever it would take now.
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    writer.Drain();
    EXPECT_EQ(written, (std::vector<int32_t>{0, 1, 2, 3, 4, 5, 6}));
  }
}

}  // namespace
}  // namespace pelka
