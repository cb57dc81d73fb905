// One run at a time per output folder.
//
// Two runs writing the same files would interleave their lines. A run holds
// an exclusive flock on "<out>/.pelka-email.lock" for as long as it writes;
// the file holds the pid of its owner, so that a second run can say which
// process is in the way. The lock goes with the process (also when it is
// killed); the file is removed when the run ends.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

namespace pelka {

class OutputLock {
 public:
  static constexpr char kFileName[] = ".pelka-email.lock";

  // Takes the lock of `out_dir` (absolute, ending with '/'). Null with
  // `error` set when another process holds it (naming its pid) or the lock
  // file cannot be made.
  static std::unique_ptr<OutputLock> Take(const std::string& out_dir, std::string* error);

  // Removes the file and lets the lock go.
  ~OutputLock();
  OutputLock(const OutputLock&) = delete;
  OutputLock& operator=(const OutputLock&) = delete;

  // Gives the lock file to the account (--user), when this run made it.
  bool GiveTo(uid_t uid, gid_t gid, std::string* error);

 private:
  OutputLock(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}

  std::string path_;
  int fd_;
};

}  // namespace pelka
