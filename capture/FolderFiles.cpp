#include "capture/FolderFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace pelka {

int OpenFolder(int parent_fd, const char* name) {
  return ::openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

int MakeFolder(int parent_fd, const char* name, mode_t mode) {
  if (::mkdirat(parent_fd, name, mode) != 0 && errno != EEXIST) return -1;
  return OpenFolder(parent_fd, name);
}

bool MoveNoReplace(int from_fd, const char* from, int to_fd, const char* to) {
  if (::renameat2(from_fd, from, to_fd, to, RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  // A file system without that kind of rename: a link never replaces either.
  if (::linkat(from_fd, from, to_fd, to, 0) != 0) return false;
  ::unlinkat(from_fd, from, 0);
  return true;
}

}  // namespace pelka
