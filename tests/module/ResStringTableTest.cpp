#include "module/ResStringTable.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/TempFile.h"

namespace pelka {
namespace {

constexpr const wchar_t* kSlowTime = L"(数据包 [%I64u_SNUM%] 与数据包 [%I64u_DNUM%] 相隔%d_SLOW%ms)";
constexpr const wchar_t* kPacketNumber = L" (数据包序号 [%I64u_NUM%])";

std::string Utf8Table(const std::string& strings) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<StringTable>\n" + strings + "</StringTable>\n";
}

// A table loaded from the given file contents.
class LoadedTable {
 public:
  explicit LoadedTable(const std::string& bytes) : file_(bytes, ".cst") {
    loaded_ = table_.LoadFromFile(file_.wide_path().c_str());
  }
  CResStringTable& table() { return table_; }
  int loaded() const { return loaded_; }

 private:
  test::TempFile file_;
  CResStringTable table_;
  int loaded_ = 0;
};

TEST(ResStringTable, WithoutAFileEveryTextIsItsDefault) {
  CResStringTable table;
  std::wstring holder;
  EXPECT_EQ(table.LoadFromFile(L"/nonexistent/PelkaEmailRes.cst"), 0);
  EXPECT_STREQ(table.GetString(holder, L"IDS_EMAIL_LOG", L"邮件日志"), L"邮件日志");
  EXPECT_STREQ(table.GetString(holder, L"IDS_SLOW_TIME", kSlowTime, uint64_t{12}, uint64_t{15}, 300),
               L"#(数据包 [12] 与数据包 [15] 相隔300ms)");
  EXPECT_STREQ(table.GetString(holder, L"IDS_PACKET_NUMBER", kPacketNumber, uint64_t{1} << 32),
               L"# (数据包序号 [4294967296])");
  EXPECT_STREQ(table.GetString(holder, L"IDS_NONE", nullptr), L"");
  EXPECT_STREQ(table.GetString(holder, nullptr, L"text"), L"text");
}

TEST(ResStringTable, RejectsDocumentsThatAreNotStringTables) {
  for (const std::string bytes : {"not xml", "<StringTable><String id=\"A\">x</String>", "<Other/>"}) {
    LoadedTable loaded(bytes);
    std::wstring holder;
    EXPECT_EQ(loaded.loaded(), 0) << bytes;
    EXPECT_STREQ(loaded.table().GetString(holder, L"A", L"default"), L"default") << bytes;
  }
}

TEST(ResStringTable, TranslatedTextsBindValuesByName) {
  LoadedTable loaded(Utf8Table(
      "<String id=\"IDS_EMAIL_LOG\">Email Log</String>\n"
      "<String id=\"IDS_SLOW_TIME\">(%d_SLOW% ms between packet %I64u_SNUM% and %I64u_DNUM%)</String>\n"
      "<String id=\"IDS_LACKS\">packet %I64u_SNUM% only</String>\n"
      "<String id=\"IDS_EXTRA\">%I64u_NUM% and %d_OTHER%</String>\n"
      "<String id=\"IDS_TWICE\">%d_A% %d_A%</String>\n"
      "<String id=\"IDS_PERCENT\">%d_P%%% of 100%%</String>\n"
      "<String id=\"IDS_NO_PAIR\">100%% sure</String>\n"
      "<String id=\"IDS_EMPTY\"></String>\n"
      "<String id=\"IDS_DUP\">first</String>\n"
      "<String id=\"IDS_DUP\">second</String>\n"
      "<String id=\"ids_email_log\">lower case</String>\n"
      "<String>no id</String>\n"
      "<Other id=\"IDS_OTHER\">ignored</Other>\n"));
  ASSERT_EQ(loaded.loaded(), 1);
  CResStringTable& table = loaded.table();
  std::wstring h;
  const std::vector<std::pair<std::wstring, const wchar_t*>> cases = {
      {table.GetString(h, L"IDS_EMAIL_LOG", L"邮件日志"), L"Email Log"},
      {table.GetString(h, L"ids_email_log", L"邮件日志"), L"lower case"},
      {table.GetString(h, L"Ids_Email_Log", L"邮件日志"), L"邮件日志"},
      {table.GetString(h, L"IDS_SLOW_TIME", kSlowTime, uint64_t{12}, uint64_t{15}, 300),
       L"(300 ms between packet 12 and 15)"},
      {table.GetString(h, L"IDS_LACKS", kSlowTime, uint64_t{12}, uint64_t{15}, 300), L"packet 12 only"},
      {table.GetString(h, L"IDS_EXTRA", kPacketNumber, uint64_t{9}), L"9 and %d_OTHER%"},
      // A placeholder that stands twice in the default takes two values; the
      // second wins everywhere.
      {table.GetString(h, L"IDS_TWICE", L"%d_A%-%d_A%", 1, 2), L"2 2"},
      {table.GetString(h, L"IDS_PERCENT", L"%d_P%%%", 50), L"50% of 100%"},
      // Without "%%" in the default, "%%" of the translation stays as it is.
      {table.GetString(h, L"IDS_PERCENT", L"%d_P%", 50), L"50%% of 100%%"},
      // Without any pattern the translation is taken as it stands.
      {table.GetString(h, L"IDS_NO_PAIR", L"sure"), L"100%% sure"},
      {table.GetString(h, L"IDS_NO_PAIR", L"%%"), L"100% sure"},
      {table.GetString(h, L"IDS_EMPTY", L"default"), L""},
      {table.GetString(h, L"IDS_DUP", L"default"), L"second"},
      {table.GetString(h, L"", L"default"), L"no id"},
      {table.GetString(h, L"IDS_OTHER", L"default"), L"default"},
      {table.GetString(h, L"IDS_MISSING", L"%s_T% is %d_N%", L"x", 3), L"#x is 3"},
  };
  for (const auto& [got, expected] : cases) EXPECT_EQ(got, expected);
}

// Every request clears and refills the one replacer; concurrent requests must
// not see each other's values.
TEST(ResStringTable, ConcurrentRequestsKeepTheirOwnValues) {
  CResStringTable table;
  std::atomic<int> wrong{0};
  auto worker = [&](uint64_t base) {
    std::wstring holder;
    for (uint64_t i = 0; i < 2000; ++i) {
      const std::wstring expected = L"#" + std::to_wstring(base + i) + L"-" + std::to_wstring(i);
      table.GetString(holder, L"X", L"%I64u_A%-%d_B%", base + i, static_cast<int>(i));
      if (holder != expected) ++wrong;
    }
  };
  std::thread first(worker, uint64_t{1000000});
  std::thread second(worker, uint64_t{9000000});
  first.join();
  second.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace pelka
