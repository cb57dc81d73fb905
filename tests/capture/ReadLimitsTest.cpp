// --count and --duration end a run by themselves, the way Ctrl-C would: every
// output written, status 0, and the reason said on stderr.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "ProgramHarness.h"

namespace pelka {
namespace {

using ::testing::HasSubstr;
using test::TempDir;

TEST(ReadLimitsTest, CountEndsTheRunAfterThatManyPackets) {
  REQUIRE_PROGRAM();
  const struct {
    const char* name;
    std::vector<std::string> options;
  } cases[] = {{"one thread", {}}, {"two threads", {"--threads", "2", "--exact-threads"}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    std::vector<std::string> args = {"--count", "20", "-o", (dir / "out").string(), test::kSample.string()};
    args.insert(args.begin(), c.options.begin(), c.options.end());
    const test::ProgramResult result = test::RunProgram(args);
    test::ExpectNoCrash(result);
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("Read: 20 packets"));
    EXPECT_THAT(result.err, HasSubstr("pelka-email: stopped after 20 packets (--count)\n"));
    test::ExpectWholeLines(dir / "out");
  }
}

// Standard input that stays open and silent: only the alarm can end the run.
TEST(ReadLimitsTest, DurationEndsARunThatWaitsForPackets) {
  REQUIRE_PROGRAM();
  TempDir dir;
  test::ProgramProcess process({"-q", "--duration", "1", "-o", (dir / "out").string(), "-"}, true);
  ASSERT_TRUE(process.WriteStdin(test::PcapFileHeader()));
  const auto start = std::chrono::steady_clock::now();
  const test::ProgramResult result = process.Wait(std::chrono::seconds(20));
  test::ExpectNoCrash(result);
  EXPECT_EQ(result.status, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(result.err, "pelka-email: stopped after 1 s (--duration)\n");
  EXPECT_TRUE(std::filesystem::exists(dir / "out" / "statistics.json"));
}

}  // namespace
}  // namespace pelka
