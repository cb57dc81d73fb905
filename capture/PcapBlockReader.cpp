#include "capture/PcapBlockReader.h"

#include <fcntl.h>
#include <pcap/pcap.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "capture/PacketDecoder.h"
#include "capture/PcapFormat.h"
#include "capture/PcapTime.h"

namespace pelka {

namespace {

// What libpcap makes of the file's header: its link type and snap length,
// or false when it does not open the file.
bool ProbeWithLibpcap(const std::string& path, int* link_type, uint32_t* snap_length) {
  FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  char message[PCAP_ERRBUF_SIZE] = {};
  pcap_t* handle = pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, message);
  if (!handle) {
    std::fclose(file);
    return false;
  }
  *link_type = pcap_datalink(handle);
  const int snapshot = pcap_snapshot(handle);
  *snap_length = snapshot > 0 ? static_cast<uint32_t>(snapshot) : 0;
  pcap_close(handle);
  return true;
}

// Link types whose frames libpcap hands out as they are in the file, in
// either byte order; others (USB, NFLOG and the like) it may rewrite.
bool InPlaceLinkType(int link_type) {
  switch (link_type) {
    case kLinkNull:
    case kLinkEthernet:
    case kLinkRaw:
    case kLinkRawOpenBsd:
    case kLinkRawLinktype:
    case kLinkLoop:
    case kLinkLinuxSll:
    case kLinkIpv4:
    case kLinkIpv6:
    case kLinkLinuxSll2:
      return true;
    default:
      return false;
  }
}

}  // namespace

PcapBlockReader::PcapBlockReader(PcapBlockPool* pool) : pool_(pool) {}

PcapBlockReader::~PcapBlockReader() { CloseFile(); }

void PcapBlockReader::OpenFiles(std::vector<std::string> paths) {
  CloseFile();
  fallback_.reset();
  paths_ = std::move(paths);
  next_path_ = 0;
}

void PcapBlockReader::CloseFile() {
  int fd = -1;
  {
    std::unique_lock<std::mutex> lock(ahead_mutex_);
    std::swap(fd, fd_);
    // A block still being read ahead uses the descriptor.
    ahead_ready_.wait(lock, [this] { return reads_in_flight_ == 0; });
    for (const Ahead& ahead : ahead_) ahead.block->Unref();
    ahead_.clear();
    ++walk_moves_;
  }
  walk_moved_.notify_one();
  if (block_) block_->Unref();
  block_ = nullptr;
  if (fd >= 0) ::close(fd);
}

bool PcapBlockReader::OpenNext() {
  if (next_path_ >= paths_.size()) return false;
  const std::string& path = paths_[next_path_++];
  if (!OpenBlocks(path)) {
    fallback_ = std::make_unique<CaptureSource>();
    fallback_->AnswerTimeoutsOnStandardInput(stdin_timeout_ms_);
    fallback_->ContinueFile(path, 0, frames_);
  }
  return true;
}

// Opens `path` for block reading when it is a regular classic pcap file.
bool PcapBlockReader::OpenBlocks(const std::string& path) {
  struct stat info {};
  if (path == "-" || ::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  if (!ProbeWithLibpcap(path, &link_type_, &snap_length_)) return false;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  uint8_t header[kPcapFileHeaderBytes];
  if (::fstat(fd, &info) != 0 || ::pread(fd, header, sizeof header, 0) != static_cast<ssize_t>(sizeof header)) {
    ::close(fd);
    return false;
  }
  const PcapMagic magic = ReadPcapMagic(header);
  if (!magic.classic) {
    ::close(fd);
    return false;
  }
  swapped_ = magic.swapped;
  nanosecond_ = magic.nanosecond;
  if (!InPlaceLinkType(link_type_)) {
    ::close(fd);
    return false;
  }
  path_ = path;
  file_end_ = false;
  block_offset_ = kPcapFileHeaderBytes;
  filled_ = 0;
  position_ = 0;
  {
    const std::lock_guard<std::mutex> lock(ahead_mutex_);
    fd_ = fd;
    next_unclaimed_ = kPcapFileHeaderBytes;
    prefetch_end_ = static_cast<uint64_t>(info.st_size);
    ++walk_moves_;
  }
  walk_moved_.notify_one();
  return true;
}

size_t PcapBlockReader::ReadBlock(int fd, PcapBlock* block, uint64_t offset) const {
  size_t filled = 0;
  while (filled < block->capacity()) {
    const ssize_t got =
        ::pread(fd, block->data() + filled, block->capacity() - filled, static_cast<off_t>(offset + filled));
    if (got < 0 && errno == EINTR) continue;
    // A read error ends the blocks: CaptureSource reads the record again and
    // reports it.
    if (got <= 0) break;
    filled += static_cast<size_t>(got);
  }
  return filled;
}

bool PcapBlockReader::Prefetch() {
  uint64_t offset = 0;
  PcapBlock* block = nullptr;
  int fd = -1;
  {
    const std::lock_guard<std::mutex> lock(ahead_mutex_);
    if (fd_ < 0 || ahead_.size() >= kMaxAhead || next_unclaimed_ >= prefetch_end_) return false;
    block = pool_->TryAcquire();
    if (!block) return false;
    offset = next_unclaimed_;
    next_unclaimed_ += pool_->block_bytes();
    ahead_.push_back({offset, block, 0, false});
    ++reads_in_flight_;
    fd = fd_;
  }
  const size_t filled = ReadBlock(fd, block, offset);
  {
    const std::lock_guard<std::mutex> lock(ahead_mutex_);
    for (Ahead& ahead : ahead_) {
      if (ahead.block != block) continue;
      ahead.filled = filled;
      ahead.ready = true;
      break;
    }
    --reads_in_flight_;
  }
  ahead_ready_.notify_all();
  return true;
}

void PcapBlockReader::ReadAhead() {
  std::unique_lock<std::mutex> lock(ahead_mutex_);
  while (!read_ahead_ended_) {
    const uint64_t seen = walk_moves_;
    lock.unlock();
    const bool read = Prefetch();
    lock.lock();
    if (!read) walk_moved_.wait(lock, [&] { return read_ahead_ended_ || walk_moves_ != seen; });
  }
}

void PcapBlockReader::EndReadAhead() {
  {
    const std::lock_guard<std::mutex> lock(ahead_mutex_);
    read_ahead_ended_ = true;
  }
  walk_moved_.notify_one();
}

void PcapBlockReader::NextBlock() {
  const uint64_t offset = block_ ? block_offset_ + pool_->block_bytes() : kPcapFileHeaderBytes;
  if (block_) block_->Unref();
  block_ = nullptr;
  Ahead next;
  {
    std::unique_lock<std::mutex> lock(ahead_mutex_);
    if (ahead_.empty()) {
      next_unclaimed_ = offset + pool_->block_bytes();
    } else {
      // Blocks are claimed in file order, so the first one read ahead is the
      // one wanted.
      ahead_ready_.wait(lock, [this] { return ahead_.front().ready; });
      next = ahead_.front();
      ahead_.pop_front();
    }
    ++walk_moves_;
  }
  walk_moved_.notify_one();
  if (!next.block) {
    next.block = pool_->Acquire();
    next.filled = ReadBlock(fd_, next.block, offset);
  }
  block_ = next.block;
  block_offset_ = offset;
  position_ = 0;
  filled_ = next.filled;
  file_end_ = filled_ < block_->capacity();
}

void PcapBlockReader::HandOver(uint64_t offset) {
  CloseFile();
  fallback_ = std::make_unique<CaptureSource>();
  fallback_->ContinueFile(path_, offset, frames_);
}

// The record header at `header` describes a record libpcap would read as it is.
bool PcapBlockReader::Usual(const uint8_t* header) const {
  const uint32_t seconds = LoadPcap32(header, swapped_);
  const uint32_t captured = LoadPcap32(header + 8, swapped_);
  const uint32_t wire = LoadPcap32(header + 12, swapped_);
  // A record longer than the header's snap length is read whole: the bytes
  // the file holds are the packet. A fraction of a second or more is carried
  // into the seconds (SetFrame).
  return seconds < 0x80000000u && captured <= kPcapLargestRecord && captured <= wire;
}

void PcapBlockReader::SetFrame(const uint8_t* header, CapturedFrame* frame) {
  const uint32_t seconds = LoadPcap32(header, swapped_);
  const uint32_t fraction = LoadPcap32(header + 4, swapped_);
  frame->data = header + kPcapRecordHeaderBytes;
  frame->captured_length = LoadPcap32(header + 8, swapped_);
  frame->wire_length = LoadPcap32(header + 12, swapped_);
  frame->number = ++frames_;
  frame->time_us = PcapTimeMicroseconds(seconds, fraction, nanosecond_);
  if (fraction >= PcapFractionsPerSecond(nanosecond_)) ++odd_time_frames_;
  frame->link_type = link_type_;
  if (frame->captured_length > snap_length_) NoteLongRecord({path_, snap_length_});
}

void PcapBlockReader::NoteLongRecord(const LongRecordFile& file) {
  for (const LongRecordFile& noted : long_records_) {
    if (noted.name == file.name) return;
  }
  long_records_.push_back(file);
}

bool PcapBlockReader::TakeSpanning(size_t wanted) {
  while (spanning_.size() < wanted) {
    if (position_ == filled_) {
      if (file_end_) return false;
      NextBlock();
    }
    const size_t take = std::min(wanted - spanning_.size(), filled_ - position_);
    spanning_.insert(spanning_.end(), block_->data() + position_, block_->data() + position_ + take);
    position_ += take;
  }
  return true;
}

bool PcapBlockReader::JoinSpanningRecord(CapturedFrame* frame) {
  spanning_.clear();
  if (!TakeSpanning(kPcapRecordHeaderBytes) || !Usual(spanning_.data())) return false;
  const uint32_t captured = LoadPcap32(spanning_.data() + 8, swapped_);
  if (!TakeSpanning(kPcapRecordHeaderBytes + captured)) return false;
  SetFrame(spanning_.data(), frame);
  return true;
}

ReadStatus PcapBlockReader::Next(CapturedFrame* frame, PcapBlock** block) {
  *block = nullptr;
  for (;;) {
    if (stopped_) return ReadStatus::kEnd;
    if (fallback_) {
      const ReadStatus status = fallback_->Next(frame);
      if (status == ReadStatus::kError) error_ = fallback_->error();
      if (status != ReadStatus::kEnd) return status;
      finished_bytes_ += fallback_->bytes_read();
      frames_ = fallback_->frames_read();
      odd_time_frames_ += fallback_->odd_time_frames();
      for (const LongRecordFile& file : fallback_->long_record_files()) NoteLongRecord(file);
      fallback_.reset();
      continue;
    }
    if (fd_ < 0) {
      if (!OpenNext()) return ReadStatus::kEnd;
      continue;
    }
    if (!block_ || (position_ == filled_ && !file_end_)) {
      NextBlock();
      continue;
    }
    const uint64_t record_offset = block_offset_ + position_;
    const size_t left = filled_ - position_;
    if (left == 0) {
      finished_bytes_ += record_offset;
      CloseFile();
      continue;
    }
    const uint8_t* header = block_->data() + position_;
    if (left >= kPcapRecordHeaderBytes) {
      if (!Usual(header)) {
        HandOver(record_offset);
        continue;
      }
      const size_t length = kPcapRecordHeaderBytes + LoadPcap32(header + 8, swapped_);
      if (left >= length) {
        SetFrame(header, frame);
        position_ += length;
        *block = block_;
        return ReadStatus::kFrame;
      }
    }
    if (!JoinSpanningRecord(frame)) {
      HandOver(record_offset);
      continue;
    }
    return ReadStatus::kFrame;
  }
}

uint64_t PcapBlockReader::bytes_read() const {
  if (fallback_) return finished_bytes_ + fallback_->bytes_read();
  return finished_bytes_ + (fd_ >= 0 ? block_offset_ + position_ : 0);
}

uint64_t PcapBlockReader::odd_time_frames() const {
  return odd_time_frames_ + (fallback_ ? fallback_->odd_time_frames() : 0);
}

uint64_t PcapBlockReader::frames_read() const { return fallback_ ? fallback_->frames_read() : frames_; }

}  // namespace pelka
