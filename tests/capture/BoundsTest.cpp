// The run's bounds, as a user meets them: an output that runs out of room,
// the idle timeout, and the bound on out-of-order data held over all
// connections. Each loss is counted and said; nothing is dropped silently.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "ProgramHarness.h"
#include "capture/CommandLine.h"

namespace pelka {
namespace {

using test::fs::path;
using test::LineCount;
using test::ProgramResult;
using test::TempDir;
using ::testing::HasSubstr;
using ::testing::Not;

// `sessions` whole SMTP sessions, `concurrent` open at a time; in each the
// body packet `drop` (counted from 0) was not captured, when given.
std::string Sessions(size_t sessions, size_t body_bytes, size_t concurrent, int drop = -1) {
  return test::PcapFileHeader() + test::PcapRecords(test::Interleaved(sessions, concurrent, [&](size_t i) {
           std::vector<test::Frame> frames =
               test::SmtpSession(static_cast<uint16_t>(1024 + i), "Message " + std::to_string(i), body_bytes);
           constexpr size_t kFirstBodyFrame = 12;  // handshake, then the turns up to "354"
           if (drop >= 0) frames.erase(frames.begin() + static_cast<std::ptrdiff_t>(kFirstBodyFrame + drop));
           return frames;
         }));
}

class BoundsTest : public ::testing::Test {
 protected:
  void SetUp() override { REQUIRE_PROGRAM(); }
  TempDir dir_;
  const path out_ = dir_ / "out";
};

// Every output file may grow to 64 KiB only (a full disk, as the program
// meets it): the lines that fit stay, whole; the rest are counted per file on
// stderr and in the summary, which counts every message found.
TEST_F(BoundsTest, AFullOutputKeepsTheLinesThatFitAndCountsTheRest) {
  constexpr size_t kMessages = 300;
  const path capture = dir_ / "mail.pcap";
  test::WriteWholeFile(capture, Sessions(kMessages, 2000, 1));
  const std::vector<std::string> command = {
      "-c", "trap '' XFSZ; ulimit -f 64 && exec \"$@\"", "bash", test::ProgramPath().string(), "-o", out_.string(),
      capture.string()};
  const ProgramResult result = test::RunProgram(command, "/bin/bash");

  test::ExpectNoCrash(result);
  EXPECT_EQ(result.status, kExitInputProblem);
  EXPECT_THAT(result.err, HasSubstr("File too large"));
  test::ExpectWholeLines(out_);
  const size_t kept = LineCount(out_ / "emails.jsonl");
  EXPECT_GT(test::fs::file_size(out_ / "emails.jsonl"), 60u * 1024) << "lines that fit were dropped";
  std::smatch lost;
  const std::regex said("([0-9]+) lines of emails\\.jsonl were lost");
  ASSERT_TRUE(std::regex_search(result.err, lost, said)) << result.err;
  EXPECT_EQ(kept + std::stoul(lost[1]), kMessages);
  EXPECT_THAT(result.out, HasSubstr("Messages: " + std::to_string(kMessages) + " (SMTP " +
                                    std::to_string(kMessages) + ")"));
  EXPECT_THAT(result.out, HasSubstr("Not written: emails.jsonl " + lost[1].str() + " lines"));
}

// A conversation silent for 20 minutes in the middle of its message (an IMAP
// client idles up to 29) keeps its message under the default idle timeout; a
// shorter timeout given on the command line ends it.
TEST_F(BoundsTest, IdleTimeoutDefaultsToHalfAnHourAndCanBeSet) {
  const std::vector<test::Frame> frames = test::SmtpSession(40000, "Slow", 2000);
  std::string capture = test::PcapFileHeader();
  for (size_t i = 0; i < frames.size(); ++i) {
    const uint64_t pause = i >= 12 ? 1200ull * 1000000 : 0;  // before the body
    capture += test::PcapRecord(frames[i], test::kCaptureStartUs + i * 100 + pause);
  }
  test::WriteWholeFile(dir_ / "slow.pcap", capture);
  struct Case {
    const char* name;
    std::vector<std::string> options;
    size_t records;
  };
  const Case cases[] = {
      {"default", {}, 1},
      {"19 minutes", {"--idle-timeout", "1140"}, 0},
      {"21 minutes", {"--idle-timeout", "1260"}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> arguments = c.options;
    arguments.insert(arguments.end(), {"-q", "-o", out_.string(), (dir_ / "slow.pcap").string()});
    const ProgramResult result = test::RunProgram(arguments);
    ASSERT_EQ(result.status, kExitDone) << result.err;
    EXPECT_EQ(LineCount(out_ / "emails.jsonl"), c.records);
  }
}

// Sixteen connections each lose a packet early in their message and hold
// about 90 KiB behind it: 1.4 MiB in all. Under a hold limit of 1 MiB the
// oldest held data goes on with its gap skipped, and the run says so on
// stderr, in the summary and in statistics.json; the default never gets there
// and adds nothing to either.
TEST_F(BoundsTest, HoldLimitReleasesTheOldestHeldDataAndSaysSo) {
  const path capture = dir_ / "gaps.pcap";
  test::WriteWholeFile(capture, Sessions(16, 100000, 16, 1));
  struct Case {
    const char* name;
    std::vector<std::string> options;
    bool reached;
  };
  const Case cases[] = {
      {"default 256 MiB", {}, false},
      {"1 MiB", {"--hold-limit", "1"}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> arguments = c.options;
    arguments.insert(arguments.end(), {"-o", out_.string(), capture.string()});
    const ProgramResult result = test::RunProgram(arguments);
    ASSERT_EQ(result.status, kExitDone) << result.err;
    const nlohmann::json statistics =
        nlohmann::json::parse(test::ReadWholeFile(out_ / "statistics.json"), nullptr, false);
    if (!c.reached) {
      EXPECT_THAT(result.out + result.err, Not(HasSubstr("old limit")));
      EXPECT_FALSE(statistics.contains("Capture")) << statistics;
      continue;
    }
    EXPECT_THAT(result.err, HasSubstr("reached --hold-limit (1 MiB)"));
    EXPECT_THAT(result.out, HasSubstr("Hold limit: 1 MiB"));
    EXPECT_GT(statistics["Capture"]["HoldLimit"].value("Reached", 0), 0) << statistics;
  }
}

}  // namespace
}  // namespace pelka
