#include "capture/OutputFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
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

namespace {

// What stands where an output file goes, when it is not a regular file, is
// refused, without blocking: a symbolic link (a run started as root must not
// write through it to a file outside the folder), a FIFO (which would hold
// the run until someone reads it), a device (which would swallow the lines).
// -1 with errno set (ELOOP for a link, ENXIO for a FIFO nobody reads, EISDIR,
// or EINVAL for a FIFO, device or socket opened nonetheless).
int OpenRegularFile(const std::string& path) {
  const int descriptor =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0640);
  if (descriptor < 0) return -1;
  struct stat info {};
  if (::fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(descriptor);
    errno = EINVAL;
    return -1;
  }
  // A file of an earlier run loses what a new one would not have (the umask
  // applies to a new one already).
  if (info.st_uid == ::geteuid() && (info.st_mode & 07777 & ~0640) != 0) ::fchmod(descriptor, info.st_mode & 0640);
  ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~O_NONBLOCK);
  return descriptor;
}

const char* OpenProblem(int code) {
  switch (code) {
    case ELOOP: return "refusing to write through the symbolic link";
    case ENXIO:
    case EINVAL: return "refusing to write to the FIFO, device or socket";
    default: return "cannot create";
  }
}

// The line ends in `text`, found with memchr: every byte the program writes
// passes here, and a plain byte loop showed in its profile.
uint64_t CountLineEnds(std::string_view text) {
  uint64_t count = 0;
  const char* at = text.data();
  const char* const end = at + text.size();
  while (at < end) {
    const void* found = std::memchr(at, '\n', static_cast<size_t>(end - at));
    if (!found) break;
    ++count;
    at = static_cast<const char*>(found) + 1;
  }
  return count;
}

}  // namespace

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
  const int descriptor = OpenRegularFile(path);
  if (descriptor < 0) {
    const char* problem = OpenProblem(errno);
    if (errno == ENXIO || errno == EINVAL) errno = 0;
    Fail(problem);
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

bool OutputFile::GiveTo(uid_t uid, gid_t gid) {
  const std::lock_guard<std::mutex> lock(mutex_);
  struct stat info {};
  if (!file_ || ::fstat(::fileno(file_), &info) != 0 || info.st_uid != ::geteuid()) return true;
  if (::fchown(::fileno(file_), uid, gid) == 0) return true;
  Fail("cannot give the user");
  return false;
}

void OutputFile::Fail(const char* what) {
  if (!error_.empty()) return;
  const int code = errno;
  error_ = std::string(what) + " " + path_ + (code ? std::string(": ") + std::strerror(code) : std::string());
  failed_.store(true, std::memory_order_release);
  if (shared_failure_) shared_failure_->store(true, std::memory_order_release);
}

bool OutputFile::Write(std::string_view text) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return WriteLocked(text, false);
}

bool OutputFile::WriteLocked(std::string_view text, bool add_line_end) {
  const uint64_t lines = CountLineEnds(text) + (add_line_end ? 1 : 0);
  if (!file_) return false;
  if (!error_.empty()) {
    lines_lost_.fetch_add(lines, std::memory_order_relaxed);
    return false;
  }
  pending_.append(text);
  if (add_line_end) pending_ += '\n';
  pending_lines_ += lines;
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
  const size_t written = WritePending();
  const bool complete = written == pending_.size();
  // On a full disk the lines that fit stay; the rest are lost and counted.
  const size_t kept = complete ? written : (written == 0 ? 0 : pending_.rfind('\n', written - 1) + 1);
  const uint64_t kept_lines = complete ? pending_lines_ : CountLineEnds(std::string_view(pending_).substr(0, kept));
  complete_bytes_ += kept;
  lines_.fetch_add(kept_lines, std::memory_order_relaxed);
  if (!complete) {
    if (errno == 0) errno = ENOSPC;  // a write that took nothing without saying why
    Fail("cannot write");
    DropPartialLine();
    lines_lost_.fetch_add(pending_lines_ - kept_lines, std::memory_order_relaxed);
  }
  pending_.clear();
  pending_lines_ = 0;
  return complete;
}

size_t OutputFile::WritePending() {
  // Straight to the descriptor: a short write then says how much reached the
  // file, which stdio would not tell.
  const int descriptor = ::fileno(file_);
  size_t written = 0;
  while (written < pending_.size()) {
    const ssize_t n = ::write(descriptor, pending_.data() + written, pending_.size() - written);
    if (n > 0) {
      written += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      break;
    }
  }
  return written;
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
