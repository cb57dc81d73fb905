#include "capture/ReadOnlyDatabase.h"

#include <sqlite3.h>

#include <cctype>
#include <cstdio>
#include <filesystem>

namespace pelka {

std::string ReadOnlyDatabaseUri(const std::string& path) {
  std::string uri = "file:";
  for (const unsigned char c : std::filesystem::absolute(path).string()) {
    if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
      uri += static_cast<char>(c);
    } else {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02X", c);
      uri += escaped;
    }
  }
  return uri + "?immutable=1";
}

sqlite3* OpenReadOnlyDatabase(const std::string& path) {
  sqlite3* db = nullptr;
  const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOFOLLOW;
  if (sqlite3_open_v2(ReadOnlyDatabaseUri(path).c_str(), &db, flags, nullptr) == SQLITE_OK) return db;
  sqlite3_close_v2(db);
  return nullptr;
}

}  // namespace pelka
