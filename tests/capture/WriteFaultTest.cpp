// Faults around the outputs: a directory that cannot be written, a disk that
// fills up, and Ctrl-C or SIGTERM in the middle of a run. Each gives a clear
// message and the documented exit status, and every line written before the
// fault stays whole and parseable.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

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

// The shell wrappers below exit with this when the machine does not let them
// mount a file system.
constexpr int kCannotMount = 99;

// A capture of `sessions` whole SMTP sessions, `concurrent` open at a time,
// one message each, subjects "Message 0", "Message 1", ...
std::string SessionsCapture(size_t sessions, size_t body_bytes, size_t concurrent = 1) {
  return test::PcapFileHeader() + test::PcapRecords(test::Interleaved(sessions, concurrent, [&](size_t i) {
           return test::SmtpSession(static_cast<uint16_t>(1024 + i), "Message " + std::to_string(i), body_bytes);
         }));
}

// Runs pelka-email inside a private mount namespace with a fresh tmpfs
// mounted on `mount_point` with these options; what the run left there is
// copied to `save_dir` before the namespace goes away.
ProgramResult RunOnTmpfs(const std::string& mount_options, const path& mount_point, const path& save_dir,
                         const std::vector<std::string>& args) {
  std::vector<std::string> command = {
      "-m", "sh", "-c",
      "mount -t tmpfs -o " + mount_options + " none \"$1\" || exit " + std::to_string(kCannotMount) +
          "; m=$1; s=$2; shift 2; \"$@\"; rc=$?; cp -R \"$m\"/. \"$s\"/; exit $rc",
      "sh", mount_point.string(), save_dir.string(), test::ProgramPath().string()};
  command.insert(command.end(), args.begin(), args.end());
  return test::RunProgram(command, "/usr/bin/unshare");
}

// Skips when unshare is missing (127), may not make a namespace, or mount fails.
#define REQUIRE_MOUNT(result)                                                                           \
  if ((result).status == kCannotMount || (result).status == 127 || (result).err.starts_with("unshare:")) { \
    GTEST_SKIP() << "cannot mount a tmpfs in a private namespace here: " << (result).err << "; skipping"; \
  }

class WriteFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test::WriteWholeFile(capture_, SessionsCapture(40, 2000));
  }

  TempDir dir_;
  const path capture_ = dir_ / "mail.pcap";
};

// An output folder that cannot be made, is a file, or holds a link in place of
// an output file: the run stops, names the culprit and writes through nothing.
// A folder whose files cannot be created fails in the same open as the link.
// A link in place of the database is refused too, but the other files go on.
TEST_F(WriteFaultTest, UnusableOutputFolderIsNamed) {
  REQUIRE_PROGRAM();
  test::WriteWholeFile(dir_ / "plain-file", "not a directory\n");
  test::fs::create_directory(dir_ / "linked");
  test::WriteWholeFile(dir_ / "elsewhere.txt", "keep\n");
  test::fs::create_symlink(dir_ / "elsewhere.txt", dir_ / "linked" / "emails.jsonl");
  test::fs::create_directory(dir_ / "db-linked");
  test::fs::create_symlink(dir_ / "elsewhere.txt", dir_ / "db-linked" / "emails.sqlite");
  struct Case {
    path out;
    std::vector<std::string> err_parts;
  };
  const Case cases[] = {
      {dir_ / "plain-file" / "out", {(dir_ / "plain-file" / "out").string()}},
      {dir_ / "plain-file", {(dir_ / "plain-file").string()}},
      {dir_ / "linked", {"symbolic link", "emails.jsonl"}},
      {dir_ / "db-linked", {"symbolic link", "emails.sqlite", "the other outputs go on"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.out.string());
    const ProgramResult result = test::RunProgram({"-o", c.out.string(), "--quiet", capture_.string()});
    test::ExpectNoCrash(result);
    EXPECT_EQ(result.status, kExitInputProblem);
    for (const std::string& part : c.err_parts) EXPECT_THAT(result.err, HasSubstr(part));
  }
  EXPECT_EQ(test::ReadWholeFile(dir_ / "elsewhere.txt"), "keep\n");
  EXPECT_GT(test::LineCount(dir_ / "db-linked" / "emails.jsonl"), 0u);
}

// A 16 KiB file system fills up after a few records: the run says so, keeps
// in whole lines every record that fitted, counts the lost ones on stderr and
// in the summary, and the summary counts every message found. (The database
// is left out: its empty tables alone would take most of the room.)
TEST_F(WriteFaultTest, OutputFileSystemFillsUpMidRun) {
  REQUIRE_PROGRAM();
  const path out = dir_ / "out";
  const path saved = dir_ / "saved";
  test::fs::create_directory(out);
  test::fs::create_directory(saved);
  const ProgramResult result = RunOnTmpfs("size=16k", out, saved, {"--no-db", "-o", out.string(), capture_.string()});

  REQUIRE_MOUNT(result);
  test::ExpectNoCrash(result);
  EXPECT_EQ(result.status, kExitInputProblem);
  EXPECT_THAT(result.err, HasSubstr("No space left on device"));
  test::ExpectWholeLines(saved);
  const size_t kept = LineCount(saved / "emails.jsonl");
  std::smatch lost;
  ASSERT_TRUE(std::regex_search(result.err, lost, std::regex("([0-9]+) lines of emails\\.jsonl were lost"))) << result.err;
  EXPECT_GT(kept, 0u) << "the lines that fitted were dropped";
  EXPECT_EQ(kept + std::stoul(lost[1]), 40u);
  EXPECT_THAT(result.out, HasSubstr("Messages: 40 (SMTP 40)"));
  EXPECT_THAT(result.out, HasSubstr("Not written: emails.jsonl " + lost[1].str() + " lines"));
}

// Ctrl-C, SIGTERM and SIGHUP end a run cleanly: exit status 0, the summary says the
// run stopped early, and the export lines of every record found were written.
struct StopCase {
  const char* name;
  int signal;
  bool from_pipe;  // the capture arrives on standard input and stalls
  const char* threads = "1";
};

void PrintTo(const StopCase& c, std::ostream* out) { *out << c.name; }

class StopSignalTest : public ::testing::TestWithParam<StopCase> {
 protected:
  static constexpr size_t kBigSessions = 6000;
  static constexpr size_t kPipeSessions = 30;

  // Fifty sessions open at a time, so that the signal finds many flows open;
  // made once for all cases.
  static std::string BigCapture() {
    static const TempDir dir;
    static const path capture = dir / "big.pcap";
    if (!test::fs::exists(capture)) test::WriteWholeFile(capture, SessionsCapture(kBigSessions, 8000, 50));
    return capture.string();
  }
};

TEST_P(StopSignalTest, StopsCleanlyKeepingWholeLines) {
  REQUIRE_PROGRAM();
  const StopCase& c = GetParam();
  TempDir dir;
  const path out = dir / "out";
  const std::string input = c.from_pipe ? "-" : BigCapture();
  test::ProgramProcess process({"--threads", c.threads, "--exact-threads", "-o", out.string(), input}, c.from_pipe);
  if (c.from_pipe) {
    // The export files show their header before any packet came.
    EXPECT_TRUE(test::WaitForLines(out / "email_log.csv", 1, std::chrono::seconds(10)));
    // The stream stays open: the program waits for more when the signal comes.
    ASSERT_TRUE(process.WriteStdin(SessionsCapture(kPipeSessions, 2000)));
  }
  const size_t wanted = c.from_pipe ? kPipeSessions : 1;
  ASSERT_TRUE(test::WaitForLines(out / "emails.jsonl", wanted, std::chrono::seconds(60)));
  if (c.from_pipe) {
    // Input that arrives slowly keeps every file current: each record's
    // export lines within a second, the counters within a few.
    for (const char* name : {"email_log.csv", "email_log.txt"})
      EXPECT_TRUE(test::WaitForLines(out / name, wanted + 1, std::chrono::seconds(1))) << name;
    const auto counted = [&out] {
      const auto statistics = nlohmann::json::parse(test::ReadWholeFile(out / "statistics.json"), nullptr, false);
      return statistics.is_object() ? statistics.value("/Email/SMTP/Count"_json_pointer, size_t{0}) : 0;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (counted() != kPipeSessions && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(counted(), kPipeSessions) << "statistics.json is not kept current";
  }
  process.Signal(c.signal);
  const ProgramResult result = process.Wait(std::chrono::seconds(30));

  test::ExpectNoCrash(result);
  EXPECT_EQ(result.status, kExitDone) << result.err;
  EXPECT_THAT(result.out, HasSubstr("Stopped before the end of the input"));
  test::ExpectWholeLines(out);
  const size_t records = LineCount(out / "emails.jsonl");
  if (c.from_pipe) {
    EXPECT_EQ(records, kPipeSessions);
  } else if (records == kBigSessions) {
    GTEST_SKIP() << "the run ended before the signal came; the capture is too small for this machine";
  }
  // The export has its header line and one line per record.
  EXPECT_EQ(LineCount(out / "email_log.csv"), records + 1);
}

INSTANTIATE_TEST_SUITE_P(Signals, StopSignalTest,
                         ::testing::Values(StopCase{"CtrlCWhileReadingAFile", SIGINT, false},
                                           StopCase{"SigtermWhileWaitingOnAPipe", SIGTERM, true},
                                           StopCase{"SighupWhileWaitingOnAPipeOnTwoThreads", SIGHUP, true, "2"},
                                           StopCase{"SigtermWhileReadingAFileOnTwoThreads", SIGTERM, false, "2"}),
                         [](const ::testing::TestParamInfo<StopCase>& info) { return info.param.name; });

}  // namespace
}  // namespace pelka
