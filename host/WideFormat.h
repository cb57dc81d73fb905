// Wide printf-style formatting with Windows printf semantics, which the
// module's texts are written for: in a wide format "%s" takes a wide string, "%c" a wide
// character, and "I64" is the 64-bit length modifier ("%I64d", "%I64u",
// "%I64x"). The format is rewritten to the POSIX forms (%ls, %lc, %lld, ...)
// before formatting; the arguments must match the Windows meaning.
#pragma once

#include <cstdarg>
#include <string>

namespace pelka {

// Rewrites a format with Windows meanings to the POSIX wide-printf form.
std::wstring TranslateWideFormat(const wchar_t* format);

// Formats into a new string. A format error gives the empty string.
std::wstring FormatWide(const wchar_t* format, ...);
std::wstring FormatWideV(const wchar_t* format, va_list args);

}  // namespace pelka
