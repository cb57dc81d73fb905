// report.html in a real browser (headless Chromium): the page runs without a
// console message, shows every record, draws every chart, narrows the table
// with the filter, and links each row to a copy that exists. A screenshot of
// each page is left in the build folder for a person to look at.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "ProgramHarness.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

const fs::path kChromium = "/usr/bin/chromium";

// The page as the browser leaves it after its script ran, and what the
// browser said on its console.
struct LoadedPage {
  std::string dom, console;
};

LoadedPage Load(const fs::path& page, const std::string& fragment = "", const fs::path& screenshot = {}) {
  std::vector<std::string> args = {"--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr", "--v=0"};
  if (!screenshot.empty()) args.insert(args.end(), {"--window-size=1280,2000", "--screenshot=" + screenshot.string()});
  args.insert(args.end(), {screenshot.empty() ? "--dump-dom" : "--hide-scrollbars", "file://" + page.string() + fragment});
  const test::ProgramResult result = test::RunProgram(args, kChromium.string());
  LoadedPage loaded{result.out, ""};
  std::istringstream lines(result.err);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(":CONSOLE") != std::string::npos) loaded.console += line + "\n";
  }
  return loaded;
}

size_t Count(const std::string& text, const std::regex& pattern) {
  return static_cast<size_t>(std::distance(std::sregex_iterator(text.begin(), text.end(), pattern), {}));
}

// The message table's part of the page.
std::string MessageTable(const std::string& dom) {
  const size_t at = dom.find("id=\"message-table\"");
  return at == std::string::npos ? "" : dom.substr(at, dom.find("</table>", at) - at);
}

class ReportBrowserTest : public ::testing::TestWithParam<std::vector<std::string>> {
 protected:
  void SetUp() override {
    REQUIRE_PROGRAM();
    if (!fs::exists(kChromium)) GTEST_SKIP() << "chromium is not installed (scripts/install-deps.sh installs it)";
  }
};

TEST_P(ReportBrowserTest, ShowsEveryRecordChartAndCopyAndFilters) {
  TempDir dir;
  const fs::path out = dir / "out";
  std::vector<std::string> args = {"-q", "--copies", "--attachments", "-o", out.string()};
  for (const std::string& capture : GetParam()) args.push_back(capture);
  ASSERT_EQ(test::RunProgram(args).status, 0);
  const std::vector<nlohmann::json> records = test::ReadJsonLines(out / "emails.jsonl");
  ASSERT_GE(records.size(), 3u);

  const LoadedPage page = Load(out / "report.html");
  EXPECT_EQ(page.console, "");
  const std::regex row("<tr>(?!<th)");
  const std::string table = MessageTable(page.dom);
  ASSERT_FALSE(table.empty()) << page.dom.substr(0, 2000);
  EXPECT_EQ(Count(table, row), records.size());
  // Every run here has messages, so its servers replied: only the diagnosis
  // chart may be empty.
  for (const char* section : {"id=\"timeline\"", "id=\"diagnosis\"", "id=\"replies\""}) {
    const size_t at = page.dom.find(section);
    ASSERT_NE(at, std::string::npos) << section;
    const std::string chart = page.dom.substr(at, page.dom.find("</section>", at) - at);
    const bool may_be_empty = std::string_view(section) == "id=\"diagnosis\"";
    EXPECT_TRUE((may_be_empty && chart.find("None.") != std::string::npos) ||
                chart.find("class=\"mark\"") != std::string::npos)
        << section;
  }
  EXPECT_GT(Count(page.dom.substr(0, page.dom.find("id=\"top\"")), std::regex("class=\"mark\"")), 0u);
  const std::regex link("href=\"([^\"]+)\"");
  size_t links = 0;
  for (std::sregex_iterator it(table.begin(), table.end(), link), end; it != end; ++it, ++links) {
    std::string target = (*it)[1];
    for (size_t at; (at = target.find("%20")) != std::string::npos;) target.replace(at, 3, " ");
    EXPECT_TRUE(fs::is_regular_file(out / target)) << target;
  }
  EXPECT_EQ(links, records.size());

  // The attachments section: each of its links names a stored file.
  const size_t attachments_at = page.dom.find("id=\"attachments\"");
  ASSERT_NE(attachments_at, std::string::npos);
  const std::string attachments = page.dom.substr(attachments_at, page.dom.find("</section>", attachments_at) - attachments_at);
  size_t stored = 0;
  for (std::sregex_iterator it(attachments.begin(), attachments.end(), link), end; it != end; ++it, ++stored)
    EXPECT_TRUE(fs::is_regular_file(out / (*it)[1].str())) << (*it)[1];
  EXPECT_EQ(stored > 0, test::LineCount(out / "attachments.jsonl") > 0);

  // The filter, given in the address, runs in the browser and narrows the table.
  // The subject that fewest records share, percent-encoded.
  std::map<std::string, size_t> subjects;
  for (const auto& record : records) ++subjects[record.value("email_subject", "")];
  const std::string subject =
      std::min_element(subjects.begin(), subjects.end(), [](auto& a, auto& b) { return a.second < b.second; })->first;
  std::string encoded;
  for (unsigned char c : subject) {
    char escaped[4];
    std::snprintf(escaped, sizeof escaped, "%%%02X", c);
    encoded += std::isalnum(c) ? std::string(1, static_cast<char>(c)) : std::string(escaped);
  }
  const LoadedPage filtered = Load(out / "report.html", "#filter=" + encoded);
  EXPECT_EQ(filtered.console, "");
  const std::string shown = std::regex_replace(filtered.dom, std::regex("[\\s\\S]*id=\"shown\"[^>]*>([^<]*)<[\\s\\S]*"), "$1");
  const size_t visible = Count(MessageTable(filtered.dom), row);
  EXPECT_GE(visible, 1u);
  EXPECT_LT(visible, records.size());
  EXPECT_EQ(shown, std::to_string(visible) + " of " + std::to_string(records.size()) + " shown");

  const fs::path screenshot = fs::path(PELKA_BINARY_DIR) / ("report-" + std::to_string(GetParam().size()) + ".png");
  Load(out / "report.html", "", screenshot);
  EXPECT_TRUE(fs::is_regular_file(screenshot));
}

// With --lang zh the page's own texts are Chinese: every Latin word left on
// it comes from the records, the capture's name or the output files' names.
TEST(ReportTextTest, ChineseRunLeavesNoEnglishText) {
  REQUIRE_PROGRAM();
  TempDir dir;
  ASSERT_EQ(test::RunProgram({"-q", "--lang", "zh", "--attachments", "-o", dir.path().string(), test::kSample.string()})
                .status,
            0);
  std::string page = test::ReadWholeFile(dir / "report.html");
  page = std::regex_replace(page, std::regex("<(script|style)[\\s\\S]*?</\\1>|<[^>]+>|&[a-z]+;"), " ");
  const std::regex word("[A-Za-z]{3,}");
  std::set<std::string> known = {"pelka", "email", "emails", "jsonl", "log", "csv", "sqlite", "UTC",
                                 "bytes", "KiB", "MiB", "GiB", "SMTP", "POP", "IMAPv",
                                 "SHA", "attachments"};
  const std::string sources =
      test::ReadWholeFile(dir / "emails.jsonl") + test::ReadWholeFile(dir / "attachments.jsonl") + test::kSample.string();
  for (std::sregex_iterator it(sources.begin(), sources.end(), word), end; it != end; ++it) known.insert(it->str());
  for (std::sregex_iterator it(page.begin(), page.end(), word), end; it != end; ++it)
    EXPECT_TRUE(known.count(it->str())) << it->str();
}

std::vector<std::string> Captures(std::vector<const char*> names) {
  std::vector<std::string> paths;
  for (const char* name : names) paths.push_back((fs::path(PELKA_TEST_DATA_DIR) / name).string());
  return paths;
}

INSTANTIATE_TEST_SUITE_P(Runs, ReportBrowserTest,
                         ::testing::Values(std::vector<std::string>{test::kSample.string()},
                                           Captures({"pop3-7conns-retr.pcap", "smtp-3msgs-one-session.pcap",
                                                     "imap-login-fetch-26.pcap", "mixed-ntlm-auth.pcap"})),
                         [](const auto& info) { return info.index == 0 ? "Sample" : "FourCaptures"; });

}  // namespace
}  // namespace pelka
