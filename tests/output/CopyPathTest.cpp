#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
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
  struct Case {
    std::string path;           // relative to the temporary root unless absolute
    std::string must_exist;     // "" for none
    std::string must_not_exist; // "" for none
  };
  const std::string r = root_;
  const std::vector<Case> cases = {
      {r + "/a/b/c", "a/b/c", ""},
      {r + "/d/e/", "d/e", ""},
      {"  " + r + "/trim/me/ \t", "trim/me", ""},
      {r + "\\back\\slash\\", "back/slash", ""},
      {r + "/old/level/new", "old/level/new", ""},      // existing levels above
      {r + "/gap//f/g/", "gap", "gap/f"},               // an empty component ends the walk
      {"/" + r + "/net/share/folder/", "net/share/folder", ""},  // network form
      {"relative/dir", "", "relative"},
      {"", "", ""},
      {" \t ", "", ""},
  };
  for (const auto& c : cases) {
    CreateDirectoryPath(Wide(c.path));
    if (!c.must_exist.empty()) {
      EXPECT_TRUE(fs::is_directory(root_ + "/" + c.must_exist)) << c.path;
    }
    if (!c.must_not_exist.empty()) {
      EXPECT_FALSE(fs::exists(root_ + "/" + c.must_not_exist)) << c.path;
      EXPECT_FALSE(fs::exists(c.must_not_exist)) << c.path;
    }
  }
}

TEST_F(CopyPathTest, LengthLimitIs260Characters) {
  for (size_t length : {size_t{259}, size_t{260}, size_t{261}, size_t{300}}) {
    // root + "/" + "L<length>/" + padding, one padding component.
    std::string parent = root_ + "/L" + std::to_string(length) + "/";
    ASSERT_LT(parent.size(), length);
    const std::string path = parent + std::string(length - parent.size(), 'x');
    ASSERT_EQ(path.size(), length);
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
