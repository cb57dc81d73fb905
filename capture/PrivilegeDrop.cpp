#include "capture/PrivilegeDrop.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

namespace pelka {
namespace {

constexpr size_t kFirstPasswdBuffer = 4096;
constexpr size_t kLargestPasswdBuffer = 1 << 20;

std::string ErrnoText(int code) { return std::strerror(code); }

bool Fail(std::string* error, std::string text) {
  if (error) *error = std::move(text);
  return false;
}

// Closes a directory stream at the end of a scope.
struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

}  // namespace

std::optional<UserAccount> FindUser(const std::string& name, std::string* error) {
  std::vector<char> buffer(kFirstPasswdBuffer);
  passwd entry {};
  passwd* found = nullptr;
  for (;;) {
    const int code = ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (code == ERANGE && buffer.size() < kLargestPasswdBuffer) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (code != 0) {
      Fail(error, "--user " + name + ": cannot look the user up: " + ErrnoText(code));
      return std::nullopt;
    }
    break;
  }
  if (!found) {
    Fail(error, "--user " + name + ": no such user");
    return std::nullopt;
  }
  return UserAccount{name, entry.pw_uid, entry.pw_gid};
}

bool DropPrivileges(const UserAccount& account, std::string* error) {
  // Groups first: once the user is switched, the groups can no longer change.
  if (::initgroups(account.name.c_str(), account.gid) != 0)
    return Fail(error, "cannot take on the groups of user " + account.name + ": " + ErrnoText(errno));
  if (::setresgid(account.gid, account.gid, account.gid) != 0)
    return Fail(error, "cannot switch to group " + std::to_string(account.gid) + " of user " + account.name + ": " +
                           ErrnoText(errno));
  if (::setresuid(account.uid, account.uid, account.uid) != 0)
    return Fail(error, "cannot switch to user " + account.name + ": " + ErrnoText(errno));
  // A switch that can be undone protects nothing.
  if (::setuid(0) == 0 || ::geteuid() != account.uid || ::getegid() != account.gid)
    return Fail(error, "switched to user " + account.name + " but root could be regained; stopping");
  return true;
}

bool DropPrivileges(const std::string& user, std::string* error) {
  PrivilegeDrop drop(user, "");
  return drop.Check(error) && drop.Apply(error);
}

bool GiveDirectoryTo(const std::string& directory, const UserAccount& account, std::string* error) {
  const auto fail = [&](const std::string& what) {
    return Fail(error, "cannot give output directory " + directory + " to user " + account.name + ": " + what);
  };
  const int dir_fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dir_fd < 0) return fail(ErrnoText(errno));
  // The stream owns the descriptor from here on.
  std::unique_ptr<DIR, DirCloser> dir(::fdopendir(dir_fd));
  if (!dir) {
    const int code = errno;
    ::close(dir_fd);
    return fail(ErrnoText(code));
  }
  // Only what this process made is given away: a directory someone else put
  // in its place, or a link to a file elsewhere, is not.
  struct stat info {};
  if (::fstat(dir_fd, &info) != 0) return fail(ErrnoText(errno));
  if (info.st_uid != ::geteuid()) return fail("it was not made by this run");
  if (::fchown(dir_fd, account.uid, account.gid) != 0) return fail(ErrnoText(errno));
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (::fstatat(dir_fd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return fail(name + ": " + ErrnoText(errno));
    if (!S_ISREG(info.st_mode) || info.st_nlink != 1 || info.st_uid != ::geteuid()) continue;
    if (::fchownat(dir_fd, name.c_str(), account.uid, account.gid, AT_SYMLINK_NOFOLLOW) != 0)
      return fail(name + ": " + ErrnoText(errno));
  }
  return true;
}

PrivilegeDrop::PrivilegeDrop(std::string user, std::string out_dir)
    : user_(std::move(user)), out_dir_(std::move(out_dir)) {}

bool PrivilegeDrop::Check(std::string* error) {
  account_.reset();
  if (user_.empty()) return true;
  std::optional<UserAccount> account = FindUser(user_, error);
  if (!account) return false;
  if (account->uid == 0) return Fail(error, "--user " + user_ + ": the user is root; name an unprivileged user");
  if (::geteuid() != 0) return Fail(error, "--user needs the program to start as root");
  struct stat info {};
  out_dir_is_new_ = !out_dir_.empty() && ::lstat(out_dir_.c_str(), &info) != 0 && errno == ENOENT;
  account_ = std::move(account);
  return true;
}

bool PrivilegeDrop::Apply(std::string* error) {
  if (user_.empty()) return true;
  if (!account_ && !Check(error)) return false;
  if (out_dir_is_new_ && !GiveDirectoryTo(out_dir_, *account_, error)) return false;
  if (!DropPrivileges(*account_, error)) return false;
  // Files made later (statistics.json, the copies) need the directory; a
  // directory that existed before, or a parent the user cannot pass, shows
  // up here rather than at the end of the run.
  if (!out_dir_.empty() && ::access(out_dir_.c_str(), W_OK | X_OK) != 0)
    return Fail(error, "output directory " + out_dir_ + " is not writable by user " + user_ + ": " +
                           ErrnoText(errno));
  return true;
}

}  // namespace pelka
