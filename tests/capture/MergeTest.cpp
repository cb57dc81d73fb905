// pelka-email merge: folders of runs made side by side by GNU parallel, one per
// capture, merge into what one run over all the captures writes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ProgramHarness.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

// Captures in which no connection continues from one file into the next.
const char* const kCaptures[] = {"imap-login-fetch-26.pcap", "mixed-ntlm-auth.pcap", "pop3-7conns-retr.pcap",
                                 "pop3-gb2312-retr.pcap", "smtp-3msgs-one-session.pcap",
                                 "smtp-auth-login-vlan100.pcap"};

// A folder's lines by file, in an order-free form: records without their
// number and with their copy's name and size in place of its path,
// attachments with their record's subject in place of its number; diagnosis
// reports without packet numbers, which count from the start of each run.
std::map<std::string, std::multiset<std::string>> Contents(const fs::path& folder) {
  std::map<std::string, std::multiset<std::string>> contents;
  std::map<uint64_t, std::string> subjects;  // attachments name their record by number
  for (nlohmann::json record : test::ReadJsonLines(folder / "emails.jsonl")) {
    subjects[record["email_number"]] = record.value("email_subject", "");
    const fs::path copy = record.value("email_file_path", std::string());
    EXPECT_TRUE(copy.empty() || fs::equivalent(copy.parent_path(), folder / "email_copy")) << copy;
    record["email_file_path"] = copy.empty() ? "" : copy.filename().string() + " " + test::ReadWholeFile(copy);
    record.erase("email_number");
    contents["emails.jsonl"].insert(record.dump());
  }
  for (nlohmann::json report : test::ReadJsonLines(folder / "diagnosis.jsonl")) {
    for (const char* key : {"text", "packet", "related_packet"}) report.erase(key);
    contents["diagnosis.jsonl"].insert(report.dump());
  }
  for (nlohmann::json row : test::ReadJsonLines(folder / "attachments.jsonl")) {
    EXPECT_TRUE(fs::is_regular_file(folder / row["stored_path"].get<std::string>())) << row;
    row["email_number"] = subjects[row["email_number"]];
    contents["attachments.jsonl"].insert(row.dump());
  }
  for (const char* name : {"entries.jsonl", "email_log.csv", "email_log.txt", "statistics.json"}) {
    std::istringstream lines(test::ReadWholeFile(folder / name));
    for (std::string line; std::getline(lines, line);) contents[name].insert(line);
  }
  return contents;
}

TEST(MergeTest, ParallelRunsMergeIntoOneRun) {
  REQUIRE_PROGRAM();
  if (!fs::exists("/usr/bin/parallel")) GTEST_SKIP() << "GNU parallel is not installed";
  TempDir dir;
  std::vector<std::string> captures;
  for (const char* name : kCaptures) captures.push_back((fs::path(PELKA_TEST_DATA_DIR) / name).string());

  std::vector<std::string> args = {"-j2", test::ProgramPath().string(), "-q", "--copies", "--attachments", "-o",
                                   (dir / "runs" / "{/.}").string(), "{}", ":::"};
  args.insert(args.end(), captures.begin(), captures.end());
  ASSERT_EQ(test::RunProgram(args, "/usr/bin/parallel").status, 0);
  std::vector<std::string> merge = {"merge"};
  for (const auto& entry : fs::directory_iterator(dir / "runs")) merge.push_back(entry.path().string());
  merge.insert(merge.end(), {"-o", (dir / "merged").string()});
  const test::ProgramResult merged = test::RunProgram(merge);
  test::ExpectNoCrash(merged);
  ASSERT_EQ(merged.status, 0) << merged.err;
  EXPECT_THAT(merged.out, ::testing::HasSubstr("Merged 6 folders: 9 records"));
  EXPECT_NE(test::ReadWholeFile(dir / "merged" / "report.html").find("9 (20"), std::string::npos);

  args = {"-q", "--copies", "--attachments", "-o", (dir / "single").string()};
  args.insert(args.end(), captures.begin(), captures.end());
  ASSERT_EQ(test::RunProgram(args).status, 0);
  EXPECT_EQ(Contents(dir / "merged"), Contents(dir / "single"));
  // Numbered again in time order.
  std::vector<std::string> times;
  for (const auto& record : test::ReadJsonLines(dir / "merged" / "emails.jsonl")) {
    times.push_back(record["timestamp"]);
    EXPECT_EQ(record["email_number"], times.size());
  }
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
}

// The same run merged twice: every copy is carried, the second under a new
// name, and what cannot be merged is refused without touching anything.
TEST(MergeTest, CopiesNeverReplaceEachOtherAndRefusalsTouchNothing) {
  REQUIRE_PROGRAM();
  TempDir dir;
  const fs::path run = dir / "run";
  ASSERT_EQ(test::RunProgram({"-q", "--copies", "--attachments", "-o", run.string(), test::kSample.string()}).status, 0);
  const test::ProgramResult twice = test::RunProgram({"merge", run.string(), run.string(), "-o", (dir / "m").string()});
  ASSERT_EQ(twice.status, 0) << twice.err;
  std::set<std::string> paths;
  std::set<uint64_t> with_attachment;  // the sample's report.txt, on its record in each run
  for (const auto& record : test::ReadJsonLines(dir / "m" / "emails.jsonl")) {
    if (record["email_subject"] == "Quarterly report") with_attachment.insert(record["email_number"].get<uint64_t>());
    const std::string path = record["email_file_path"];
    EXPECT_EQ(test::ReadWholeFile(path).find("Subject: " + std::string(record["email_subject"])) == std::string::npos,
              record["protocol"] == "POP3") << path;  // the POP3 subject is an encoded word
    paths.insert(path);
  }
  EXPECT_EQ(paths.size(), 6u);
  std::set<uint64_t> attachments_of;
  for (const auto& row : test::ReadJsonLines(dir / "m" / "attachments.jsonl"))
    attachments_of.insert(row["email_number"].get<uint64_t>());
  EXPECT_EQ(attachments_of, with_attachment);
  EXPECT_TRUE(paths.count((dir / "m" / "email_copy" / "2023-11-14 22.13.20.65000-2.eml").string()));

  const struct {
    const char* name;
    std::vector<std::string> args;
    int status;
  } refusals[] = {
      {"into a folder that is not empty", {"merge", run.string(), "-o", (dir / "m").string()}, 1},
      {"a folder without records", {"merge", dir.path().string(), "-o", (dir / "n").string()}, 1},
      {"no output folder", {"merge", run.string()}, 2},
  };
  for (const auto& c : refusals) {
    const test::ProgramResult result = test::RunProgram(c.args);
    EXPECT_EQ(result.status, c.status) << c.name << ": " << result.err;
  }
  EXPECT_EQ(test::ReadJsonLines(dir / "m" / "emails.jsonl").size(), 6u);
}

// Every message row of a folder's database names a connection row of the
// same database, and the run row counts the folder's own messages.
void ExpectFolderDatabaseComplete(const fs::path& folder) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open_v2((folder / "emails.sqlite").c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  sqlite3_stmt* query = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db,
                               "SELECT (SELECT count(*) FROM messages m JOIN connections c ON c.id = m.connection_id"
                               " AND c.client = m.email_client), (SELECT messages FROM run)",
                               -1, &query, nullptr),
            SQLITE_OK);
  ASSERT_EQ(sqlite3_step(query), SQLITE_ROW);
  const auto records = static_cast<int64_t>(test::ReadJsonLines(folder / "emails.jsonl").size());
  EXPECT_EQ(sqlite3_column_int64(query, 0), records) << folder;
  EXPECT_EQ(sqlite3_column_int64(query, 1), records) << folder;
  sqlite3_finalize(query);
  sqlite3_close(db);
}

// A run cut into a folder per capture-second, connections crossing the cuts,
// merges into what the same run writes into one folder.
TEST(MergeTest, RotatedFoldersMergeIntoOneRun) {
  REQUIRE_PROGRAM();
  TempDir dir;
  std::vector<std::string> captures;
  // In time order; the POP3 session that brings three messages runs across
  // two cuts.
  for (const char* name : {"imap-login-fetch-26.pcap", "pop3-7conns-retr.pcap", "mixed-ntlm-auth.pcap",
                           "pop3-gb2312-retr.pcap", "smtp-3msgs-one-session.pcap"})
    captures.push_back((fs::path(PELKA_TEST_DATA_DIR) / name).string());
  std::vector<std::string> args = {"-q", "--copies", "--rotate", "1", "-o", (dir / "rotated").string()};
  args.insert(args.end(), captures.begin(), captures.end());
  ASSERT_EQ(test::RunProgram(args).status, 0);
  std::vector<std::string> merge = {"merge"};
  for (const auto& entry : fs::directory_iterator(dir / "rotated")) {
    if (!entry.is_directory()) continue;
    merge.push_back(entry.path().string());
    EXPECT_TRUE(fs::exists(entry.path() / "report.html")) << entry.path();
    ExpectFolderDatabaseComplete(entry.path());
  }
  EXPECT_EQ(test::ReadJsonLines(dir / "rotated" / "2013-08-22 20.03.04" / "emails.jsonl").size(), 3u);
  merge.insert(merge.end(), {"-q", "-o", (dir / "merged").string()});
  ASSERT_EQ(test::RunProgram(merge).status, 0);

  args = {"-q", "--copies", "-o", (dir / "single").string()};
  args.insert(args.end(), captures.begin(), captures.end());
  ASSERT_EQ(test::RunProgram(args).status, 0);
  EXPECT_EQ(Contents(dir / "merged"), Contents(dir / "single"));
}

}  // namespace
}  // namespace pelka
