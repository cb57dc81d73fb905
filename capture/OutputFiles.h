// The output directory and the buffered files the host's writers share.
//
// Every writer hands over whole lines. A file gathers them and writes them
// out together when 64 KiB are waiting, when a second has passed since its
// last write, on Flush and on Close (or each line at once, when asked): one system call per line made writing
// the outputs cost more than analysing the traffic. Only whole lines ever
// reach the file, so a run that is interrupted (and closes its files) leaves
// only whole lines behind. The first failure of a file is kept; later writes
// to it do nothing. A failed write (a full disk) keeps every whole line that
// reached the file and cuts off the part of a line after them; the lines
// that did not make it, and every line handed over later, are counted as
// lost.
// Writers on several threads take turns line by line, so lines never
// interleave.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

namespace pelka {

// Creates the directory and its missing parents and checks that files can be
// made in it. Returns an empty text on success, else what went wrong.
std::string PrepareOutputDirectory(const std::string& directory);

// The absolute form of a directory, ending with '/'.
std::string AbsoluteDirectory(const std::string& directory);

// A file written line by line.
class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Creates (truncates) the file, readable by its owner's group at most
  // (0640, less by the umask). Anything but a regular file in its place (a
  // symbolic link, FIFO, device, socket or directory) is refused at once,
  // without blocking. False with error() set on failure.
  bool Open(const std::string& path);
  // Gives the open file to the account (--user) when this process owns it.
  // False with error() set.
  bool GiveTo(uid_t uid, gid_t gid);
  // Takes the text as it is (it should end with its line end). False once
  // the file has failed.
  bool Write(std::string_view text);
  // Every line is written out as it comes: for input that arrives slowly
  // (an interface, a pipe), whose readers watch the files grow.
  void WriteEachLine(bool each_line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    each_line_ = each_line;
  }
  // Writes out every line taken so far.
  bool Flush();
  // Writes the line and a '\n'.
  bool WriteLine(std::string_view line);
  // Closes the file; a failing close is an error too.
  bool Close();

  bool is_open() const { return file_ != nullptr; }
  const std::string& path() const { return path_; }
  // Empty while every write succeeded. Once failed() is true the text is
  // final, so any thread may read it after seeing failed().
  const std::string& error() const { return error_; }
  bool failed() const { return failed_.load(std::memory_order_acquire); }
  // Also raises `flag` when the file fails, so that one flag can stand for
  // several files where they are asked after every packet. Set before the
  // file is used; the flag must outlive it.
  void ShareFailure(std::atomic<bool>* flag) { shared_failure_ = flag; }
  // Lines written out to the file.
  uint64_t lines() const { return lines_.load(std::memory_order_relaxed); }
  // Lines taken but never written because the file failed.
  uint64_t lines_lost() const { return lines_lost_.load(std::memory_order_relaxed); }

 private:
  bool WriteLocked(std::string_view text, bool add_line_end);
  bool FlushLocked();
  bool CloseLocked();

  void Fail(const char* what);
  // Writes `pending_` through the descriptor; the bytes that reached the file.
  size_t WritePending();
  // After a failed write: cuts the file back to its last whole line.
  void DropPartialLine();

  std::mutex mutex_;  // one writer at a time
  std::FILE* file_ = nullptr;
  std::string path_;
  std::string error_;
  std::atomic<bool> failed_{false};
  std::atomic<bool>* shared_failure_ = nullptr;
  std::atomic<uint64_t> lines_{0};
  std::atomic<uint64_t> lines_lost_{0};
  uint64_t complete_bytes_ = 0;  // bytes of the whole lines written so far
  std::string pending_;          // whole lines taken, not yet written
  uint64_t pending_lines_ = 0;
  std::chrono::steady_clock::time_point last_flush_;
  bool each_line_ = false;

  static constexpr size_t kFlushBytes = 64 * 1024;
  static constexpr std::chrono::seconds kFlushInterval{1};
};

}  // namespace pelka
