// The output folder is the program's alone: every message keeps a copy of its
// own, files are private to their owner's group, nothing is written outside
// the folder or through what someone planted in it, and a run that cannot
// write safely stops before it touches the earlier results.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "ProgramHarness.h"
#include "capture/CommandLine.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using test::ProgramResult;

// Three SMTP messages ("Message 0".."Message 2") whose packets all carry the
// same capture time, so that the module names their copies alike.
std::string SameMicrosecondCapture() {
  std::string records;
  for (uint16_t i = 0; i < 3; ++i)
    for (const test::Frame& frame : test::SmtpSession(static_cast<uint16_t>(1024 + i), "Message " + std::to_string(i)))
      records += test::PcapRecord(frame, test::kCaptureStartUs);
  return test::PcapFileHeader() + records;
}

mode_t ModeOf(const fs::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

ProgramResult RunFor(const std::vector<std::string>& arguments) {
  test::ProgramProcess process(arguments);
  return process.Wait(std::chrono::seconds(30));
}

// Sets the umask for a scope.
struct ScopedUmask {
  explicit ScopedUmask(mode_t mask) : old(::umask(mask)) {}
  ~ScopedUmask() { ::umask(old); }
  mode_t old;
};

class OutputSafetyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    REQUIRE_PROGRAM();
    test::WriteWholeFile(capture_, SameMicrosecondCapture());
  }
  test::TempDir dir_;
  const fs::path capture_ = dir_ / "same-time.pcap";
};

// Every record names a file of its own that holds its message: same names get
// "-2", "-3", also against copies an earlier run left. The folder's name may
// hold backslashes: they are part of the name, not separators.
TEST_F(OutputSafetyTest, EveryRecordNamesAPrivateCopyOfItsOwnMessage) {
  const ScopedUmask mask(022);
  const fs::path out = dir_ / "x\\..\\escaped";
  std::set<std::string> names;
  for (int run = 0; run < 2; ++run) {
    const ProgramResult result = RunFor({"-q", "--copies", "-o", out.string(), capture_.string()});
    test::ExpectNoCrash(result);
    ASSERT_EQ(result.status, kExitDone) << result.err;
    const std::vector<nlohmann::json> records = test::ReadJsonLines(out / "emails.jsonl");
    ASSERT_EQ(records.size(), 3u);
    for (const nlohmann::json& record : records) {
      const fs::path copy = record.value("email_file_path", "");
      EXPECT_EQ(copy.parent_path(), out / "email_copy");
      EXPECT_THAT(test::ReadWholeFile(copy), HasSubstr("Subject: " + record.value("email_subject", "")));
      EXPECT_EQ(ModeOf(copy), 0600u) << copy;
      names.insert(copy.filename().string());
    }
  }
  ASSERT_EQ(names.size(), 6u) << "one file per record";
  const std::string first =
      *std::min_element(names.begin(), names.end(), [](auto& a, auto& b) { return a.size() < b.size(); });
  for (const char* suffix : {"-2", "-3", "-4", "-5", "-6"})
    EXPECT_EQ(names.count(first.substr(0, first.size() - 4) + suffix + ".eml"), 1u) << suffix;
  EXPECT_EQ(std::distance(fs::directory_iterator(out / "email_copy"), fs::directory_iterator()), 6)
      << "nothing else left in email_copy/";
  EXPECT_EQ(ModeOf(out / "emails.jsonl"), 0640u);
  EXPECT_FALSE(fs::exists(dir_ / "x")) << "a backslash made a folder";
  EXPECT_FALSE(fs::exists(dir_ / "escaped"));

  const ScopedUmask stricter(077);
  ASSERT_EQ(RunFor({"-q", "-o", (dir_ / "private").string(), capture_.string()}).status, kExitDone);
  EXPECT_EQ(ModeOf(dir_ / "private" / "emails.jsonl"), 0600u);
}

// A folder below `folder`, made, whose path is `length` bytes long.
fs::path LongFolder(fs::path folder, size_t length) {
  while (folder.string().size() < length)
    folder /= std::string(std::min<size_t>(200, length - folder.string().size() - 1), 'd');
  fs::create_directories(folder);
  return folder;
}

// What is planted in the output folder, or a run that cannot go on safely:
// status 1, a message that says what is wrong, the files as they were, and
// no record naming a file that is not there.
TEST_F(OutputSafetyTest, UnsafeOutputsStopTheRunAndSayWhy) {
  const fs::path out = dir_ / "out", elsewhere = dir_ / "elsewhere";
  fs::create_directory(elsewhere);
  int lock_fd = -1;
  struct Case {
    const char* name;
    std::function<void()> plant;  // makes out/ as the case wants it
    std::vector<std::string> arguments;
    const char* message;
    size_t records = 0;        // lines left in emails.jsonl
    const char* summary = "";  // on standard output
  };
  const std::string good = capture_.string();
  const auto earlier_run = [&] { ASSERT_EQ(RunFor({"-q", "-o", out.string(), good}).status, kExitDone); };
  const auto make_out = [&] { fs::create_directories(out); };
  const Case cases[] = {
      {"a mistyped input", earlier_run, {(dir_ / "typo.pcap").string()}, "typo.pcap: No such file", 3},
      {"another run holds the folder",
       [&] {
         earlier_run();
         lock_fd = ::open((out / ".pelka-email.lock").c_str(), O_RDWR | O_CREAT, 0600);
         ASSERT_EQ(::write(lock_fd, "4242\n", 5), 5);
         ASSERT_EQ(::flock(lock_fd, LOCK_EX), 0);
       },
       {good}, "in use by another run (pid 4242)", 3},
      {"email_copy a symbolic link", [&] { make_out(), fs::create_directory_symlink(elsewhere, out / "email_copy"); },
       {"--copies", good}, "is a symbolic link or not a directory"},
      {"email_copy a file", [&] { make_out(), test::WriteWholeFile(out / "email_copy", ""); }, {"--copies", good},
       "is a symbolic link or not a directory"},
      {"a FIFO as an output file", [&] { make_out(), ::mkfifo((out / "email_log.txt").c_str(), 0600); }, {good},
       "refusing to write to the FIFO"},
      // Room for the output files' names, not for the copies' below email_copy/.
      {"copies too deep to be written", [&] { fs::create_directory_symlink(LongFolder(dir_.path(), 4060), out); },
       {"--copies", good}, "3 message copies could not be written", 3, "Copies not written: 3"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(out);
    c.plant();
    std::vector<std::string> arguments = {"-o", fs::canonical(out).string()};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    const ProgramResult result = RunFor(arguments);
    test::ExpectNoCrash(result);
    EXPECT_EQ(result.status, kExitInputProblem);
    EXPECT_THAT(result.err, HasSubstr(c.message));
    EXPECT_THAT(result.out, HasSubstr(c.summary));
    const fs::path records = fs::canonical(out) / "emails.jsonl";
    const std::vector<nlohmann::json> left =
        fs::is_regular_file(records) ? test::ReadJsonLines(records) : std::vector<nlohmann::json>();
    EXPECT_EQ(left.size(), c.records);
    for (const nlohmann::json& record : left) {
      const std::string copy = record.value("email_file_path", "");
      std::error_code too_long;
      EXPECT_TRUE(copy.empty() || fs::is_regular_file(copy, too_long)) << "a path to nothing: " << copy;
    }
    if (lock_fd >= 0) ::close(std::exchange(lock_fd, -1));
    if (fs::is_symlink(out)) fs::remove(out);
  }
  EXPECT_TRUE(fs::is_empty(elsewhere)) << "nothing written through the link";
}

}  // namespace
}  // namespace pelka
