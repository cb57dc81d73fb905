#include "capture/CopyStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "capture/FolderFiles.h"

namespace pelka {
namespace {

constexpr char kStaging[] = ".staging";
constexpr std::string_view kCopyExtension = ".eml";

// Removes the entries of a folder, and of the folders in it when `nested`,
// and the folder.
void RemoveFolder(int parent_fd, const char* name, bool nested) {
  const int fd = OpenFolder(parent_fd, name);
  if (fd < 0) return;
  for (const std::string& entry : FolderEntryNames(fd)) {
    if (::unlinkat(fd, entry.c_str(), 0) == 0) continue;
    if (errno == EISDIR && nested) RemoveFolder(fd, entry.c_str(), false);
  }
  ::close(fd);
  ::unlinkat(parent_fd, name, AT_REMOVEDIR);
}

// "name.eml" with the suffix: "name-2.eml".
std::string SuffixedName(std::string_view name, uint32_t suffix) {
  std::string_view extension;
  if (name.size() > kCopyExtension.size() && name.ends_with(kCopyExtension)) {
    extension = kCopyExtension;
    name.remove_suffix(extension.size());
  }
  return std::string(name) + "-" + std::to_string(suffix) + std::string(extension);
}

// The whole of a regular file, read through a descriptor that follows no
// link (nor waits on a FIFO); false when it cannot be read.
bool ReadWholeFile(int folder_fd, const char* name, std::string* bytes) {
  const int fd = ::openat(folder_fd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat info {};
  bool ok = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  if (ok) bytes->resize(static_cast<size_t>(info.st_size));
  size_t have = 0;
  while (ok && have < bytes->size()) {
    const ssize_t got = ::read(fd, bytes->data() + have, bytes->size() - have);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    have += static_cast<size_t>(got);
  }
  ::close(fd);
  bytes->resize(have);
  return ok;
}

}  // namespace

std::string ModuleStorageRoot(const std::string& out_dir) {
  if (out_dir.find('\\') == std::string::npos) return out_dir;
  std::error_code error;
  const std::filesystem::path here = std::filesystem::current_path(error);
  const std::filesystem::path relative = std::filesystem::relative(out_dir, here, error);
  if (error) return out_dir;
  std::string text = "./" + relative.string();
  if (text.back() != '/') text += '/';
  return text;
}

std::unique_ptr<CopyStore> CopyStore::Open(const std::string& out_dir, std::string* error) {
  const std::string copy_dir = out_dir + kFolder + "/";
  bool made = false;
  const int copy_fd = OpenOutputSubfolder(out_dir, kFolder, "the copy folder", &made, error);
  if (copy_fd < 0) return nullptr;
  // What an interrupted run left in staging was never posted.
  RemoveFolder(copy_fd, kStaging, true);
  const int staging_fd = MakeFolder(copy_fd, kStaging, 0700);
  if (staging_fd < 0) {
    *error = FolderProblem("the copy folder", copy_dir + kStaging, errno);
    ::close(copy_fd);
    return nullptr;
  }
  return std::unique_ptr<CopyStore>(new CopyStore(copy_dir, copy_fd, staging_fd, made));
}

std::unique_ptr<CopyStore> CopyStore::Unplaced() {
  return std::unique_ptr<CopyStore>(new CopyStore({}, -1, -1, false));
}

bool CopyStore::MoveTo(const std::string& out_dir, std::string* error) {
  std::unique_ptr<CopyStore> next = Open(out_dir, error);
  if (!next) return false;
  const std::lock_guard<std::mutex> threads(threads_mutex_);
  const std::lock_guard<std::mutex> names(names_mutex_);
  // The staging folders keep their numbers, which the threads' texts name.
  for (size_t number = 0; number < staging_.size(); ++number) {
    const std::string name = std::to_string(number);
    if (::renameat(staging_fd_, name.c_str(), next->staging_fd_, name.c_str()) != 0)
      ::mkdirat(next->staging_fd_, name.c_str(), 0700);
  }
  std::swap(copy_dir_, next->copy_dir_);
  std::swap(copy_fd_, next->copy_fd_);
  std::swap(staging_fd_, next->staging_fd_);
  std::swap(made_, next->made_);
  next_suffix_.clear();
  return true;
}

CopyStore::CopyStore(std::string copy_dir, int copy_fd, int staging_fd, bool made)
    : copy_dir_(std::move(copy_dir)), copy_fd_(copy_fd), staging_fd_(staging_fd), made_(made) {}

CopyStore::~CopyStore() {
  if (copy_fd_ < 0) return;
  ::close(staging_fd_);
  RemoveFolder(copy_fd_, kStaging, true);
  ::close(copy_fd_);
  // A run without a copy leaves no empty folder it made; one with copies in
  // it is not removed.
  if (made_) ::rmdir(copy_dir_.c_str());
}

const char* CopyStore::StagingFolder() {
  const std::thread::id self = std::this_thread::get_id();
  const std::lock_guard<std::mutex> lock(threads_mutex_);
  for (const auto& [thread, folder] : staging_)
    if (thread == self) return folder->c_str();
  const std::string number = std::to_string(staging_.size());
  // A failure shows up as the module's copy missing at Place.
  ::mkdirat(staging_fd_, number.c_str(), 0700);
  staging_.emplace_back(self, std::make_unique<std::string>(std::string(kFolder) + "/" + kStaging + "/" + number));
  return staging_.back().second->c_str();
}

std::string CopyStore::StagedName(std::string_view staged_path) {
  const size_t slash = staged_path.rfind('/');
  const size_t before = slash == std::string_view::npos || slash == 0 ? std::string_view::npos
                                                                      : staged_path.rfind('/', slash - 1);
  if (before == std::string_view::npos) return {};
  const std::string_view name = staged_path.substr(slash + 1);
  const std::string_view folder = staged_path.substr(before + 1, slash - before - 1);
  // Only a staging folder's number and a plain name are taken from the path.
  if (name.empty() || folder.empty() || folder.find_first_not_of("0123456789") != std::string::npos) return {};
  return std::string(folder) + "/" + std::string(name);
}

bool CopyStore::ReadStaged(std::string_view staged_path, std::string* bytes) const {
  const std::string staged = StagedName(staged_path);
  return !staged.empty() && ReadWholeFile(staging_fd_, staged.c_str(), bytes);
}

void CopyStore::Drop(std::string_view staged_path) const {
  const std::string staged = StagedName(staged_path);
  if (!staged.empty()) ::unlinkat(staging_fd_, staged.c_str(), 0);
}

std::string CopyStore::Place(std::string_view staged_path) {
  const std::string staged = StagedName(staged_path);
  if (staged.empty()) return Fail("the copy " + std::string(staged_path) + " is not staged", 0);
  const std::string name = staged.substr(staged.find('/') + 1);
  struct stat info {};
  if (::fstatat(staging_fd_, staged.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(info.st_mode)) {
    const int code = errno == ENOENT ? 0 : errno;
    ::unlinkat(staging_fd_, staged.c_str(), 0);
    return Fail("the copy " + copy_dir_ + name + " could not be written", code);
  }
  // The module made it as any file; the umask has taken away its share already.
  ::fchmodat(staging_fd_, staged.c_str(), info.st_mode & 0600, 0);
  int code = 0;
  std::string placed = MoveToFreeName(staged, name, &code);
  if (placed.empty()) {
    ::unlinkat(staging_fd_, staged.c_str(), 0);
    return Fail("cannot move the copy to " + copy_dir_ + name, code);
  }
  return copy_dir_ + placed;
}

std::string CopyStore::MoveToFreeName(const std::string& staged, const std::string& name, int* code) {
  uint32_t suffix = 0;
  {
    const std::lock_guard<std::mutex> lock(names_mutex_);
    if (const auto known = next_suffix_.find(name); known != next_suffix_.end()) suffix = known->second;
  }
  for (;; suffix = suffix < 2 ? 2 : suffix + 1) {
    const std::string candidate = suffix ? SuffixedName(name, suffix) : name;
    if (MoveNoReplace(staging_fd_, staged.c_str(), copy_fd_, candidate.c_str())) {
      if (suffix) {
        const std::lock_guard<std::mutex> lock(names_mutex_);
        uint32_t& next = next_suffix_[name];
        next = std::max(next, suffix + 1);
      }
      return candidate;
    }
    if (errno != EEXIST) {
      *code = errno;
      return {};
    }
  }
}

std::string CopyStore::Fail(const std::string& what, int code) {
  failures_.fetch_add(1, std::memory_order_relaxed);
  const std::lock_guard<std::mutex> lock(failure_mutex_);
  if (first_failure_.empty()) first_failure_ = what + (code ? std::string(": ") + std::strerror(code) : "");
  return {};
}

std::string CopyStore::first_failure() const {
  const std::lock_guard<std::mutex> lock(failure_mutex_);
  return first_failure_;
}

bool CopyStore::Writable(std::string* error) const {
  if (::faccessat(copy_fd_, ".", W_OK | X_OK, AT_EACCESS) == 0) return true;
  *error = "the copy folder " + copy_dir_ + " is not writable: " + std::strerror(errno);
  return false;
}

bool CopyStore::GiveTo(uid_t uid, gid_t gid, std::string* error) {
  for (const int fd : {copy_fd_, staging_fd_}) {
    struct stat info {};
    // A folder that existed before, someone else's, stays as it is.
    if (::fstat(fd, &info) != 0 || info.st_uid != ::geteuid()) continue;
    if (::fchown(fd, uid, gid) != 0) {
      *error = "cannot give the copy folder " + copy_dir_ + " to the user: " + std::strerror(errno);
      return false;
    }
  }
  return true;
}

}  // namespace pelka
