// pelka-email --threads N finds what a single-threaded run finds: the same
// records (apart from their numbers and order), summary entries, export lines,
// diagnosis reports, statistics and copies, every line whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "ProgramHarness.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

using test::kSample;
const fs::path kCorpus = PELKA_CORPUS_DIR;

std::multiset<std::string> TextLines(const fs::path& path) {
  std::multiset<std::string> lines;
  std::istringstream text(test::ReadWholeFile(path));
  for (std::string line; std::getline(text, line);) lines.insert(line);
  return lines;
}

// What a run wrote, in a form that does not depend on the order of lines or
// on the record numbers.
struct Outputs {
  std::multiset<std::string> records;  // without "email_number"
  std::vector<uint64_t> numbers;       // sorted
  std::multiset<std::string> entries;
  std::multiset<std::string> diagnosis;
  std::multiset<std::string> csv;
  std::multiset<std::string> text;
  std::string statistics;
  std::set<std::string> copies;
  int status = -1;
};

std::multiset<std::string> JsonLines(const fs::path& path, std::vector<uint64_t>* numbers = nullptr) {
  std::multiset<std::string> lines;
  for (nlohmann::json object : test::ReadJsonLines(path)) {
    if (numbers) {
      numbers->push_back(object.value("email_number", uint64_t{0}));
      object.erase("email_number");
    }
    lines.insert(object.dump());
  }
  return lines;
}

// Runs write to the same folder, one after the other, so that the copy paths
// in the records compare equal.
Outputs RunWithThreads(const fs::path& capture, unsigned threads, const std::vector<std::string>& extra = {}) {
  static const TempDir dir;
  const fs::path out = dir / "out";
  fs::remove_all(out);
  std::vector<std::string> args = {"-q", "--copies", "--threads", std::to_string(threads), "-o", out.string()};
  args.insert(args.end(), extra.begin(), extra.end());
  args.push_back(capture.string());
  const test::ProgramResult result = test::RunProgram(args);
  test::ExpectNoCrash(result);

  Outputs outputs;
  outputs.status = result.status;
  outputs.records = JsonLines(out / "emails.jsonl", &outputs.numbers);
  std::sort(outputs.numbers.begin(), outputs.numbers.end());
  outputs.entries = JsonLines(out / "entries.jsonl");
  outputs.diagnosis = JsonLines(out / "diagnosis.jsonl");
  outputs.csv = TextLines(out / "email_log.csv");
  outputs.text = TextLines(out / "email_log.txt");
  const std::string statistics = test::ReadWholeFile(out / "statistics.json");
  EXPECT_TRUE(nlohmann::json::parse(statistics, nullptr, false).is_object()) << statistics;
  outputs.statistics = statistics;
  if (fs::is_directory(out / "email_copy")) {
    for (const auto& entry : fs::recursive_directory_iterator(out / "email_copy")) {
      if (entry.is_regular_file())
        outputs.copies.insert(entry.path().filename().string() + " " + std::to_string(entry.file_size()));
    }
  }
  return outputs;
}

// Records are numbered 1 to n, each number once, whatever thread posted them;
// with conditions, the numbers of dropped messages are missing.
void ExpectNumberedOnce(const Outputs& outputs, bool filtered) {
  for (size_t i = 0; i < outputs.numbers.size(); ++i) {
    if (!filtered) {
      EXPECT_EQ(outputs.numbers[i], i + 1);
    }
    if (i > 0) {
      EXPECT_LT(outputs.numbers[i - 1], outputs.numbers[i]);
    }
  }
}

// Returns the single-threaded run's outputs.
Outputs ExpectSameAsSingleThread(const fs::path& capture, const std::vector<std::string>& extra = {},
                                 const std::vector<unsigned>& thread_counts = {2, 4}) {
  SCOPED_TRACE(capture.filename().string());
  const Outputs single = RunWithThreads(capture, 1, extra);
  ExpectNumberedOnce(single, !extra.empty());
  for (unsigned threads : thread_counts) {
    SCOPED_TRACE("--threads " + std::to_string(threads));
    const Outputs parallel = RunWithThreads(capture, threads, extra);
    EXPECT_EQ(parallel.records, single.records);
    EXPECT_EQ(parallel.entries, single.entries);
    EXPECT_EQ(parallel.diagnosis, single.diagnosis);
    EXPECT_EQ(parallel.csv, single.csv);
    EXPECT_EQ(parallel.text, single.text);
    EXPECT_EQ(parallel.statistics, single.statistics);
    EXPECT_EQ(parallel.copies, single.copies);
    EXPECT_EQ(parallel.status, single.status);
    ExpectNumberedOnce(parallel, !extra.empty());
  }
  return single;
}

// Many SMTP sessions, `concurrent` at a time, frames interleaved.
std::string ManyFlowsCapture(size_t sessions, size_t concurrent) {
  return test::PcapFileHeader() + test::PcapRecords(test::Interleaved(sessions, concurrent, [](size_t i) {
           return test::SmtpSession(static_cast<uint16_t>(20000 + i), "Many " + std::to_string(i),
                                    200 + 1500 * (i % 4));
         }));
}

class ThreadsTest : public ::testing::Test {
 protected:
  void SetUp() override { REQUIRE_PROGRAM(); }
};

TEST_F(ThreadsTest, SampleAndCorpusCapturesGiveTheSameOutputs) {
  ASSERT_TRUE(fs::exists(kSample)) << kSample;
  std::vector<fs::path> captures = {kSample};
  if (fs::is_directory(kCorpus)) {
    for (const auto& entry : fs::directory_iterator(kCorpus)) {
      const std::string extension = entry.path().extension().string();
      if (extension == ".pcap" || extension == ".pcapng") captures.push_back(entry.path());
    }
  }
  std::sort(captures.begin() + 1, captures.end());
  for (const fs::path& capture : captures) ExpectSameAsSingleThread(capture);
}

// Bodies of about 200 bytes stay under 1 KB; with the condition the others are
// dropped with their summary entries and copies, by every thread alike.
TEST_F(ThreadsTest, ManyConcurrentFlowsGiveTheSameOutputsWithAndWithoutConditions) {
  TempDir dir;
  const fs::path capture = dir / "many.pcap";
  test::WriteWholeFile(capture, ManyFlowsCapture(400, 60));
  EXPECT_EQ(ExpectSameAsSingleThread(capture, {}, {2, 3, 4}).numbers.size(), 400u);
  const Outputs kept = ExpectSameAsSingleThread(capture, {"--size-included", "0"}, {2});
  EXPECT_EQ(kept.records.size(), 100u);
  EXPECT_EQ(kept.entries.size(), 100u);
  EXPECT_EQ(kept.copies.size(), 100u);
}

// More connections open at once than the run keeps: the warning names the
// bound that was reached, which with several threads is each one's share.
TEST_F(ThreadsTest, TooManyOpenConnectionsAreReportedWithTheBoundReached) {
  constexpr uint32_t kConnections = 100050;
  std::vector<test::Frame> frames;
  frames.reserve(kConnections);
  for (uint32_t i = 0; i < kConnections; ++i) {
    test::Segment syn;
    syn.source = test::V4(10, static_cast<uint8_t>(i >> 16), static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i));
    syn.flags = kTcpSyn;
    frames.push_back(test::EthernetFrame(syn));
  }
  TempDir dir;
  const fs::path capture = dir / "flood.pcap";
  test::WriteWholeFile(capture, test::PcapFileHeader() + test::PcapRecords(frames));
  const struct {
    unsigned threads;
    std::string warning;
  } cases[] = {
      {1, ": 50 connections were ended early because more than 100000 were open at once\n"},
      {2, " connections were ended early because more than 50000 were open at once in one thread "
          "(each of the 2 threads keeps its share of 100000)\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.threads);
    const test::ProgramResult result = test::RunProgram(
        {"-q", "--threads", std::to_string(c.threads), "-o", (dir / "out").string(), capture.string()});
    test::ExpectNoCrash(result);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, ::testing::HasSubstr(c.warning));
  }
}

}  // namespace
}  // namespace pelka
