#include "output/EmailCopy.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <cwchar>
#include <cwctype>

#include "host/CodePage.h"

namespace pelka {
namespace {

constexpr size_t kTimeTextCapacity = 192;

std::wstring_view Trim(std::wstring_view text) {
  while (!text.empty() && std::iswspace(text.front())) text.remove_prefix(1);
  while (!text.empty() && std::iswspace(text.back())) text.remove_suffix(1);
  return text;
}

bool IsSeparator(wchar_t c) { return c == kPathSeparator; }

// Index of the separator that ends the path's root, or npos for a text whose
// root is not recognised.
size_t FindRootEnd(const std::wstring& path) {
  if (path.size() >= 2 && path[1] == L':') {
    if (path.size() <= 2) return std::wstring::npos;
    return path.find(kPathSeparator, 2);
  }
  if (path.size() >= 2 && IsSeparator(path[0]) && IsSeparator(path[1])) return 1;
  if (!path.empty() && IsSeparator(path[0])) return 0;
  return std::wstring::npos;
}

std::string NativePath(std::wstring_view path) { return WideToUtf8(path); }

bool PathExists(const std::wstring& path) { return ::access(NativePath(path).c_str(), F_OK) == 0; }

// An existing directory is no failure, and no failure is reported anyway.
void MakeOneDirectory(std::wstring_view path) { ::mkdir(NativePath(path).c_str(), 0777); }

}  // namespace

std::wstring FormatCopyTimeText(uint64_t seconds) {
  const time_t time = static_cast<time_t>(seconds);
  struct tm local {};
  if (!::localtime_r(&time, &local)) return {};
  wchar_t buffer[kTimeTextCapacity];
  const size_t length = std::wcsftime(buffer, kTimeTextCapacity, L"%Y-%m-%d %H.%M.%S", &local);
  return std::wstring(buffer, length);
}

std::wstring MakeCopyFileName(uint64_t microseconds) {
  std::wstring name = FormatCopyTimeText(microseconds / 1000000);
  name += L'.';
  name += std::to_wstring(static_cast<uint32_t>(microseconds % 1000000));
  name += L".eml";
  return name;
}

void CreateDirectoryPath(std::wstring_view text) {
  std::wstring path(Trim(text));
  if (path.empty() || path.size() > kMaxDirectoryPath) return;
  std::replace(path.begin(), path.end(), L'\\', kPathSeparator);

  const size_t root_end = FindRootEnd(path);
  if (root_end == std::wstring::npos) return;
  if (PathExists(path)) return;
  if (!IsSeparator(path.back())) path += kPathSeparator;

  // Each level in turn, up to and including its separator. An empty component
  // ("a//b") ends the walk; the last attempt below covers the whole path.
  size_t position = root_end;
  for (;;) {
    const size_t next = path.find(kPathSeparator, position + 1);
    if (next == std::wstring::npos || next == position + 1) break;
    MakeOneDirectory(std::wstring_view(path).substr(0, next + 1));
    position = next;
  }
  MakeOneDirectory(path);
}

}  // namespace pelka
