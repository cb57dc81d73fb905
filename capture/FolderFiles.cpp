#include "capture/FolderFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace pelka {

int OpenFolder(int parent_fd, const char* name) {
  return ::openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

int MakeFolder(int parent_fd, const char* name, mode_t mode) {
  if (::mkdirat(parent_fd, name, mode) != 0 && errno != EEXIST) return -1;
  return OpenFolder(parent_fd, name);
}

std::vector<std::string> FolderEntryNames(int folder_fd) {
  std::vector<std::string> names;
  const int fd = OpenFolder(folder_fd, ".");
  if (fd < 0) return names;
  DIR* dir = ::fdopendir(fd);
  if (!dir) {
    ::close(fd);
    return names;
  }
  while (const dirent* entry = ::readdir(dir))
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names.emplace_back(entry->d_name);
  ::closedir(dir);
  return names;
}

std::string FolderProblem(const char* what, const std::string& path, int code) {
  if (code == ELOOP || code == ENOTDIR)
    return std::string(what) + " " + path +
           " is a symbolic link or not a directory; remove it or choose another output folder";
  return std::string("cannot make or open ") + what + " " + path + ": " + std::strerror(code);
}

int OpenOutputSubfolder(const std::string& out_dir, const char* name, const char* what, bool* made,
                        std::string* error) {
  const std::string folder = out_dir + name + "/";
  const int out_fd = ::open(out_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (out_fd < 0) {
    *error = FolderProblem(what, folder, errno);
    return -1;
  }
  *made = ::mkdirat(out_fd, name, 0750) == 0;
  const int folder_fd = *made || errno == EEXIST ? OpenFolder(out_fd, name) : -1;
  const int code = errno;
  ::close(out_fd);
  if (folder_fd < 0) *error = FolderProblem(what, folder, code);
  return folder_fd;
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
