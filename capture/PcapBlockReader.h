// Reads capture files in shared blocks whose frames the analysis reads in
// place; everything else goes through CaptureSource.
//
// A regular file whose header libpcap accepts as classic pcap (micro- or
// nanosecond, either byte order) is read in blocks of a PcapBlockPool, each at
// a fixed place in the file: block k holds the bytes from 24 + k * block size
// on. So blocks can be read ahead by other threads (Prefetch) while one thread
// walks the records (Next). A record that runs from one block into the next is
// put together in a buffer of the reader's own. The walk checks each record
// header; on anything unusual (a length beyond the largest record or the file,
// a cut header, seconds past 2038 that libpcap reads as negative, a read
// error) it hands the file from that record on to a CaptureSource, which
// reports exactly as it does for files it reads whole. Other files and
// standard input go to a CaptureSource whole. A fraction of a second or more
// is no reason to hand over: the time is carried into the seconds and the
// record counted (odd_time_frames).
//
// Frames are numbered across the run and times given as CaptureSource does.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture/CaptureSource.h"
#include "capture/PcapBlock.h"

namespace pelka {

class PcapBlockReader {
 public:
  explicit PcapBlockReader(PcapBlockPool* pool);
  ~PcapBlockReader();
  PcapBlockReader(const PcapBlockReader&) = delete;
  PcapBlockReader& operator=(const PcapBlockReader&) = delete;

  void OpenFiles(std::vector<std::string> paths);
  // As CaptureSource's, for standard input among the files.
  void AnswerTimeoutsOnStandardInput(int timeout_ms) { stdin_timeout_ms_ = timeout_ms; }

  // As CaptureSource::Next. `*block` is the block the frame lies in, valid
  // while a reference is taken on it before the next call; nullptr when the
  // frame is valid only until the next call (it came through CaptureSource or
  // spans two blocks). One thread at a time.
  ReadStatus Next(CapturedFrame* frame, PcapBlock** block);

  // From any thread, alongside Next: reads the next block of the file that
  // nobody has read yet, if a free block is at hand and fewer than
  // kMaxAhead blocks wait for the walk. False when there was nothing to do.
  bool Prefetch();
  static constexpr size_t kMaxAhead = 4;

  // On a thread of its own while one thread walks the frames: reads ahead
  // until EndReadAhead, sleeping while there is nothing to read (the walk is
  // kMaxAhead blocks behind, every block is in use, or no file is open).
  // The pool needs kMaxAhead + 1 blocks for the walk never to wait on a read.
  void ReadAhead();
  void EndReadAhead();

  // From any thread or a signal handler: the next call of Next answers kEnd.
  void Stop() { stopped_ = true; }

  const std::string& error() const { return error_; }
  bool live() const { return false; }
  uint64_t bytes_read() const;
  uint64_t total_bytes() const { return RegularFileBytes(paths_); }
  uint64_t frames_read() const;
  // As CaptureSource's, for the files read so far (a file being read by the
  // fallback counts once it is done).
  const std::vector<LongRecordFile>& long_record_files() const { return long_records_; }
  // As CaptureSource's, over every file read so far.
  uint64_t odd_time_frames() const;

 private:
  bool OpenNext();
  bool OpenBlocks(const std::string& path);
  void HandOver(uint64_t offset);
  void CloseFile();
  // Moves the walk to the block after the current one (the file's first block
  // when there is none): read ahead by Prefetch, or else read now.
  void NextBlock();
  // The record at the walk, which runs past the current block, put together
  // in `spanning_`; false when it is unusual or the file ends first.
  bool JoinSpanningRecord(CapturedFrame* frame);
  // Takes up to `wanted` more bytes of the walk into `spanning_`, moving to the
  // next blocks as needed; false when the file ends first.
  bool TakeSpanning(size_t wanted);
  bool Usual(const uint8_t* header) const;
  void SetFrame(const uint8_t* header, CapturedFrame* frame);
  void NoteLongRecord(const LongRecordFile& file);
  // Reads the block at `offset` of `fd`; the bytes read (fewer at the file's
  // end or on a read error).
  size_t ReadBlock(int fd, PcapBlock* block, uint64_t offset) const;

  PcapBlockPool* pool_;
  std::vector<std::string> paths_;
  size_t next_path_ = 0;
  std::atomic<bool> stopped_{false};
  std::string error_;
  uint64_t frames_ = 0;
  uint64_t finished_bytes_ = 0;
  uint64_t odd_time_frames_ = 0;  // of the files read in blocks and the fallbacks done

  // The file read in blocks.
  std::string path_;
  int fd_ = -1;
  bool swapped_ = false;
  bool nanosecond_ = false;
  int link_type_ = 0;
  uint32_t snap_length_ = 0;
  std::vector<LongRecordFile> long_records_;
  bool file_end_ = false;       // the current block is the file's last
  uint64_t block_offset_ = 0;  // file offset of the block's first byte
  PcapBlock* block_ = nullptr;
  size_t position_ = 0;  // next record in the block
  size_t filled_ = 0;    // bytes of the block read from the file
  std::vector<uint8_t> spanning_;

  // Blocks read ahead, in file order; shared with Prefetch under the mutex,
  // as are `fd_` and the fields below while a file is open.
  struct Ahead {
    uint64_t offset = 0;
    PcapBlock* block = nullptr;
    size_t filled = 0;
    bool ready = false;
  };
  std::mutex ahead_mutex_;
  std::condition_variable ahead_ready_;
  std::deque<Ahead> ahead_;
  uint64_t next_unclaimed_ = 0;  // offset of the first block nobody reads yet
  uint64_t prefetch_end_ = 0;    // the file's size when opened: read-ahead stops there
  unsigned reads_in_flight_ = 0;
  // ReadAhead sleeps on `walk_moved_` until `walk_moves_` changes: the walk
  // took a block, or a file was opened or closed.
  std::condition_variable walk_moved_;
  uint64_t walk_moves_ = 0;
  bool read_ahead_ended_ = false;

  std::unique_ptr<CaptureSource> fallback_;
  int stdin_timeout_ms_ = 0;
};

}  // namespace pelka
