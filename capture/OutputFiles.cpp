#include "capture/OutputFiles.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace pelka {

std::string PrepareOutputDirectory(const std::string& directory) {
  if (directory.empty()) return "no output directory given";
  std::error_code error;
  const std::filesystem::path path(directory);
  std::filesystem::create_directories(path, error);
  if (error) return "cannot create output directory " + directory + ": " + error.message();
  if (!std::filesystem::is_directory(path, error)) return "output path " + directory + " is not a directory";
  // Root may pass access() where nothing can be created (read-only mount);
  // the open of the first file reports that case.
  if (::access(directory.c_str(), W_OK | X_OK) != 0)
    return "output directory " + directory + " is not writable: " + std::strerror(errno);
  return {};
}

std::string AbsoluteDirectory(const std::string& directory) {
  std::error_code error;
  std::filesystem::path path = std::filesystem::absolute(directory, error);
  if (error) path = directory;
  std::string text = path.lexically_normal().string();
  if (text.empty() || text.back() != '/') text += '/';
  return text;
}

OutputFile::~OutputFile() { Close(); }

bool OutputFile::Open(const std::string& path) {
  const std::lock_guard<std::mutex> lock(mutex_);
  CloseLocked();
  path_ = path;
  error_.clear();
  failed_.store(false);
  lines_.store(0);
  complete_bytes_ = 0;
  pending_.clear();
  pending_lines_ = 0;
  last_flush_ = std::chrono::steady_clock::now();
  // A symbolic link planted where an output file goes is refused: a run
  // started as root must not write through it to a file outside the folder.
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (descriptor < 0) {
    Fail(errno == ELOOP ? "refusing to write through the symbolic link" : "cannot create");
    return false;
  }
  file_ = ::fdopen(descriptor, "wb");
  if (!file_) {
    Fail("cannot create");
    ::close(descriptor);
    return false;
  }
  return true;
}

void OutputFile::Fail(const char* what) {
  if (!error_.empty()) return;
  const int code = errno;
  error_ = std::string(what) + " " + path_ + (code ? std::string(": ") + std::strerror(code) : std::string());
  failed_.store(true, std::memory_order_release);
}

bool OutputFile::Write(std::string_view text) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return WriteLocked(text, false);
}

bool OutputFile::WriteLocked(std::string_view text, bool add_line_end) {
  if (!file_ || !error_.empty()) return false;
  pending_.append(text);
  if (add_line_end) pending_ += '\n';
  ++pending_lines_;
  const auto now = std::chrono::steady_clock::now();
  if (each_line_ || pending_.size() >= kFlushBytes || now - last_flush_ >= kFlushInterval) return FlushLocked();
  return true;
}

bool OutputFile::Flush() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return FlushLocked();
}

bool OutputFile::FlushLocked() {
  last_flush_ = std::chrono::steady_clock::now();
  if (!file_ || !error_.empty()) return false;
  if (pending_.empty()) return true;
  errno = 0;
  if (std::fwrite(pending_.data(), 1, pending_.size(), file_) != pending_.size() || std::fflush(file_) != 0) {
    Fail("cannot write");
    DropPartialLine();
    pending_.clear();
    pending_lines_ = 0;
    return false;
  }
  complete_bytes_ += pending_.size();
  lines_.fetch_add(pending_lines_, std::memory_order_relaxed);
  pending_.clear();
  pending_lines_ = 0;
  return true;
}

void OutputFile::DropPartialLine() {
  // Whatever part of the failed line reached the file is cut off again, and
  // what stdio still holds is discarded, so the file ends with a whole line.
  const int saved_errno = errno;
  __fpurge(file_);
  if (::ftruncate(::fileno(file_), static_cast<off_t>(complete_bytes_)) != 0) {
    // A device such as /dev/full has no length to cut; nothing reached it.
  }
  errno = saved_errno;
}

bool OutputFile::WriteLine(std::string_view line) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return WriteLocked(line, true);
}

bool OutputFile::Close() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return CloseLocked();
}

bool OutputFile::CloseLocked() {
  if (!file_) return error_.empty();
  FlushLocked();
  errno = 0;
  if (std::fclose(file_) != 0) Fail("cannot close");
  file_ = nullptr;
  return error_.empty();
}

}  // namespace pelka
