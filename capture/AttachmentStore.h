// Where the attachments' files end up: <out>/attachments/<sha256>, named by
// their content, so a file sent to five hundred people is stored once, and
// never by a name that came from the packets.
//
// Safety as for the copies: attachments/ must be a directory of its own (a
// link in its place is refused), made 0750 when missing; every file is
// written through the folder's descriptor, made 0600, never through a link
// or into a FIFO: written unnamed (O_TMPFILE) and linked to its name once
// whole, or where the file system cannot, O_NOFOLLOW and O_EXCL into a
// temporary name, then renamed. Neither way replaces a name that is taken.
// Something other than a regular file under an attachment's name is never
// taken for that attachment: the attachment then counts as a failure.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>

namespace pelka {

class AttachmentStore {
 public:
  static constexpr char kFolder[] = "attachments";

  // Opens (makes when missing) <out_dir>attachments/, removing the
  // temporary files an earlier run stopped while writing left in it.
  // `out_dir`: absolute, ending with '/'. Null with `error` set when that
  // cannot be done.
  static std::unique_ptr<AttachmentStore> Open(const std::string& out_dir, std::string* error);
  // Closes the folder; removes it when this run made it and stored nothing.
  ~AttachmentStore();
  AttachmentStore(const AttachmentStore&) = delete;
  AttachmentStore& operator=(const AttachmentStore&) = delete;

  // Stores `content` under its hash `sha256` (lower-case hex) unless a file
  // of that name is there already, and returns its path relative to the
  // output folder ("attachments/<sha256>"); empty when it could not be
  // written (counted). Safe from several threads.
  std::string Store(const std::string& sha256, std::span<const char> content);

  uint64_t stored() const { return stored_.load(std::memory_order_relaxed); }      // files written
  uint64_t duplicates() const { return duplicates_.load(std::memory_order_relaxed); }  // already there
  uint64_t failures() const { return failures_.load(std::memory_order_relaxed); }
  std::string first_failure() const;

  // Gives the folder, when this run made it, to the account (--user).
  bool GiveTo(uid_t uid, gid_t gid, std::string* error);
  // Whether files can be written into the folder (by the user the run is
  // now); false with `error` set.
  bool Writable(std::string* error) const;

 private:
  AttachmentStore(std::string folder, int folder_fd, bool made);
  std::string Fail(const std::string& what, int code);
  // Writes `content` to a new file of the folder named `name`, which
  // appears only once whole; true when the name was free. False with errno
  // EEXIST when it was taken meanwhile, with another errno when writing
  // failed.
  bool WriteNew(const std::string& name, std::span<const char> content);
  // The same through a temporary name, renamed.
  bool WriteThroughTemporary(const std::string& name, std::span<const char> content);

  std::string folder_;  // absolute, ending with '/'
  int folder_fd_;
  bool made_;  // the folder was made by this run
  std::atomic<uint64_t> temporaries_{0};  // numbers the temporary files
  std::atomic<uint64_t> stored_{0}, duplicates_{0}, failures_{0};
  mutable std::mutex failure_mutex_;
  std::string first_failure_;
};

}  // namespace pelka
