#include "capture/OutputLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace pelka {
namespace {

// The pid the owner wrote, or "unknown" while it has not written it yet.
std::string OwnerPid(int fd) {
  char text[32] = {};
  const ssize_t length = ::pread(fd, text, sizeof text - 1, 0);
  std::string_view pid(text, length > 0 ? static_cast<size_t>(length) : 0);
  while (!pid.empty() && (pid.back() == '\n' || pid.back() == ' ')) pid.remove_suffix(1);
  if (pid.empty() || pid.find_first_not_of("0123456789") != std::string_view::npos) return "unknown";
  return std::string(pid);
}

// Whether the descriptor still is the file at `path`: a run that ends removes
// the file, and a lock taken on a removed file keeps nobody out.
bool StillThere(int fd, const std::string& path) {
  struct stat held {}, named {};
  return ::fstat(fd, &held) == 0 && ::lstat(path.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
         held.st_ino == named.st_ino;
}

}  // namespace

std::unique_ptr<OutputLock> OutputLock::Take(const std::string& out_dir, std::string* error) {
  const std::string path = out_dir + kFileName;
  for (;;) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0640);
    if (fd < 0) {
      *error = "cannot make the lock file " + path + ": " + std::strerror(errno);
      return nullptr;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
      ::close(fd);
      *error = "the lock file " + path + " is not a regular file; remove it";
      return nullptr;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      const int code = errno;
      const std::string pid = code == EWOULDBLOCK ? OwnerPid(fd) : std::string();
      ::close(fd);
      *error = code == EWOULDBLOCK ? "the output folder " + out_dir + " is in use by another run (pid " + pid +
                                         "); wait for it to end or choose another folder with -o"
                                   : "cannot lock " + path + ": " + std::strerror(code);
      return nullptr;
    }
    if (!StillThere(fd, path)) {
      ::close(fd);
      continue;
    }
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
      *error = "cannot write the lock file " + path + ": " + std::strerror(errno);
      ::unlink(path.c_str());
      ::close(fd);
      return nullptr;
    }
    return std::unique_ptr<OutputLock>(new OutputLock(path, fd));
  }
}

OutputLock::~OutputLock() {
  // Removed while still held, so that no other run locks the old file.
  ::unlink(path_.c_str());
  ::close(fd_);
}

bool OutputLock::GiveTo(uid_t uid, gid_t gid, std::string* error) {
  struct stat info {};
  if (::fstat(fd_, &info) != 0 || info.st_uid != ::geteuid()) return true;
  if (::fchown(fd_, uid, gid) == 0) return true;
  *error = "cannot give the lock file " + path_ + " to the user: " + std::strerror(errno);
  return false;
}

}  // namespace pelka
