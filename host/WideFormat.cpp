#include "host/WideFormat.h"

#include <cwchar>
#include <vector>

namespace pelka {
namespace {

bool IsFlagChar(wchar_t c) {
  return c == L'-' || c == L'+' || c == L' ' || c == L'#' || c == L'0';
}

bool IsDigit(wchar_t c) { return c >= L'0' && c <= L'9'; }

// Copies flags, width and precision of one conversion starting at `p` and
// returns the position of the length modifier or conversion character.
const wchar_t* CopyFlagsWidthPrecision(const wchar_t* p, std::wstring& out) {
  while (*p && IsFlagChar(*p)) out += *p++;
  while (*p && (IsDigit(*p) || *p == L'*')) out += *p++;
  if (*p == L'.') {
    out += *p++;
    while (*p && (IsDigit(*p) || *p == L'*')) out += *p++;
  }
  return p;
}

}  // namespace

std::wstring TranslateWideFormat(const wchar_t* format) {
  std::wstring out;
  if (!format) return out;
  const wchar_t* p = format;
  while (*p) {
    if (*p != L'%') {
      out += *p++;
      continue;
    }
    out += *p++;
    if (*p == L'%') {
      out += *p++;
      continue;
    }
    p = CopyFlagsWidthPrecision(p, out);
    if (p[0] == L'I' && p[1] == L'6' && p[2] == L'4') {
      out += L"ll";
      p += 3;
    } else if (p[0] == L'I' && p[1] == L'3' && p[2] == L'2') {
      p += 3;
    } else if (*p == L'h' && (p[1] == L's' || p[1] == L'c')) {
      // "%hs" is a narrow string on both platforms.
      out += *p++;
      continue;
    }
    if (*p == L's' || *p == L'c') {
      // Without a length modifier the Windows wide functions take wide text.
      if (out.back() != L'l') out += L'l';
    }
    if (*p) out += *p++;
  }
  return out;
}

std::wstring FormatWideV(const wchar_t* format, va_list args) {
  const std::wstring posix = TranslateWideFormat(format);
  std::vector<wchar_t> buffer(256);
  for (;;) {
    va_list copy;
    va_copy(copy, args);
    const int written = std::vswprintf(buffer.data(), buffer.size(), posix.c_str(), copy);
    va_end(copy);
    if (written >= 0) return std::wstring(buffer.data(), static_cast<size_t>(written));
    // vswprintf does not tell the size it needs; grow until it fits, and give
    // up on formats that fail for another reason.
    if (buffer.size() >= (1u << 24)) return std::wstring();
    buffer.resize(buffer.size() * 4);
  }
}

std::wstring FormatWide(const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  std::wstring result = FormatWideV(format, args);
  va_end(args);
  return result;
}

}  // namespace pelka
