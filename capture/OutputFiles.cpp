#include "capture/OutputFiles.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "host/CodePage.h"

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
  return WriteLocked(text);
}

bool OutputFile::WriteLocked(std::string_view text) {
  if (!file_ || !error_.empty()) return false;
  pending_.append(text);
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
  line_.assign(line);
  line_ += '\n';
  return WriteLocked(line_);
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

void AppendJsonString(std::string& out, std::string_view utf8) {
  static const char kHex[] = "0123456789abcdef";
  out += '"';
  for (const char c : utf8) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '"': out += "\\\""; continue;
      case '\\': out += "\\\\"; continue;
      case '\n': out += "\\n"; continue;
      case '\r': out += "\\r"; continue;
      case '\t': out += "\\t"; continue;
      default: break;
    }
    if (byte < 0x20 || byte == 0x7F) {
      out += "\\u00";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xF];
      continue;
    }
    out += c;
  }
  out += '"';
}

std::string FormatDouble(double value) {
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  std::string text(buffer, result.ptr);
  // Integral values keep a fraction so that readers see a floating value.
  if (text.find_first_of(".eEn") == std::string::npos) text += ".0";
  return text;
}

void JsonObjectLine::Key(std::string_view key) {
  if (text_.size() > 1) text_ += ", ";
  AppendJsonString(text_, key);
  text_ += ": ";
}

JsonObjectLine& JsonObjectLine::Text(std::string_view key, std::string_view utf8) {
  Key(key);
  AppendJsonString(text_, utf8);
  return *this;
}

JsonObjectLine& JsonObjectLine::Text(std::string_view key, std::wstring_view text) {
  return Text(key, std::string_view(WideToUtf8(text)));
}

JsonObjectLine& JsonObjectLine::Number(std::string_view key, uint64_t value) {
  Key(key);
  text_ += std::to_string(value);
  return *this;
}

JsonObjectLine& JsonObjectLine::SignedNumber(std::string_view key, int64_t value) {
  Key(key);
  text_ += std::to_string(value);
  return *this;
}

JsonObjectLine& JsonObjectLine::Double(std::string_view key, double value) {
  Key(key);
  text_ += std::isfinite(value) ? FormatDouble(value) : std::string("null");
  return *this;
}

JsonObjectLine& JsonObjectLine::Raw(std::string_view key, std::string_view json) {
  Key(key);
  text_ += json;
  return *this;
}

const std::string& JsonObjectLine::Finish() {
  if (!finished_) text_ += '}';
  finished_ = true;
  return text_;
}

}  // namespace pelka
