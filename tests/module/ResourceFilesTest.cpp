// The shipped string tables and icon: every text the module asks for resolves
// in both languages, the Chinese table repeats the built-in defaults, and the
// placeholders of each translation are those of its default.
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/XmlParser.h"
#include "module/Placeholders.h"
#include "module/ResStringTable.h"

namespace pelka {
namespace {

struct TextRequest {
  const wchar_t* id;
  const wchar_t* default_text;
};

// Every identifier the module asks for, with its built-in default.
const std::vector<TextRequest>& ModuleTexts() {
  static const std::vector<TextRequest> texts = {
      {L"IDS_EMAIL_MODULE", L"分析SMTP/POP3/IMAP4协议"},
      {L"IDS_EMAIL_LOG", L"邮件日志"},
      {L"IDS_EMAIL_COPY", L"Email Copy"},
      {L"IDS_EMAIL_INFO", L"Email信息"},
      {L"IDS_SN", L"序号"},
      {L"IDS_DATE_TIME", L"日期时间"},
      {L"IDS_PTL", L"协议"},
      {L"IDS_CLIENT_MAC", L"客户端物理地址"},
      {L"IDS_CLIENT_ADDR", L"客户端地址"},
      {L"IDS_CLIENT_PORT", L"客户端端口"},
      {L"IDS_SERVER_MAC", L"服务器物理地址"},
      {L"IDS_SERVER_ADDR", L"服务器地址"},
      {L"IDS_SERVER_POT", L"服务器端口"},
      {L"IDS_SERVER", L"服务端"},
      {L"IDS_CLIENT", L"客户端"},
      {L"IDS_SENDER", L"发送者"},
      {L"IDS_SEND_ADDR", L"发送邮件地址"},
      {L"IDS_RECEIVER", L"接收者"},
      {L"IDS_RECV_ADDR", L"接收邮件地址"},
      {L"IDS_COPYTO", L"抄送"},
      {L"IDS_TITLE", L"标题"},
      {L"IDS_SEND_TIME", L"发送时间"},
      {L"IDS_EMAIL_CLIENT", L"邮件客户端"},
      {L"IDS_ACCOUNT", L"帐户"},
      {L"IDS_ADDITIONAL", L"附件"},
      {L"IDS_FILE_SIZE", L"文件大小(字节)"},
      {L"IDS_DURATION_TIME", L"持续时间(s)"},
      {L"IDS_AVG_SPEED", L"平均速度(B/S)"},
      {L"IDS_MAIL_COPY_PATH", L"存放邮件副本路径"},
      {L"IDS_EMAIL_APP_ANA", L"Email Analysis"},
      {L"IDS_SMTP_CONN", L"SMTP Connections"},
      {L"IDS_POP3_CONN", L"POP3 Connections"},
      {L"IDS_IMAP4_CONN", L"IMAP4 Connections"},
      {L"IDS_SMTP_SERVER_SLOW_RESP", L"SMTP 服务器慢响应"},
      {L"IDS_SMTP_DUBIOUS_CONV", L"SMTP 可疑会话"},
      {L"IDS_SMTP_RETURN_ERROR", L"SMTP 服务器返回错误"},
      {L"IDS_POP3_DUBIOUS_CONV", L"POP3 可疑会话"},
      {L"IDS_POP3_SLOW_RESP", L"POP3 服务器慢响应"},
      {L"IDS_POP3_RETURN_ERROR", L"POP3 服务器返回错误"},
      {L"IDS_RESP_TIME", L"响应时间(ms)"},
      {L"IDS_SMTP_SLOW_RESP", L"SMTP Server  Slow Response"},
      {L"IDS_SMTP_NO", L"可疑的SMTP会话"},
      {L"IDS_POP3_NO", L"可疑的POP3会话"},
      {L"IDS_SLOW_TIME", L"(数据包 [%I64u_SNUM%] 与数据包 [%I64u_DNUM%] 相隔%d_SLOW%ms)"},
      {L"IDS_PACKET_NUMBER", L" (数据包序号 [%I64u_NUM%])"},
      {L"IDS_SMTP_RETURN_ERROR_PKT", L"POP3 Server Returned Error(See Packet %I64u_PKTN%)"},
      {L"IDS_POP3_RETURN_ERROR_PKT", L"POP3 Server Returned Error(See Packet %I64u_PKTN%)"},
  };
  return texts;
}

std::filesystem::path ResourceDir(const char* language) {
  return std::filesystem::path(PELKA_SOURCE_DIR) / "resources" / language;
}

// The table's own text for an id, read straight from the file.
std::vector<std::pair<std::wstring, std::wstring>> ReadEntries(const std::filesystem::path& file) {
  std::vector<std::pair<std::wstring, std::wstring>> entries;
  CTQXmlParser parser;
  if (!parser.Load(file.wstring().c_str()) || !parser.FindElem(L"StringTable")) return entries;
  parser.IntoElem();
  while (parser.FindElem(L"String")) entries.emplace_back(parser.GetAttrib(L"id"), parser.GetData());
  return entries;
}

std::set<std::wstring> PlaceholderRuns(const std::wstring& text) {
  std::set<std::wstring> runs;
  for (const Placeholder& p : ScanPlaceholders(text)) runs.insert(p.text);
  return runs;
}

class ShippedTable : public testing::TestWithParam<const char*> {};

TEST_P(ShippedTable, HoldsEveryModuleTextWithTheDefaultsPlaceholders) {
  const std::filesystem::path file = ResourceDir(GetParam()) / "PelkaEmailRes.cst";
  const auto entries = ReadEntries(file);
  ASSERT_FALSE(entries.empty()) << file;

  std::set<std::wstring> wanted;
  for (const TextRequest& request : ModuleTexts()) wanted.insert(request.id);
  std::set<std::wstring> seen;
  for (const auto& [id, text] : entries) {
    EXPECT_TRUE(wanted.count(id)) << "unknown id in table";
    EXPECT_TRUE(seen.insert(id).second) << "id given twice";
    EXPECT_FALSE(text.empty());
  }
  for (const TextRequest& request : ModuleTexts()) {
    const auto entry = std::find_if(entries.begin(), entries.end(),
                                    [&](const auto& e) { return e.first == request.id; });
    ASSERT_NE(entry, entries.end()) << testing::PrintToString(std::wstring(request.id));
    EXPECT_EQ(PlaceholderRuns(entry->second), PlaceholderRuns(request.default_text))
        << testing::PrintToString(std::wstring(request.id));
  }
}

TEST_P(ShippedTable, AnswersRequestsThroughTheLoader) {
  CResStringTable table;
  // The resource directory ends with a separator; the name is appended as is.
  const std::wstring path = ResourceDir(GetParam()).wstring() + L"/" + L"PelkaEmailRes.cst";
  ASSERT_EQ(table.LoadFromFile(path.c_str()), 1);
  std::wstring h;
  for (const TextRequest& request : ModuleTexts()) {
    if (!PlaceholderRuns(request.default_text).empty()) continue;
    const std::wstring text = table.GetString(h, request.id, L"\x1 missing");
    EXPECT_NE(text, L"\x1 missing") << testing::PrintToString(std::wstring(request.id));
  }
  const std::wstring slow = table.GetString(h, L"IDS_SLOW_TIME", 
                                            L"(数据包 [%I64u_SNUM%] 与数据包 [%I64u_DNUM%] 相隔%d_SLOW%ms)", uint64_t{12},
                                            uint64_t{15}, 300);
  EXPECT_NE(slow.find(L"12"), std::wstring::npos);
  EXPECT_NE(slow.find(L"15"), std::wstring::npos);
  EXPECT_NE(slow.find(L"300"), std::wstring::npos);
  EXPECT_EQ(slow.find(L'%'), std::wstring::npos);
  EXPECT_NE(slow[0], L'#');
  const std::wstring number = table.GetString(h, L"IDS_PACKET_NUMBER", L" (数据包序号 [%I64u_NUM%])", uint64_t{7});
  EXPECT_EQ(number.substr(0, 2), L" (") << "the leading space is kept";
}

INSTANTIATE_TEST_SUITE_P(Languages, ShippedTable, testing::Values("en", "zh"));

TEST(ShippedTables, ChineseRepeatsTheDefaultsAndEnglishTranslates) {
  std::map<std::wstring, std::wstring> zh;
  std::map<std::wstring, std::wstring> en;
  for (auto& [id, text] : ReadEntries(ResourceDir("zh") / "PelkaEmailRes.cst")) zh[id] = text;
  for (auto& [id, text] : ReadEntries(ResourceDir("en") / "PelkaEmailRes.cst")) en[id] = text;
  for (const TextRequest& request : ModuleTexts()) {
    const std::wstring id = request.id;
    // The double space of the built-in SMTP title is not copied into tables.
    const std::wstring expected =
        id == L"IDS_SMTP_SLOW_RESP" ? L"SMTP Server Slow Response" : std::wstring(request.default_text);
    EXPECT_EQ(zh[id], expected) << testing::PrintToString(id);
    for (wchar_t c : en[id]) EXPECT_LT(c, 0x80) << testing::PrintToString(id) << " is not English";
  }
  EXPECT_EQ(en[L"IDS_EMAIL_LOG"], L"Email Log");
  EXPECT_EQ(en[L"IDS_SMTP_RETURN_ERROR_PKT"].rfind(L"SMTP", 0), 0u);
}

TEST(ShippedTables, IconIsAValidIconFile) {
  std::ifstream in(std::filesystem::path(PELKA_SOURCE_DIR) / "resources" / "email.ico", std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_GE(bytes.size(), 22u);
  auto u16 = [&](size_t at) { return uint16_t(uint8_t(bytes[at]) | uint8_t(bytes[at + 1]) << 8); };
  auto u32 = [&](size_t at) { return uint32_t(u16(at)) | uint32_t(u16(at + 2)) << 16; };
  EXPECT_EQ(u16(0), 0);  // reserved
  EXPECT_EQ(u16(2), 1);  // icon
  ASSERT_GE(u16(4), 1);  // images
  const uint32_t size = u32(6 + 8);
  const uint32_t offset = u32(6 + 12);
  EXPECT_EQ(uint64_t{offset} + size, bytes.size());
  EXPECT_EQ(u32(offset), 40u);  // the image's bitmap header
}

}  // namespace
}  // namespace pelka
