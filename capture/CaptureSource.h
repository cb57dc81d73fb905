// Reads frames from capture files or a live interface through libpcap.
//
// Files: classic pcap (microsecond and nanosecond) and pcapng, several in one
// run read one after the other as one capture, "-" for standard input. A
// pcapng file is read section by section, whatever each one's byte order. Files
// are read through a 1 MiB stdio buffer (fopen + setvbuf + pcap_fopen_offline),
// which reads several times faster than libpcap's default small reads.
// Frames are numbered from 1 across the whole run; times are microseconds
// since 1970, nanosecond stamps rounded down. A frame stays valid until the
// next call of Next. A record whose fraction of a second is a second or more
// has its time carried into the seconds and is counted (odd_time_frames).
// A link type the decoder does not know ends that input with an error naming
// it.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "capture/PageAlignedBuffer.h"
#include "capture/SnapLengthWidening.h"

struct pcap;

namespace pelka {

// Sum of the sizes of the paths that are regular files.
uint64_t RegularFileBytes(const std::vector<std::string>& paths);

struct CapturedFrame {
  const uint8_t* data = nullptr;
  uint32_t captured_length = 0;
  uint32_t wire_length = 0;
  uint64_t number = 0;  // 1-based position in the run
  uint64_t time_us = 0;
  int link_type = 0;  // libpcap's DLT value
};

enum class ReadStatus {
  kFrame,    // a frame was read
  kTimeout,  // live capture or standard input: nothing arrived within the read timeout
  kEnd,      // every input has been read, or Stop was called
  kError,    // the current input is damaged or unreadable; see error()
};

// A file holding records longer than the snap length its header states. They
// are read whole, as the file holds them, and said once per file.
struct LongRecordFile {
  std::string name;
  uint32_t header_snap_length = 0;
};

// How a live capture is set up (see the options -f and -B).
struct LiveSettings {
  std::string filter;  // tcpdump filter expression; "" takes every packet
  uint32_t buffer_size_mib = 8;
  int read_timeout_ms = 100;
};

// The error for an input whose link type the decoder does not know, or "".
std::string UnsupportedLinkTypeError(const std::string& input, int link_type);

class CaptureSource {
 public:
  CaptureSource();
  ~CaptureSource();
  CaptureSource(const CaptureSource&) = delete;
  CaptureSource& operator=(const CaptureSource&) = delete;

  // Files to read in order. Checks nothing yet: each file is opened when its
  // turn comes, so that an error names the file that caused it.
  void OpenFiles(std::vector<std::string> paths);

  // Opens every file of OpenFiles now instead of when its turn comes, so that
  // the run can give up its privileges before reading. A file that cannot be
  // opened is still reported when its turn comes.
  void OpenAllFilesNow();

  // Reads one file from byte `offset` on (the start of a record; 0 for the
  // whole file), numbering its frames after `frames_before`: the block
  // reader hands over here whatever it does not read itself.
  void ContinueFile(const std::string& path, uint64_t offset, uint64_t frames_before);

  // Live capture on an interface. False with error() set for a missing
  // interface, a missing privilege, a filter that does not compile, a link
  // type the decoder does not know, or another failure to start.
  bool OpenLive(const std::string& interface_name, const LiveSettings& settings);

  // Standard input that stays quiet for `timeout_ms` answers kTimeout, as a
  // quiet interface does, so that what was read so far is handed on while
  // the writer at the other end of the pipe waits.
  void AnswerTimeoutsOnStandardInput(int timeout_ms) { stdin_timeout_ms_ = timeout_ms; }

  // The next frame. On kError, error() says what happened and in which input;
  // the damaged input is closed and a further call goes on with the next file.
  ReadStatus Next(CapturedFrame* frame);

  // Ends the run from any thread or a signal handler: the next call of Next
  // answers kEnd (a live capture's pending read returns at once).
  void Stop();

  // True after OpenLive: frames arrive as they happen.
  bool live() const { return live_; }
  // The file or interface being read, or "" before the first and after the last.
  const std::string& current_input() const { return current_name_; }
  const std::string& error() const { return error_; }
  // Bytes of the inputs consumed so far, for progress reports.
  uint64_t bytes_read() const;
  // Sum of the sizes of the input files that are regular files (0 if unknown).
  uint64_t total_bytes() const;
  uint64_t frames_read() const { return frames_; }
  const std::vector<LongRecordFile>& long_record_files() const { return long_records_; }
  // Records whose time stamp's fraction was a second or more.
  uint64_t odd_time_frames() const { return odd_time_frames_; }
  // Live capture: packets the kernel dropped because the buffer was full, as
  // last asked (about every second, and at the end); -1 when not live.
  int64_t kernel_drops() const { return kernel_drops_.load(std::memory_order_relaxed); }

 private:
  bool OpenNextFile();
  // Live capture: waits up to the read timeout for frames to read; false when
  // none came (or the capture cannot be waited on).
  bool WaitForFrames();
  // Standard input: whether a read would find bytes before the timeout.
  bool StandardInputReady() const;
  void CloseCurrent();
  void CloseHeldFiles();
  // After libpcap failed in a pcapng file: starts it afresh at the next
  // section when that section's byte order caused the failure.
  bool ResumeAtNextSection();
  // Live capture: asks the kernel for its drop count, at most every second
  // unless `now`.
  void SampleKernelDrops(bool now);

  // A file opened ahead of its turn, or the errno of its failed open.
  struct HeldFile {
    FILE* file = nullptr;
    int open_error = 0;
  };
  ReadStatus Fail(const std::string& message);
  // Notes the current file once when a record is longer than its snap length.
  void NoteLongRecord(uint32_t captured_length);

  std::vector<std::string> paths_;
  std::vector<HeldFile> held_;  // empty unless OpenAllFilesNow was called
  size_t next_path_ = 0;
  pcap* handle_ = nullptr;
  FILE* file_ = nullptr;
  PageAlignedBytes file_buffer_;
  bool live_ = false;
  int selectable_fd_ = -1;
  int read_timeout_ms_ = 0;
  bool nanosecond_ = false;
  std::atomic<bool> stopped_{false};
  std::string current_name_;
  std::string error_;
  uint64_t frames_ = 0;
  int file_descriptor_ = -1;  // under file_, which may be a stream in front of it; -1 for standard input
  SnapLengthView snap_view_;  // of the current file, as the stream in front of it shows it to libpcap
  bool long_record_noted_ = false;
  std::vector<LongRecordFile> long_records_;
  uint64_t start_offset_ = 0;    // where the next file opened is read from
  uint64_t finished_bytes_ = 0;  // bytes of the inputs already closed
  uint64_t current_bytes_ = 0;   // bytes of the current input when its position is unknown
  uint64_t section_start_ = 0;   // pcapng: where the section being read begins
  bool reading_stdin_ = false;
  int stdin_timeout_ms_ = 0;     // 0: standard input is waited for
  uint64_t odd_time_frames_ = 0;
  std::atomic<int64_t> kernel_drops_{-1};
  std::chrono::steady_clock::time_point last_drop_sample_{};
};

}  // namespace pelka
