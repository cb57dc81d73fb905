// Where the ".eml" copies end up, and how they get there.
//
// The module names a copy by the capture time of the packet that completes
// its message, so several messages (all of one IMAP FETCH response, or two
// finished in the same microsecond) get the same name. So the module is
// given a staging folder of the calling thread (email_copy/.staging/N/) to
// write each copy to, and right after its record is posted, on the same
// thread, the copy is moved to email_copy/ under its name or, when that name
// is taken, under the name with "-2", "-3", ... before ".eml". A name is
// never replaced: every record names the file that holds its own message.
// The next free suffix of each name that was found taken is remembered, so a
// thousand messages of one name cost a thousand moves, not half a million
// probes.
//
// Safety: email_copy/ must be a directory of its own: a symbolic link or
// anything else in its place is refused at the start. It is made (0750) when
// missing (and removed again when it stays empty), and every move goes through descriptors of the folders opened at
// the start, so that a link planted later changes nothing. A copy is made
// 0600 (or less, when the umask takes more away).
//
// A copy that cannot be placed (the module could not write it, or the move
// failed) is counted; its record's path is then empty.
//
// Copies made only for the attachments (the user wants none) are staged the
// same way, read (ReadStaged) and dropped (Drop), never placed; the copy
// folder the run made for them goes at the end.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace pelka {

// The storage root the module is given for the output folder `out_dir`
// (absolute, ending with '/'). The module takes a backslash in it for a
// separator when it makes the copy folder's parents, which would make folders
// outside the output folder: such a folder is given as a path relative to
// the working directory, which the module makes no folders for.
std::string ModuleStorageRoot(const std::string& out_dir);

class CopyStore {
 public:
  // The folder of the copies, below the output folder.
  static constexpr char kFolder[] = "email_copy";

  // Opens (makes when missing) <out_dir>email_copy/ and its staging folder.
  // `out_dir`: absolute, ending with '/'. Null with `error` set when the copy
  // folder is not a directory, or cannot be made or opened.
  static std::unique_ptr<CopyStore> Open(const std::string& out_dir, std::string* error);
  // A store with no folder yet, for a run whose first output folder is named
  // by its first packet: MoveTo gives it one. Until then every copy fails.
  static std::unique_ptr<CopyStore> Unplaced();

  // Removes the staging folders with whatever is left in them, and the copy
  // folder when this run made it and put no copy in it.
  ~CopyStore();
  CopyStore(const CopyStore&) = delete;
  CopyStore& operator=(const CopyStore&) = delete;

  // The staging folder of the calling thread, relative to the output folder
  // ("email_copy/.staging/N"); the text stays valid while the store lives.
  const char* StagingFolder();

  // Moves the staged copy the module wrote at `staged_path` (a path whose
  // last two parts are the staging folder's number and the file name) to its
  // final place, and returns that path; empty when the copy could not be
  // placed (counted, and the staged file removed).
  std::string Place(std::string_view staged_path);
  // The bytes of the staged copy at `staged_path` (as Place takes it); false
  // when it is not there or cannot be read.
  bool ReadStaged(std::string_view staged_path, std::string* bytes) const;
  // Removes the staged copy at `staged_path` without placing it.
  void Drop(std::string_view staged_path) const;

  // Switches to <out_dir>email_copy/ (as Open makes it) for the copies
  // placed from now on, between two packets. What waits in staging moves
  // along; the previous folder is left as the destructor leaves it. False
  // with `error` set, and the store unchanged, when the new folder cannot be
  // made or opened.
  bool MoveTo(const std::string& out_dir, std::string* error);
  // Whether the store has a folder (not Unplaced, or moved since).
  bool placed() const { return copy_fd_ >= 0; }
  // Whether copies can be moved into the copy folder (by the user the run
  // is now); false with `error` set.
  bool Writable(std::string* error) const;

  // Gives the folders this run made to the account (--user).
  bool GiveTo(uid_t uid, gid_t gid, std::string* error);

  // Copies that could not be placed, and why the first of them failed.
  uint64_t failures() const { return failures_.load(std::memory_order_relaxed); }
  std::string first_failure() const;

 private:
  CopyStore(std::string copy_dir, int copy_fd, int staging_fd, bool made);
  // The staged copy's name below the staging folder ("N/name"); empty when
  // the path names no staged copy.
  static std::string StagedName(std::string_view staged_path);

  std::string Fail(const std::string& what, int code);
  // Tries the name and then its suffixed forms until one is free.
  std::string MoveToFreeName(const std::string& staged, const std::string& name, int* code);

  std::string copy_dir_;  // absolute, ending with '/'
  int copy_fd_;
  int staging_fd_;
  bool made_;  // the copy folder was made by this run
  // The staging folders' parent as the module is given it: below the
  // output folder, or the memory folder reached from there.
  std::mutex threads_mutex_;  // guards the staging folders of the threads
  std::vector<std::pair<std::thread::id, std::unique_ptr<std::string>>> staging_;

  std::mutex names_mutex_;  // guards the suffixes
  std::map<std::string, uint32_t, std::less<>> next_suffix_;  // only names found taken

  mutable std::mutex failure_mutex_;
  std::string first_failure_;
  std::atomic<uint64_t> failures_{0};
};

}  // namespace pelka
