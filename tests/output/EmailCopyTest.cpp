#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "flow/EmailFlowData.h"
#include "module/EmailModule.h"
#include "output/EmailCopy.h"
#include "support/FakeFlow.h"
#include "support/InMemoryLog.h"
#include "support/TempFile.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;
using testing::FakeFlow;
using testing::InMemoryLog;
using testing::InMemoryLogService;
using testing::PacketRecordBuilder;

std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

constexpr uint64_t kCompletedAt = 1709622489000042ull;  // 2024-03-05 07:08:09 UTC + 42 us

class EmailCopyTest : public ::testing::Test {
 protected:
  EmailCopyTest() : flow_(0x0A000002, 40001, 0x0A000001, 25), context_(&module_, &flow_) {}

  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    module_.set_log_service(&service_);
    module_.DefineEmailLog();
    service_.EnableCopies(std::wstring(root_.begin(), root_.end()));
  }

  void Collect(const std::string& bytes) {
    context_.flow_data->Append(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size()));
    context_.flow_data->Commit();
  }
  void Save(uint64_t time_us) { module_.SaveEmailCopy(&context_, builder_.Build(9, time_us, 40001, 25)); }

  CPelkaEmailModule module_;
  InMemoryLogService service_;
  FakeFlow flow_;
  CEmailFlowContext context_;
  PacketRecordBuilder builder_;
  test::TempDir dir_;
  const std::string root_ = dir_.path().string() + "/";
};

TEST_F(EmailCopyTest, EachMessageGetsItsOwnFileAndSameNameReplaces) {
  const std::string binary("From: a@x\r\n\r\nline\r\n\0binary\xff\r\n.\r\n", 32);
  const std::vector<std::pair<uint64_t, std::string>> messages = {
      {kCompletedAt, std::string(5000, 'a')},
      {kCompletedAt + 3, binary},
      {kCompletedAt + 1000000 - 42, "second"},  // 07:08:10 and 0 us
      {kCompletedAt, "short"},                  // same microsecond as the first
      {kCompletedAt + 7, ""},                   // nothing collected: an empty file
  };
  for (const auto& [time, bytes] : messages) {
    context_.DiscardCollectedBytes();
    if (!bytes.empty()) Collect(bytes);
    Save(time);
    ASSERT_FALSE(context_.copy_path.empty());
    EXPECT_EQ(context_.copy_file, nullptr) << "closed once written";
  }
  const std::string folder = root_ + "email_copy/";
  EXPECT_EQ(context_.copy_path, Wide(folder + "2024-03-05 07.08.09.49.eml"));
  EXPECT_EQ(test::ReadWholeFile(folder + "2024-03-05 07.08.09.45.eml"), binary);
  EXPECT_EQ(test::ReadWholeFile(folder + "2024-03-05 07.08.09.42.eml"), "short");
  EXPECT_EQ(test::ReadWholeFile(folder + "2024-03-05 07.08.10.0.eml"), "second");
  EXPECT_EQ(fs::file_size(folder + "2024-03-05 07.08.09.49.eml"), 0u);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 4);
}

TEST_F(EmailCopyTest, NoCopyUnlessTheHostAsksForOne) {
  const struct {
    const char* name;
    void (*arrange)(InMemoryLog& log, InMemoryLogService& service);
    bool with_packet;
  } cases[] = {
      {"no packet record", [](InMemoryLog&, InMemoryLogService&) {}, false},
      {"log not saving", [](InMemoryLog& log, InMemoryLogService&) { log.save_mode = 1; }, true},
      {"copies off", [](InMemoryLog& log, InMemoryLogService&) { log.storages[1]->enabled = 0; }, true},
      {"no copy storage", [](InMemoryLog& log, InMemoryLogService&) { log.storages.pop_back(); }, true},
      {"no storage root", [](InMemoryLog&, InMemoryLogService& service) { service.root_status = 1; }, true},
  };
  Collect("bytes");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    InMemoryLogService service;
    CPelkaEmailModule module;
    module.set_log_service(&service);
    module.DefineEmailLog();
    service.EnableCopies(Wide(root_));
    c.arrange(*service.log(), service);
    context_.copy_path = L"left over from the last message";
    module.SaveEmailCopy(&context_, c.with_packet ? builder_.Build(1, kCompletedAt, 40001, 25) : nullptr);
    EXPECT_EQ(context_.copy_path, L"");
  }
  module_.SaveEmailCopy(nullptr, builder_.Build(1, kCompletedAt, 40001, 25));  // no message to copy
  EXPECT_TRUE(fs::is_empty(root_));
}

TEST_F(EmailCopyTest, FolderNameIsCreatedAndAFailedOrRefusedOpenKeepsThePath) {
  service_.log()->storages[1]->folder = "mail\\copies";
  Collect("x");
  Save(kCompletedAt);
  EXPECT_EQ(test::ReadWholeFile(root_ + "mail/copies/2024-03-05 07.08.09.42.eml"), "x");

  // A file where the folder should be: the directory cannot be made, the open
  // fails, and the record still shows the path it would have had.
  std::ofstream(root_ + "blocked").put('!');
  service_.log()->storages[1]->folder = "blocked";
  Save(kCompletedAt);
  EXPECT_EQ(context_.copy_path, Wide(root_ + "blocked/2024-03-05 07.08.09.42.eml"));
  EXPECT_TRUE(fs::is_regular_file(root_ + "blocked"));

  // A symbolic link where the copy goes is not followed.
  service_.log()->storages[1]->folder = "email_copy";
  fs::create_directory(root_ + "email_copy");
  std::ofstream(root_ + "elsewhere").put('!');
  fs::create_symlink(root_ + "elsewhere", root_ + "email_copy/2024-03-05 07.08.09.42.eml");
  Save(kCompletedAt);
  EXPECT_EQ(test::ReadWholeFile(root_ + "elsewhere"), "!");
}

// CreateDirectoryPath on its own, below the temporary root.
TEST_F(EmailCopyTest, PathCreatesMissingLevels) {
  fs::create_directories(root_ + "old/level");
  const std::string r = root_;
  // Paths of 260 characters and one more, in one component below "L".
  const std::string longest = "L/" + std::string(kMaxDirectoryPath - r.size() - 2, 'x');
  // Path, a folder below the root that must exist and one that must not ("": none).
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {r + "a/b/c", "a/b/c", ""},
      {"  " + r + "trim/me/ \t", "trim/me", ""},
      {r + "back\\slash\\", "back/slash", ""},
      {r + "old/level/new", "old/level/new", ""},              // existing levels above
      {r + "gap//f/g/", "gap", "gap/f"},                       // an empty component ends the walk
      {"/" + r + "net/share/folder/", "net/share/folder", ""},  // network form
      {r + longest + "y", "", longest + "y"},
      {r + longest, longest, ""},
      {"relative/dir", "", "relative"},
      {"", "", ""},
      {" \t ", "", ""},
  };
  for (const auto& [path, must_exist, must_not_exist] : cases) {
    CreateDirectoryPath(Wide(path));
    EXPECT_TRUE(must_exist.empty() || fs::is_directory(root_ + must_exist)) << path;
    EXPECT_TRUE(must_not_exist.empty() || !fs::exists(root_ + must_not_exist)) << path;
    EXPECT_TRUE(must_not_exist.empty() || !fs::exists(must_not_exist)) << path;
  }
}

TEST_F(EmailCopyTest, PathOfDriveFormStartsBelowTheDrive) {
  const fs::path saved = fs::current_path();
  fs::current_path(root_);
  CreateDirectoryPath(L"Q:/d1/d2");  // no "Q:" directory: nothing can be made
  EXPECT_FALSE(fs::exists("Q:"));
  fs::create_directory("Q:");
  for (const wchar_t* refused : {L"Q:", L"Q:d3"}) CreateDirectoryPath(refused);
  CreateDirectoryPath(L"Q:\\d1\\d2");
  EXPECT_TRUE(fs::is_directory("Q:/d1/d2"));
  EXPECT_FALSE(fs::exists("Q:d3"));
  fs::current_path(saved);
}

}  // namespace
}  // namespace pelka
