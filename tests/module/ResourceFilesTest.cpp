// The shipped string tables.
#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "host/XmlParser.h"
#include "module/Placeholders.h"
#include "module/ResStringTable.h"

namespace pelka {
namespace {

// Every identifier the module asks for.
const std::set<std::wstring> kModuleIds = {
    L"IDS_ACCOUNT", L"IDS_ADDITIONAL", L"IDS_AVG_SPEED", L"IDS_CLIENT", L"IDS_CLIENT_ADDR", L"IDS_CLIENT_MAC",
    L"IDS_CLIENT_PORT", L"IDS_COPYTO", L"IDS_DATE_TIME", L"IDS_DURATION_TIME", L"IDS_EMAIL_APP_ANA",
    L"IDS_EMAIL_CLIENT", L"IDS_EMAIL_COPY", L"IDS_EMAIL_INFO", L"IDS_EMAIL_LOG", L"IDS_EMAIL_MODULE",
    L"IDS_FILE_SIZE", L"IDS_IMAP4_CONN", L"IDS_MAIL_COPY_PATH", L"IDS_PACKET_NUMBER", L"IDS_POP3_CONN",
    L"IDS_POP3_DUBIOUS_CONV", L"IDS_POP3_NO", L"IDS_POP3_RETURN_ERROR", L"IDS_POP3_RETURN_ERROR_PKT",
    L"IDS_POP3_SLOW_RESP", L"IDS_PTL", L"IDS_RECEIVER", L"IDS_RECV_ADDR", L"IDS_RESP_TIME", L"IDS_SENDER",
    L"IDS_SEND_ADDR", L"IDS_SEND_TIME", L"IDS_SERVER", L"IDS_SERVER_ADDR", L"IDS_SERVER_MAC", L"IDS_SERVER_POT",
    L"IDS_SLOW_TIME", L"IDS_SMTP_CONN", L"IDS_SMTP_DUBIOUS_CONV", L"IDS_SMTP_NO", L"IDS_SMTP_RETURN_ERROR",
    L"IDS_SMTP_RETURN_ERROR_PKT", L"IDS_SMTP_SERVER_SLOW_RESP", L"IDS_SMTP_SLOW_RESP", L"IDS_SN", L"IDS_TITLE",
};

// The file's entries as written; a repeated id shows up as an empty map.
std::map<std::wstring, std::wstring> ReadEntries(const char* language) {
  std::map<std::wstring, std::wstring> entries;
  CTQXmlParser parser;
  const auto file = std::filesystem::path(PELKA_SOURCE_DIR) / "resources" / language / "PelkaEmailRes.cst";
  if (!parser.Load(file.wstring().c_str()) || !parser.FindElem(L"StringTable")) return {};
  parser.IntoElem();
  while (parser.FindElem(L"String")) {
    if (!entries.emplace(parser.GetAttrib(L"id"), parser.GetData()).second) return {};
  }
  return entries;
}

std::set<std::wstring> PlaceholderRuns(const std::wstring& text) {
  std::set<std::wstring> runs;
  for (const Placeholder& p : ScanPlaceholders(text)) runs.insert(p.text);
  return runs;
}

TEST(ShippedTables, HoldEveryModuleTextWithTheSamePlaceholders) {
  const auto zh = ReadEntries("zh");
  const auto en = ReadEntries("en");
  std::set<std::wstring> zh_ids, en_ids;
  for (const auto& [id, text] : zh) zh_ids.insert(id);
  for (const auto& [id, text] : en) en_ids.insert(id);
  EXPECT_EQ(zh_ids, kModuleIds);
  EXPECT_EQ(en_ids, kModuleIds);
  for (const auto& [id, text] : en) {
    EXPECT_EQ(PlaceholderRuns(text), PlaceholderRuns(zh.at(id))) << testing::PrintToString(id);
    for (wchar_t c : text) EXPECT_LT(c, 0x80) << testing::PrintToString(id) << " is not English";
  }
}

}  // namespace
}  // namespace pelka
