// emails.sqlite against the JSON files of the same run: row by row, the
// database must say what emails.jsonl, entries.jsonl, diagnosis.jsonl and
// statistics.json say, over the public captures and the sample.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <memory>
#include <set>

#include "ProgramHarness.h"
#include "capture/RunDatabase.h"

namespace pelka {
namespace {

using nlohmann::json;
using test::fs::path;

// The rows of a query as JSON objects keyed by column name; NULL is absent,
// as an unset field is in the JSON files. Columns in `skip` are left out.
std::vector<json> Rows(sqlite3* db, const std::string& sql, const std::set<std::string>& skip = {}) {
  std::vector<json> rows;
  sqlite3_stmt* raw = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement(raw, sqlite3_finalize);
  while (raw && sqlite3_step(raw) == SQLITE_ROW) {
    json row = json::object();
    for (int i = 0; i < sqlite3_column_count(raw); ++i) {
      const std::string name = sqlite3_column_name(raw, i);
      if (skip.count(name)) continue;
      switch (sqlite3_column_type(raw, i)) {
        case SQLITE_INTEGER: row[name] = sqlite3_column_int64(raw, i); break;
        case SQLITE_FLOAT: row[name] = sqlite3_column_double(raw, i); break;
        case SQLITE_TEXT: row[name] = reinterpret_cast<const char*>(sqlite3_column_text(raw, i)); break;
        default: break;
      }
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

// Diagnosis rows keep the two codes in columns; the JSON line has an array.
std::vector<json> DiagnosisRows(sqlite3* db) {
  std::vector<json> rows = Rows(db, "SELECT * FROM diagnosis ORDER BY id", {"id"});
  for (json& row : rows) {
    row["codes"] = json::array({row["code1"], row["code2"]});
    row.erase("code1");
    row.erase("code2");
  }
  return rows;
}

json StatisticsObject(sqlite3* db) {
  json statistics = json::object();
  for (const json& row : Rows(db, "SELECT * FROM statistics"))
    statistics[row["category"].get<std::string>()][row["item"].get<std::string>()][row["counter"].get<std::string>()] =
        row["value"];
  return statistics;
}

// Record numbers follow posting order, which differs between threaded runs.
std::vector<std::string> Unordered(std::vector<json> rows) {
  std::vector<std::string> texts;
  for (json& row : rows) {
    row.erase("email_number");
    texts.push_back(row.dump());
  }
  std::sort(texts.begin(), texts.end());
  return texts;
}

class Database {
 public:
  explicit Database(const path& file) {
    EXPECT_EQ(sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK) << file;
  }
  ~Database() { sqlite3_close(db_); }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;
  sqlite3* get() const { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

// Every message names the connection it came on, every connection ended,
// and there are as many per protocol as the module counted.
void ExpectConnectionsAgree(sqlite3* db, size_t records) {
  const auto found = Rows(db,
                          "SELECT (SELECT count(*) FROM messages m JOIN connections c ON c.id = m.connection_id"
                          "        AND c.client = m.email_client AND c.server = m.email_server) AS matched,"
                          " (SELECT ifnull(sum(records), 0) FROM connections) AS records,"
                          " (SELECT count(*) FROM connections WHERE ended IS NULL OR last_time < first_time"
                          "        OR client_packets + server_packets = 0) AS unfinished");
  EXPECT_EQ(found.at(0), json({{"matched", records}, {"records", records}, {"unfinished", 0}}));
  json counted = json::object();
  for (const json& row : Rows(db, "SELECT protocol, count(*) AS n FROM connections GROUP BY protocol"))
    counted[row["protocol"].get<std::string>()] = row["n"];
  json module = json::object();
  for (const json& row : Rows(db, "SELECT item, value FROM statistics WHERE category = 'Email' AND value > 0"))
    module[row["item"].get<std::string>()] = row["value"];
  EXPECT_EQ(counted, module);
}

void ExpectDatabaseHoldsTheJsonFiles(const path& out, bool in_order) {
  const Database db(out / "emails.sqlite");
  const auto messages = Rows(db.get(), "SELECT * FROM messages ORDER BY id",
                             {"id", "time_unix", "sender_domain", "receiver_domain", "connection_id"});
  const auto entries = Rows(db.get(), "SELECT * FROM entries ORDER BY id", {"id", "time_unix"});
  const auto diagnosis = DiagnosisRows(db.get());
  const auto records = test::ReadJsonLines(out / "emails.jsonl");
  const auto entry_lines = test::ReadJsonLines(out / "entries.jsonl");
  const auto report_lines = test::ReadJsonLines(out / "diagnosis.jsonl");
  if (in_order) {
    EXPECT_EQ(messages, records);
    EXPECT_EQ(entries, entry_lines);
    EXPECT_EQ(diagnosis, report_lines);
  } else {
    EXPECT_EQ(Unordered(messages), Unordered(records));
    EXPECT_EQ(Unordered(entries), Unordered(entry_lines));
    EXPECT_EQ(Unordered(diagnosis), Unordered(report_lines));
  }
  if (test::fs::exists(out / "attachments.jsonl")) {
    auto attachment_lines = test::ReadJsonLines(out / "attachments.jsonl");
    for (json& line : attachment_lines)
      for (const char* flag : {"type_mismatch", "ioc_match"}) line[flag] = line[flag].get<bool>() ? 1 : 0;
    const auto attachments = Rows(db.get(), "SELECT * FROM attachments ORDER BY id", {"id"});
    EXPECT_EQ(in_order ? attachments : std::vector<json>(), in_order ? attachment_lines : std::vector<json>());
    EXPECT_EQ(Unordered(attachments), Unordered(attachment_lines));
  }
  EXPECT_EQ(StatisticsObject(db.get()), json::parse(test::ReadWholeFile(out / "statistics.json")));
  ExpectConnectionsAgree(db.get(), records.size());
  const auto run = Rows(db.get(), "SELECT messages, entries, diagnosis_reports FROM run WHERE ended IS NOT NULL");
  ASSERT_EQ(run.size(), 1u);
  EXPECT_EQ(run[0], json({{"messages", records.size()},
                          {"entries", entry_lines.size()},
                          {"diagnosis_reports", report_lines.size()}}));
}

std::vector<std::string> PublicCaptures() {
  std::vector<std::string> captures;
  for (const auto& entry : test::fs::directory_iterator(PELKA_TEST_DATA_DIR))
    if (entry.path().extension() != ".md") captures.push_back(entry.path().string());
  std::sort(captures.begin(), captures.end());
  return captures;
}

TEST(DatabaseTest, HoldsWhatTheJsonFilesHold) {
  REQUIRE_PROGRAM();
  struct Case {
    const char* name;
    std::vector<std::string> options;
    bool in_order;
  };
  const Case cases[] = {
      {"one thread", {}, true},
      {"two threads, attachments", {"--threads", "2", "--exact-threads", "--attachments"}, false},
  };
  std::vector<std::string> captures = PublicCaptures();
  captures.push_back(test::kSample.string());
  for (const Case& c : cases) {
    for (const std::string& capture : captures) {
      SCOPED_TRACE(std::string(c.name) + ": " + capture);
      test::TempDir out;
      std::vector<std::string> args = {"-q", "-o", out.path().string(), capture};
      args.insert(args.end(), c.options.begin(), c.options.end());
      const test::ProgramResult result = test::RunProgram(args);
      test::ExpectNoCrash(result);
      ExpectDatabaseHoldsTheJsonFiles(out.path(), c.in_order);
    }
  }
}

// The columns that are not in the JSON files: domains and connections. The
// sample's 82 packets are its three connections.
TEST(DatabaseTest, KnowsTheDomainsAndConnectionsOfTheSample) {
  REQUIRE_PROGRAM();
  test::TempDir out;
  test::ExpectNoCrash(test::RunProgram({"-q", "-o", out.path().string(), test::kSample.string()}));
  const Database db(out.path() / "emails.sqlite");
  EXPECT_EQ(Rows(db.get(), "SELECT sender_domain, receiver_domain FROM messages ORDER BY id"),
            (std::vector<json>{{{"sender_domain", "example.org"}, {"receiver_domain", "example.com"}},
                               {{"sender_domain", "example.net"}, {"receiver_domain", "example.com"}},
                               {{"sender_domain", "example.com"}, {"receiver_domain", "example.org"}}}));
  EXPECT_EQ(Rows(db.get(), "SELECT * FROM connections WHERE protocol = 'SMTP'", {"id"}),
            (std::vector<json>{{{"protocol", "SMTP"},
                                {"client", "192.0.2.10:40001"},
                                {"server", "198.51.100.25:25"},
                                {"first_time", 1700000000000000},
                                {"last_time", 1700000000088800},
                                {"client_packets", 18},
                                {"client_bytes", 698},
                                {"server_packets", 16},
                                {"server_bytes", 172},
                                {"records", 1},
                                {"ended", "closed"},
                                {"replies_under_10ms", 6},
                                {"replies_under_100ms", 0},
                                {"replies_under_1s", 0},
                                {"replies_under_10s", 0},
                                {"replies_10s_or_more", 0}}}));
  EXPECT_EQ(Rows(db.get(), "SELECT sum(client_packets + server_packets) AS packets FROM connections"),
            (std::vector<json>{{{"packets", 82}}}));
}

// Reply times: from the client's last data packet to the server's next one.
TEST(DatabaseTest, ReplyTimesFallInTheirBands) {
  struct Packet {
    uint64_t time;
    uint32_t direction;  // 1 client, 2 server
    uint32_t length;
  };
  const struct {
    const char* name;
    std::vector<Packet> packets;
    std::vector<uint64_t> bands;
  } cases[] = {
      {"a greeting answers nothing", {{0, 2, 40}, {5, 1, 6}, {9, 2, 8}}, {1, 0, 0, 0, 0}},
      {"10 ms is the second band", {{0, 1, 6}, {10'000, 2, 8}}, {0, 1, 0, 0, 0}},
      {"timed from the last client packet", {{0, 1, 6}, {5'000'000, 1, 6}, {5'009'999, 2, 8}}, {1, 0, 0, 0, 0}},
      {"empty segments are neither", {{0, 1, 6}, {3, 2, 0}, {3'000'000, 1, 0}, {20'000'000, 2, 8}}, {0, 0, 0, 0, 1}},
      {"one reply per request", {{0, 1, 6}, {200'000, 2, 8}, {300'000, 2, 8}}, {0, 0, 1, 0, 0}},
  };
  for (const auto& c : cases) {
    ConnectionTally tally;
    for (const Packet& packet : c.packets) tally.Count(packet.time, packet.direction, packet.length);
    EXPECT_EQ(std::vector<uint64_t>(std::begin(tally.replies), std::end(tally.replies)), c.bands) << c.name;
  }
}

// Merged folders: one database that says what the merged JSON files say, its
// messages on their own connections, its statistics and run totals summed.
TEST(DatabaseTest, MergedFoldersGiveTheMergedDatabase) {
  REQUIRE_PROGRAM();
  test::TempDir dir;
  const std::string captures[] = {(path(PELKA_TEST_DATA_DIR) / "smtp-3msgs-one-session.pcap").string(),
                                  test::kSample.string(), test::kSample.string()};
  std::vector<std::string> merge = {"merge"};
  for (size_t i = 0; i < std::size(captures); ++i) {
    merge.push_back((dir / std::to_string(i)).string());
    test::ExpectNoCrash(test::RunProgram({"-q", "--copies", "--attachments", "-o", merge.back(), captures[i]}));
  }
  merge.insert(merge.end(), {"-o", (dir / "merged").string()});
  const test::ProgramResult merged = test::RunProgram(merge);
  ASSERT_EQ(merged.status, 0) << merged.err;
  ExpectDatabaseHoldsTheJsonFiles(dir / "merged", true);
  const Database db(dir / "merged" / "emails.sqlite");
  EXPECT_EQ(Rows(db.get(), "SELECT count(*) AS n FROM connections"), (std::vector<json>{{{"n", 7}}}));
  // Each attachment (the sample's report.txt, twice) follows its message to
  // the message's new number.
  EXPECT_EQ(Rows(db.get(), "SELECT email_number FROM attachments ORDER BY id"),
            Rows(db.get(), "SELECT email_number FROM messages WHERE email_subject = 'Quarterly report' ORDER BY id"));
}

TEST(DatabaseTest, NoDbWritesNone) {
  REQUIRE_PROGRAM();
  test::TempDir out;
  test::ExpectNoCrash(test::RunProgram({"-q", "--no-db", "-o", out.path().string(), test::kSample.string()}));
  EXPECT_TRUE(test::fs::exists(out.path() / "emails.jsonl"));
  EXPECT_FALSE(test::fs::exists(out.path() / "emails.sqlite"));
}

}  // namespace
}  // namespace pelka
