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
// A write-ahead log beside the file means a connection still writes it (the
// run's own, building its indices) or a run ended without closing it: the
// file is then read through the log, which holds its last rows, so that
// reading sees everything committed. Where that cannot be (a folder the
// reader may not write), it is read as immutable.
sqlite3* OpenReadOnlyDatabase(const std::string& path);

}  // namespace pelka
