// Reads capture files for --threads runs: classic pcap files in shared blocks
// whose frames the workers read in place, everything else through
// CaptureSource.
//
// A regular file whose header libpcap accepts as classic pcap (micro- or
// nanosecond, either byte order) is read in blocks of a PcapBlockPool; a
// record that would straddle two blocks moves, with the rest of its block,
// to the start of the next one. The reader checks each record header; on
// anything unusual (a length beyond the snap length or the file, a cut
// header, an odd time stamp, a read error) it hands the file from that
// record on to a CaptureSource, which reports exactly as a one-thread run.
// Other files and standard input go to a CaptureSource whole.
//
// Frames are numbered across the run and times given as CaptureSource does.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
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

  // As CaptureSource::Next. `*block` is the block the frame lies in, valid
  // while a reference is taken on it before the next call; nullptr when the
  // frame came through CaptureSource and is valid only until the next call.
  ReadStatus Next(CapturedFrame* frame, PcapBlock** block);

  // From any thread or a signal handler: the next call of Next answers kEnd.
  void Stop() { stopped_ = true; }

  const std::string& error() const { return error_; }
  bool live() const { return false; }
  uint64_t bytes_read() const;
  uint64_t total_bytes() const { return RegularFileBytes(paths_); }
  uint64_t frames_read() const;

 private:
  bool OpenNext();
  bool OpenBlocks(const std::string& path);
  void HandOver(uint64_t offset);
  void CloseFile();
  // At least `wanted` bytes from `position_` on are in the block, unless the
  // file ends first.
  bool Have(size_t wanted);

  PcapBlockPool* pool_;
  std::vector<std::string> paths_;
  size_t next_path_ = 0;
  std::atomic<bool> stopped_{false};
  std::string error_;
  uint64_t frames_ = 0;
  uint64_t finished_bytes_ = 0;

  // The file read in blocks.
  std::string path_;
  int fd_ = -1;
  bool swapped_ = false;
  bool nanosecond_ = false;
  int link_type_ = 0;
  uint32_t snap_length_ = 0;
  bool file_end_ = false;
  uint64_t block_offset_ = 0;  // file offset of the block's first byte
  PcapBlock* block_ = nullptr;
  size_t position_ = 0;  // next record in the block
  size_t filled_ = 0;    // bytes of the block read from the file

  std::unique_ptr<CaptureSource> fallback_;
};

}  // namespace pelka
