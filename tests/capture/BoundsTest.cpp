// The run's bounds in time and memory, as a user meets them: the idle
// timeout, and the bound on out-of-order data held over all connections.
// (An output that runs out of room is WriteFaultTest's.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

// `sessions` SMTP sessions open at once, each missing its second body packet.
std::string SessionsLosingAPacket(size_t sessions, size_t body_bytes) {
  return test::PcapFileHeader() + test::PcapRecords(test::Interleaved(sessions, sessions, [&](size_t i) {
           std::vector<test::Frame> frames =
               test::SmtpSession(static_cast<uint16_t>(1024 + i), "Message " + std::to_string(i), body_bytes);
           constexpr size_t kSecondBodyFrame = 13;  // handshake, the turns up to "354", the first body packet
           frames.erase(frames.begin() + kSecondBodyFrame);
           return frames;
         }));
}

class BoundsTest : public ::testing::Test {
 protected:
  void SetUp() override { REQUIRE_PROGRAM(); }
  TempDir dir_;
  const path out_ = dir_ / "out";
};

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
  test::WriteWholeFile(capture, SessionsLosingAPacket(16, 100000));
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
      EXPECT_THAT(result.out, Not(HasSubstr("Hold limit")));
      EXPECT_THAT(result.err, Not(HasSubstr("--hold-limit")));
      EXPECT_FALSE(statistics.contains("Capture") && statistics["Capture"].contains("HoldLimit")) << statistics;
      continue;
    }
    EXPECT_THAT(result.err, HasSubstr("reached --hold-limit (1 MiB)"));
    EXPECT_THAT(result.out, HasSubstr("Hold limit: 1 MiB"));
    EXPECT_GT(statistics["Capture"]["HoldLimit"].value("Reached", 0), 0) << statistics;
  }
}

}  // namespace
}  // namespace pelka
