// The ".eml" copies of finished messages.
//
// When the host's "Email Copy" storage is switched on and the email log is
// saving, SaveEmailCopy (output/EmailRecordWriter.h) writes every finished message, byte for byte as collected, to
//   <storage root><copy folder>/<local time "%Y-%m-%d %H.%M.%S">.<microseconds>.eml
// and leaves that path in the context's copy_path for the email record. The
// storage root comes from the host and ends with a separator; root and folder
// are joined as they are.
//
// Paths are wide texts; on this platform they name files in UTF-8 and the
// separator is '/'.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace pelka {

// The separator between the copy folder and the file name.
constexpr wchar_t kPathSeparator = L'/';

// Longest directory path CreateDirectoryPath will create, in wide characters.
constexpr size_t kMaxDirectoryPath = 260;

// Local time of whole seconds since 1970 as "%Y-%m-%d %H.%M.%S"; empty when
// the time cannot be converted.
std::wstring FormatCopyTimeText(uint64_t seconds);

// The copy file name for a packet time in microseconds: the time text of its
// whole seconds, a dot, the microseconds in plain decimal, ".eml".
std::wstring MakeCopyFileName(std::wstring_view time_text, uint64_t microseconds);

// Creates the directory and every missing directory above it. Failures are
// ignored: the caller finds out when it opens a file there.
//
// The text is trimmed of white space; an empty text or one longer than
// kMaxDirectoryPath is left alone. Backslashes count as separators. Accepted
// roots: "/" (absolute), a drive form ("D:/...") and a network form ("//host/
// share/..."); any other text is left alone, as is a path that already exists.
// The walk stops at the first empty path component.
void CreateDirectoryPath(std::wstring_view path);

}  // namespace pelka
