// A finished run's emails.sqlite opened to be read: read-only and without
// locks (an immutable file), so that reading it writes nothing beside it,
// not even the journal files a write-ahead-log database would otherwise get.
#pragma once

#include <string>

struct sqlite3;

namespace pelka {

// The URI that opens `path` so (sqlite3_open_v2 with SQLITE_OPEN_URI, or
// ATTACH on a connection opened with it).
std::string ReadOnlyDatabaseUri(const std::string& path);

// Opens `path` read-only; nullptr when it cannot be. Close with sqlite3_close_v2.
sqlite3* OpenReadOnlyDatabase(const std::string& path);

}  // namespace pelka
