// With the English string table, titles and reports read in English with the
// values in the translation's places. The table is process-wide and loaded
// once, so this runs in a child process and leaves the defaults to the others.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include "DiagnosisBench.h"
#include "module/ResStringTable.h"

namespace pelka {
namespace {

using testing::DiagnosisBench;
using testing::kSmtpSlow;

[[noreturn]] void RunWithEnglishTable(const std::string& path) {
  CResStringTable::Instance().LoadFromFile(std::wstring(path.begin(), path.end()).c_str());
  DiagnosisBench smtp;
  smtp.Client(5, 1'000'000, "EHLO a\r\n");
  smtp.Server(6, 1'250'000, "250 OK\r\n");
  smtp.Server(7, 1'260'000, "550 no\r\n");
  DiagnosisBench dubious;
  for (uint64_t number = 1; number < 5; ++number) dubious.Server(number, 0, "garbage");
  DiagnosisBench pop3(MailProtocol::kPop3);
  pop3.Server(3, 0, "-ERR\r\n");

  auto text_of = [](DiagnosisBench& bench, size_t i) {
    return bench.service().reports.size() > i ? bench.service().reports[i].text : L"(no report)";
  };
  const std::pair<std::wstring, std::wstring> cases[] = {
      {smtp.Event(kSmtpSlow)->title, L"SMTP Server Slow Response"},
      {smtp.Event(kSmtpSlow)->parameters.at(0).caption, L"Response Time (ms)"},
      {text_of(smtp, 0), L"SMTP Server Slow Response (250 ms between packet [5] and packet [6])"},
      {text_of(smtp, 1), L"SMTP Server Returned Error (see packet 7)"},
      {text_of(dubious, 0), L"Dubious SMTP conversation (packet number [4])"},
      {text_of(pop3, 0), L"POP3 Server Returned Error (see packet 3)"},
  };
  bool all_equal = true;
  for (const auto& [actual, expected] : cases) {
    if (actual == expected) continue;
    std::fprintf(stderr, "got \"%ls\"\nnot \"%ls\"\n", actual.c_str(), expected.c_str());
    all_equal = false;
  }
  std::exit(all_equal ? 0 : 1);
}

TEST(EnglishTextsDeathTest, ReportsUseTheTranslatedTemplates) {
  const std::string path = std::string(PELKA_SOURCE_DIR) + "/resources/en/PelkaEmailRes.cst";
  if (!std::filesystem::exists(path)) GTEST_SKIP() << "no English string table at " << path;
  EXPECT_EXIT(RunWithEnglishTable(path), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace pelka
