#include "capture/ReplacedFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace pelka {
namespace {

// Writes all of `text`; false on the first failure.
bool WriteAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace

bool ReplaceFile(const std::string& directory, const std::string& name, std::string_view text, std::string* error) {
  const std::string path = directory + name;
  const std::string temporary = directory + "." + name + ".new";
  // Whatever lies at the temporary name (a leftover, a planted link or FIFO)
  // goes first, so that the file is always made afresh.
  ::unlink(temporary.c_str());
  const int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (descriptor < 0) {
    *error = "cannot create " + temporary + ": " + std::strerror(errno);
    return false;
  }
  const bool written = WriteAll(descriptor, text);
  const int write_errno = errno;
  if (::close(descriptor) != 0 || !written) {
    *error = "cannot write " + path + ": " + std::strerror(written ? errno : write_errno);
    ::unlink(temporary.c_str());
    return false;
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) {
    *error = "cannot replace " + path + ": " + std::strerror(errno);
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace pelka
