#include "capture/ReadOnlyDatabase.h"

#include <sqlite3.h>
#include <sys/stat.h>

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

namespace {

sqlite3* OpenWith(const std::string& uri) {
  sqlite3* db = nullptr;
  const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOFOLLOW;
  if (sqlite3_open_v2(uri.c_str(), &db, flags, nullptr) == SQLITE_OK) return db;
  sqlite3_close_v2(db);
  return nullptr;
}

// Opening reads nothing yet: a first query tells whether the log can be used.
bool Readable(sqlite3* db) {
  return sqlite3_exec(db, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr) == SQLITE_OK;
}

}  // namespace

sqlite3* OpenReadOnlyDatabase(const std::string& path) {
  struct stat log {};
  if (::lstat((path + "-wal").c_str(), &log) == 0 && S_ISREG(log.st_mode)) {
    std::string uri = ReadOnlyDatabaseUri(path);
    uri.replace(uri.rfind('?'), std::string::npos, "?mode=ro");
    if (sqlite3* db = OpenWith(uri); db && Readable(db)) return db;
    else sqlite3_close_v2(db);
  }
  return OpenWith(ReadOnlyDatabaseUri(path));
}

}  // namespace pelka
