// --user: the switch away from root after the inputs are open, and where the
// program writes. The refusals run everywhere; the switch itself needs root
// (as on the development machines and CI) and is skipped otherwise. Every
// switch happens in a child process, so the test process keeps its identity.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>

#include "ProgramHarness.h"
#include "capture/CommandLine.h"
#include "capture/PrivilegeDrop.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using test::ProgramResult;
using test::TempDir;

using test::kSample;
constexpr const char* kUnprivileged = "nobody";

// Runs `body` in a child process and hands back the text it returns (empty:
// all went well).
std::string InChild(const std::function<std::string()>& body) {
  int ends[2];
  if (::pipe(ends) != 0) return "cannot make a pipe";
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(ends[0]);
    const std::string text = body();
    const ssize_t written = ::write(ends[1], text.data(), text.size());
    ::_exit(written == static_cast<ssize_t>(text.size()) ? 0 : 3);
  }
  ::close(ends[1]);
  std::string text;
  char buffer[512];
  for (ssize_t n; (n = ::read(ends[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(n));
  ::close(ends[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) text += " (the child ended abnormally)";
  return text;
}

uid_t OwnerOf(const fs::path& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 ? info.st_uid : static_cast<uid_t>(-1);
}

UserAccount Unprivileged() {
  std::string error;
  const std::optional<UserAccount> account = FindUser(kUnprivileged, &error);
  EXPECT_TRUE(account) << error;
  return account.value_or(UserAccount{});
}

#define REQUIRE_ROOT() \
  if (::geteuid() != 0) GTEST_SKIP() << "switching users needs root; skipping"

// An unknown user is refused by the program's own test below.
TEST(PrivilegeDrop, RefusesWhatCannotWork) {
  struct Case {
    const char* name;
    std::string user;
    bool start_unprivileged;
    std::string expected;
  } cases[] = {
      {"root gives nothing up", "root", false, "--user root: the user is root; name an unprivileged user"},
      {"not started as root", kUnprivileged, true, "--user needs the program to start as root"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string problem = InChild([&c] {
      std::string error;
      if (c.start_unprivileged && ::geteuid() == 0 && !DropPrivileges(kUnprivileged, &error)) return "setup: " + error;
      PrivilegeDrop drop(c.user, "");
      return drop.Check(&error) && drop.Apply(&error) ? std::string() : error;
    });
    EXPECT_EQ(problem, c.expected);
  }
}

// Reading inputs opened before the switch and owning the output folder are
// checked by running the program below; here, that the switch holds.
TEST(PrivilegeDrop, TheSwitchCannotBeUndone) {
  REQUIRE_ROOT();
  const std::string problem = InChild([] {
    std::string error;
    if (!DropPrivileges(kUnprivileged, &error)) return error;
    return ::setuid(0) == 0 || ::seteuid(0) == 0 ? std::string("root regained") : std::string();
  });
  EXPECT_EQ(problem, "");
}

TEST(PrivilegeDrop, GivesAwayOnlyTheFilesTheRunMade) {
  REQUIRE_ROOT();
  const UserAccount user = Unprivileged();
  TempDir dir;
  const fs::path elsewhere = dir / "elsewhere";  // stands for a file like /etc/shadow
  test::WriteWholeFile(elsewhere, "secret");
  const fs::path out = dir / "out";
  fs::create_directory(out);
  fs::create_symlink(elsewhere, out / "symbolic");
  fs::create_hard_link(elsewhere, out / "hard");

  std::string error;
  // The run's own files changing hands is checked by running the program below.
  ASSERT_TRUE(GiveDirectoryTo(out.string(), user, &error)) << error;
  EXPECT_EQ(OwnerOf(out / "symbolic"), 0u);
  EXPECT_EQ(OwnerOf(elsewhere), 0u) << "reached through a link";

  // A folder someone else made in the meantime is not the run's to give.
  const fs::path foreign = dir / "foreign";
  fs::create_directory(foreign);
  ASSERT_EQ(::chown(foreign.c_str(), user.uid, user.gid), 0);
  EXPECT_FALSE(GiveDirectoryTo(foreign.string(), UserAccount{"daemon-like", 1, 1}, &error));
  EXPECT_THAT(error, HasSubstr("not made by this run"));
  EXPECT_EQ(OwnerOf(foreign), user.uid);
  fs::create_directory_symlink(dir.path(), dir / "link-to-folder");
  EXPECT_FALSE(GiveDirectoryTo((dir / "link-to-folder").string(), user, &error));
  EXPECT_EQ(OwnerOf(dir.path()), 0u);
}

// The program itself, as `sudo pelka-email --user nobody` runs it: every file
// the run makes is the user's, in a folder it makes or in one open to all.
TEST(PrivilegeDropProgram, RunsAsTheUserAndGivesItEveryFileItMakes) {
  REQUIRE_PROGRAM();
  REQUIRE_ROOT();
  TempDir private_dir;
  const fs::path capture = private_dir / "sample.pcap";
  fs::copy_file(kSample, capture);
  for (const bool existing_folder : {false, true}) {
    SCOPED_TRACE(existing_folder ? "a folder open to all" : "a folder the run makes");
    TempDir public_dir;
    fs::permissions(public_dir.path(), fs::perms::others_read | fs::perms::others_exec, fs::perm_options::add);
    const fs::path out = public_dir / "out";
    if (existing_folder) {
      fs::create_directory(out);
      fs::permissions(out, fs::perms::all);
    }
    const ProgramResult result =
        test::RunProgram({"--user", kUnprivileged, "--copies", "-o", out.string(), capture.string()});
    test::ExpectNoCrash(result);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("Messages: 3"));
    EXPECT_EQ(test::ReadJsonLines(out / "emails.jsonl").size(), 3u);
    const uid_t user = Unprivileged().uid;
    size_t files = 0;
    EXPECT_EQ(OwnerOf(out), existing_folder ? 0u : user);
    for (const auto& entry : fs::recursive_directory_iterator(out)) {
      EXPECT_EQ(OwnerOf(entry.path()), user) << entry.path();
      ++files;
    }
    EXPECT_EQ(files, 9u + 1u + 3u) << "nine files (report.html and emails.sqlite too), email_copy/ and three copies";
    EXPECT_EQ(std::distance(fs::directory_iterator(public_dir.path()), fs::directory_iterator()), 1)
        << "nothing but the output folder beside it";
  }
}

TEST(PrivilegeDropProgram, RefusalsStopTheRunBeforeItReads) {
  REQUIRE_PROGRAM();
  struct Case {
    const char* name;
    std::string user;
    bool existing_folder;  // made by root before the run
    bool needs_root;
    int status;
    std::string message;
  } cases[] = {
      {"unknown user: nothing is made", "pelka-no-such-user", false, false, kExitUsage,
       "--user pelka-no-such-user: no such user"},
      {"a folder made beforehand is not given away", kUnprivileged, true, true, kExitInputProblem,
       "is not writable by user nobody"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.needs_root && ::geteuid() != 0) continue;
    TempDir dir;
    const fs::path out = dir / "out";
    if (c.existing_folder) fs::create_directory(out);
    const ProgramResult result = test::RunProgram({"--user", c.user, "-q", "-o", out.string(), kSample.string()});
    test::ExpectNoCrash(result);
    EXPECT_EQ(result.status, c.status);
    EXPECT_THAT(result.err, HasSubstr(c.message));
    EXPECT_EQ(fs::exists(out), c.existing_folder);
    if (c.existing_folder) {
      EXPECT_EQ(OwnerOf(out), 0u);
      EXPECT_TRUE(test::ReadJsonLines(out / "emails.jsonl").empty()) << "nothing may be read after a failed switch";
    }
  }
}

}  // namespace
}  // namespace pelka
