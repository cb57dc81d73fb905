// pelka-email --threads N finds what a single-threaded run finds: the same
// records (apart from their numbers and order), summary entries, export lines,
// diagnosis reports, statistics and copies, every line whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ProgramHarness.h"
#include "capture/CommandLine.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

using test::kSample;
const fs::path kData = PELKA_TEST_DATA_DIR;  // public captures

// What a run wrote, in a form that does not depend on the order of lines or
// on the record numbers: each file's lines (records without "email_number"),
// the copies' names and sizes, and the exit status.
struct Outputs {
  std::map<std::string, std::multiset<std::string>> files;
  std::vector<uint64_t> numbers;  // sorted
  int status = -1;
};

// Runs write to the same folder, one after the other, so that the copy paths
// in the records compare equal.
Outputs RunWithThreads(const fs::path& capture, unsigned threads, const std::vector<std::string>& extra = {}) {
  static const TempDir dir;
  const fs::path out = dir / "out";
  fs::remove_all(out);
  std::vector<std::string> args = {"-q",         "--copies", "--threads", std::to_string(threads),
                                   "--exact-threads", "-o",   out.string()};
  args.insert(args.end(), extra.begin(), extra.end());
  args.push_back(capture.string());
  const test::ProgramResult result = test::RunProgram(args);
  test::ExpectNoCrash(result);
  test::ExpectWholeLines(out);

  Outputs outputs;
  outputs.status = result.status;
  for (nlohmann::json record : test::ReadJsonLines(out / "emails.jsonl")) {
    outputs.numbers.push_back(record.value("email_number", uint64_t{0}));
    record.erase("email_number");
    outputs.files["emails.jsonl"].insert(record.dump());
  }
  std::sort(outputs.numbers.begin(), outputs.numbers.end());
  for (const char* name : {"entries.jsonl", "diagnosis.jsonl", "email_log.csv", "email_log.txt", "statistics.json"}) {
    std::istringstream text(test::ReadWholeFile(out / name));
    for (std::string line; std::getline(text, line);) outputs.files[name].insert(line);
  }
  if (fs::is_directory(out / "email_copy")) {
    for (const auto& entry : fs::recursive_directory_iterator(out / "email_copy")) {
      if (entry.is_regular_file())
        outputs.files["copies"].insert(entry.path().filename().string() + " " + std::to_string(entry.file_size()));
    }
  }
  return outputs;
}

// Records are numbered 1 to n, each number once, whatever thread posted them;
// with conditions, the numbers of dropped messages are missing.
void ExpectNumberedOnce(const Outputs& outputs, bool filtered) {
  for (size_t i = 0; i < outputs.numbers.size(); ++i) {
    EXPECT_TRUE(filtered || outputs.numbers[i] == i + 1) << outputs.numbers[i];
    EXPECT_TRUE(i == 0 || outputs.numbers[i - 1] < outputs.numbers[i]) << outputs.numbers[i];
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
    EXPECT_EQ(parallel.files, single.files);
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

TEST_F(ThreadsTest, SampleAndPublicCapturesGiveTheSameOutputs) {
  std::vector<fs::path> captures = {kSample};
  for (const auto& entry : fs::directory_iterator(kData)) {
    const std::string extension = entry.path().extension().string();
    if (extension == ".pcap" || extension == ".pcapng") captures.push_back(entry.path());
  }
  ASSERT_GT(captures.size(), 10u) << "the captures of " << kData;
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
  Outputs kept = ExpectSameAsSingleThread(capture, {"--size-included", "0"}, {2});
  for (const char* name : {"emails.jsonl", "entries.jsonl", "copies"}) EXPECT_EQ(kept.files[name].size(), 100u) << name;
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
        {"-q", "--threads", std::to_string(c.threads), "--exact-threads", "-o", (dir / "out").string(), capture.string()});
    test::ExpectNoCrash(result);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.err, ::testing::HasSubstr(c.warning));
  }
}

// Other processes' busy threads take their cores: --threads starts no more
// workers than are left, and says so; --exact-threads starts them all.
TEST_F(ThreadsTest, WorkersBeyondTheFreeCoresStartOnlyWhenAskedExactly) {
  if (std::thread::hardware_concurrency() > kMaxThreads - 2) GTEST_SKIP() << "more cores than --threads takes";
  std::atomic<bool> spin{true};
  std::vector<std::thread> busy;
  for (int i = 0; i < 2; ++i) {
    busy.emplace_back([&spin] {
      while (spin.load(std::memory_order_relaxed)) {
      }
    });
  }
  TempDir dir;
  const auto run = [&](bool exact) {
    std::vector<std::string> args = {"-q", "--threads", std::to_string(kMaxThreads), "-o", (dir / "out").string()};
    if (exact) args.push_back("--exact-threads");
    args.push_back(kSample.string());
    return test::RunProgram(args);
  };
  const test::ProgramResult fewer = run(false);
  const test::ProgramResult all = run(true);
  spin = false;
  for (std::thread& thread : busy) thread.join();
  EXPECT_EQ(fewer.status, 0);
  EXPECT_THAT(fewer.err, ::testing::HasSubstr(": --threads 64: only "));
  EXPECT_EQ(all.status, 0);
  EXPECT_EQ(all.err, "");
}

}  // namespace
}  // namespace pelka
