#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "output/EmailCopy.h"
#include "support/TempFile.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;

std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

class CopyPathTest : public ::testing::Test {
 protected:
  test::TempDir dir_;
  const std::string root_ = dir_.path().string();
};

TEST_F(CopyPathTest, CreatesMissingLevels) {
  fs::create_directories(root_ + "/old/level");
  const std::string r = root_;
  // Path, a folder below the root that must exist and one that must not ("": none).
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {r + "/a/b/c", "a/b/c", ""},
      {"  " + r + "/trim/me/ \t", "trim/me", ""},
      {r + "\\back\\slash\\", "back/slash", ""},
      {r + "/old/level/new", "old/level/new", ""},              // existing levels above
      {r + "/gap//f/g/", "gap", "gap/f"},                       // an empty component ends the walk
      {"/" + r + "/net/share/folder/", "net/share/folder", ""},  // network form
      {"relative/dir", "", "relative"},
      {"", "", ""},
      {" \t ", "", ""},
  };
  for (const auto& [path, must_exist, must_not_exist] : cases) {
    CreateDirectoryPath(Wide(path));
    EXPECT_TRUE(must_exist.empty() || fs::is_directory(root_ + "/" + must_exist)) << path;
    EXPECT_TRUE(must_not_exist.empty() || !fs::exists(root_ + "/" + must_not_exist)) << path;
    EXPECT_TRUE(must_not_exist.empty() || !fs::exists(must_not_exist)) << path;
  }
}

TEST_F(CopyPathTest, LengthLimitIs260Characters) {
  for (size_t length : {size_t{259}, size_t{260}, size_t{261}, size_t{300}}) {
    // root + "/" + "L<length>/" + padding, one padding component.
    const std::string parent = root_ + "/L" + std::to_string(length) + "/";
    ASSERT_LT(parent.size(), length);
    const std::string path = parent + std::string(length - parent.size(), 'x');
    CreateDirectoryPath(Wide(path));
    EXPECT_EQ(fs::is_directory(path), length <= kMaxDirectoryPath) << length;
  }
}

TEST_F(CopyPathTest, DriveFormStartsBelowTheDrive) {
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
