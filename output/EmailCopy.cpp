#include "output/EmailCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <cwchar>
#include <cwctype>

#include "flow/EmailFlowData.h"
#include "host/AsciiText.h"
#include "host/CodePage.h"
#include "host/LogInterfaces.h"
#include "host/Types.h"
#include "output/EmailRecordWriter.h"

namespace pelka {
namespace {

constexpr size_t kTimeTextCapacity = 192;
// Storage kinds are registered "log_email" first, then "email_copy".
constexpr int32_t kCopyStorageIndex = 1;

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

// The copy folder below the storage root, ending with a separator; empty when
// the host wants no copy of this message.
std::wstring CopyFolderPath(IPelkaLogService* service, IPelkaLog* log, const PacketRecord* packet) {
  if (!packet || !service || !log) return {};
  if (log->GetSaveMode() != kLogSaveModeSaving) return {};
  IPelkaLogStorage* storage = log->GetStorage(kCopyStorageIndex);
  if (!storage || !storage->IsStorageEnabled()) return {};
  const wchar_t* root = nullptr;
  if (service->GetStorageRoot(&root) != 0) return {};

  std::wstring folder = root ? root : L"";
  if (const char* name = storage->GetFolderName()) {
    // Backslashes in the folder name become separators, so that the file is
    // opened in the directory CreateDirectoryPath makes for it.
    std::wstring wide_name = AnsiToWide(name);
    std::replace(wide_name.begin(), wide_name.end(), L'\\', kPathSeparator);
    folder += wide_name;
  }
  folder += kPathSeparator;
  return folder;
}

}  // namespace

std::wstring FormatCopyTimeText(uint64_t seconds) {
  const time_t time = static_cast<time_t>(seconds);
  struct tm local {};
  if (!::localtime_r(&time, &local)) return {};
  wchar_t buffer[kTimeTextCapacity];
  const size_t length = std::wcsftime(buffer, kTimeTextCapacity, L"%Y-%m-%d %H.%M.%S", &local);
  return std::wstring(buffer, length);
}

std::wstring MakeCopyFileName(std::wstring_view time_text, uint64_t microseconds) {
  std::wstring name(time_text);
  name += L'.';
  name += std::to_wstring(static_cast<uint32_t>(microseconds % kMicrosecondsPerSecond));
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

namespace {

// An existing file of the same name (same microsecond) is replaced; a
// symbolic link in its place is refused rather than followed, so that a link
// planted in the copy folder cannot send a message elsewhere.
FILE* OpenCopyFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  FILE* file = ::fdopen(fd, "w+b");
  if (!file) ::close(fd);
  return file;
}

}  // namespace

void CEmailRecordWriter::SaveEmailCopy(CEmailFlowContext* context, const PacketRecord* packet) {
  if (!context) return;
  context->copy_path = CopyFolderPath(log_service_, email_log_, packet);
  if (context->copy_path.empty()) return;

  CreateDirectoryPath(context->copy_path);
  const uint64_t time = GetPacketTime(packet);
  // Flows may be handled on several threads: the time text stays local.
  context->copy_path += MakeCopyFileName(FormatCopyTimeText(time / kMicrosecondsPerSecond), time);

  if (context->copy_file) std::fclose(context->copy_file);
  context->copy_file = OpenCopyFile(NativePath(context->copy_path));
  if (!context->copy_file) return;
  CEmailFlowDataImpl* data = context->flow_data.get();
  const uint32_t length = data ? data->GetLength() : 0;
  const uint8_t* bytes = length ? data->GetBuffer(0, length) : nullptr;
  if (bytes) std::fwrite(bytes, 1, length, context->copy_file);
  std::fclose(context->copy_file);
  context->copy_file = nullptr;
}

}  // namespace pelka
