#include "capture/AttachmentStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "capture/FolderFiles.h"

namespace pelka {
namespace {

constexpr char kTemporaryPrefix[] = ".partial-";

// Only a hash is ever a name here; anything else would be a path from the
// caller's mistake.
bool IsSha256Hex(std::string_view name) {
  return name.size() == 64 && name.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// Writes all of `content`, going on after short writes and signals.
bool WriteAll(int fd, std::span<const char> content) {
  while (!content.empty()) {
    const ssize_t written = ::write(fd, content.data(), content.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    content = content.subspan(static_cast<size_t>(written));
  }
  return true;
}

// Removes the temporary files a run stopped while writing left behind.
void RemovePartials(int folder_fd) {
  for (const std::string& name : FolderEntryNames(folder_fd))
    if (name.starts_with(kTemporaryPrefix)) ::unlinkat(folder_fd, name.c_str(), 0);
}

}  // namespace

std::unique_ptr<AttachmentStore> AttachmentStore::Open(const std::string& out_dir, std::string* error) {
  bool made = false;
  const int folder_fd = OpenOutputSubfolder(out_dir, kFolder, "the attachment folder", &made, error);
  if (folder_fd < 0) return nullptr;
  // The output folder is this run's alone (capture/OutputLock.h): a partial
  // file is never another run's work in progress.
  if (!made) RemovePartials(folder_fd);
  return std::unique_ptr<AttachmentStore>(new AttachmentStore(out_dir + kFolder + "/", folder_fd, made));
}

AttachmentStore::AttachmentStore(std::string folder, int folder_fd, bool made)
    : folder_(std::move(folder)), folder_fd_(folder_fd), made_(made) {}

AttachmentStore::~AttachmentStore() {
  ::close(folder_fd_);
  // Fails, as it should, when anything is in it.
  if (made_) ::rmdir(folder_.c_str());
}

std::string AttachmentStore::Store(const std::string& sha256, std::span<const char> content) {
  if (!IsSha256Hex(sha256)) return Fail("an attachment was given the name \"" + sha256 + "\", not a hash", 0);
  const std::string path = std::string(kFolder) + "/" + sha256;
  struct stat info {};
  if (::fstatat(folder_fd_, sha256.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) return Fail("cannot look for the attachment " + folder_ + sha256, errno);
    if (WriteNew(sha256, content)) {
      stored_.fetch_add(1, std::memory_order_relaxed);
      return path;
    }
    if (errno != EEXIST) return Fail("cannot write the attachment " + folder_ + sha256, errno);
    // Another thread stored the same file meanwhile.
    if (::fstatat(folder_fd_, sha256.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
      return Fail("cannot look for the attachment " + folder_ + sha256, errno);
  }
  if (!S_ISREG(info.st_mode)) return Fail("something other than a file is in place of " + folder_ + sha256, 0);
  duplicates_.fetch_add(1, std::memory_order_relaxed);
  return path;
}

bool AttachmentStore::WriteNew(const std::string& name, std::span<const char> content) {
  const int fd = ::openat(folder_fd_, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
  if (fd < 0) {
    // A file system that makes no unnamed files.
    if (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL) return WriteThroughTemporary(name, content);
    if (errno == EEXIST) errno = EBUSY;  // EEXIST would say the attachment is there
    return false;
  }
  bool done = WriteAll(fd, content);
  int code = errno;
  if (done) {
    // Giving the whole file its name is the last step, and never replaces:
    // EEXIST when the name was taken meanwhile.
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    done = ::linkat(AT_FDCWD, self.c_str(), folder_fd_, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
    code = errno;
  }
  ::close(fd);
  // Without /proc the file cannot be named this way.
  if (!done && code == ENOENT) return WriteThroughTemporary(name, content);
  errno = code;
  return done;
}

bool AttachmentStore::WriteThroughTemporary(const std::string& name, std::span<const char> content) {
  const std::string temporary =
      kTemporaryPrefix + std::to_string(::getpid()) + "-" +
      std::to_string(temporaries_.fetch_add(1, std::memory_order_relaxed));
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  int fd = ::openat(folder_fd_, temporary.c_str(), kFlags, 0600);
  // What an interrupted run of the same process number left behind.
  if (fd < 0 && errno == EEXIST && ::unlinkat(folder_fd_, temporary.c_str(), 0) == 0)
    fd = ::openat(folder_fd_, temporary.c_str(), kFlags, 0600);
  if (fd < 0) {
    if (errno == EEXIST) errno = EBUSY;  // EEXIST would say the attachment is there
    return false;
  }
  const bool written = WriteAll(fd, content);
  int code = errno;
  const bool closed = ::close(fd) == 0;
  if (written && !closed) code = errno;
  if (written && closed) {
    if (MoveNoReplace(folder_fd_, temporary.c_str(), folder_fd_, name.c_str())) return true;
    code = errno;
  }
  ::unlinkat(folder_fd_, temporary.c_str(), 0);
  errno = code;
  return false;
}

std::string AttachmentStore::Fail(const std::string& what, int code) {
  failures_.fetch_add(1, std::memory_order_relaxed);
  const std::lock_guard<std::mutex> lock(failure_mutex_);
  if (first_failure_.empty()) first_failure_ = what + (code ? std::string(": ") + std::strerror(code) : "");
  return {};
}

std::string AttachmentStore::first_failure() const {
  const std::lock_guard<std::mutex> lock(failure_mutex_);
  return first_failure_;
}

bool AttachmentStore::GiveTo(uid_t uid, gid_t gid, std::string* error) {
  struct stat info {};
  // A folder that existed before, someone else's, stays as it is.
  if (::fstat(folder_fd_, &info) != 0 || info.st_uid != ::geteuid()) return true;
  if (::fchown(folder_fd_, uid, gid) == 0) return true;
  *error = "cannot give the attachment folder " + folder_ + " to the user: " + std::strerror(errno);
  return false;
}

bool AttachmentStore::Writable(std::string* error) const {
  if (::faccessat(folder_fd_, ".", W_OK | X_OK, AT_EACCESS) == 0) return true;
  *error = "the attachment folder " + folder_ + " is not writable: " + std::strerror(errno);
  return false;
}

}  // namespace pelka
