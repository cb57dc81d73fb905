#include "capture/PcapBlockReader.h"

#include <fcntl.h>
#include <pcap/pcap.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "capture/PacketDecoder.h"

namespace pelka {

namespace {

constexpr size_t kFileHeaderBytes = 24;
constexpr size_t kRecordHeaderBytes = 16;
// libpcap's bound for most link types; longer records are left to it.
constexpr uint32_t kMaxRecordLength = 262144;

constexpr uint32_t kMagicMicro = 0xa1b2c3d4;
constexpr uint32_t kMagicNano = 0xa1b23c4d;

uint32_t Load32(const uint8_t* bytes, bool swapped) {
  uint32_t value;
  std::memcpy(&value, bytes, sizeof value);
  return swapped ? __builtin_bswap32(value) : value;
}

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
  if (block_) block_->Unref();
  block_ = nullptr;
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool PcapBlockReader::OpenNext() {
  if (next_path_ >= paths_.size()) return false;
  const std::string& path = paths_[next_path_++];
  if (!OpenBlocks(path)) {
    fallback_ = std::make_unique<CaptureSource>();
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
  uint8_t header[kFileHeaderBytes];
  if (::pread(fd, header, sizeof header, 0) != static_cast<ssize_t>(sizeof header)) {
    ::close(fd);
    return false;
  }
  const uint32_t magic = Load32(header, false);
  const uint32_t swapped_magic = __builtin_bswap32(magic);
  if (magic != kMagicMicro && magic != kMagicNano && swapped_magic != kMagicMicro && swapped_magic != kMagicNano) {
    ::close(fd);
    return false;
  }
  swapped_ = magic != kMagicMicro && magic != kMagicNano;
  nanosecond_ = (swapped_ ? swapped_magic : magic) == kMagicNano;
  if (!InPlaceLinkType(link_type_) || ::lseek(fd, kFileHeaderBytes, SEEK_SET) < 0) {
    ::close(fd);
    return false;
  }
  fd_ = fd;
  path_ = path;
  file_end_ = false;
  block_offset_ = kFileHeaderBytes;
  filled_ = 0;
  position_ = 0;
  return true;
}

bool PcapBlockReader::Have(size_t wanted) {
  if (filled_ - position_ >= wanted) return true;
  if (file_end_) return false;
  // Carry the rest of this block to the start of the next one.
  const size_t rest = filled_ - position_;
  PcapBlock* next = pool_->Acquire();
  if (block_) {
    std::memcpy(next->data(), block_->data() + position_, rest);
    block_->Unref();
  }
  block_ = next;
  block_offset_ += position_;
  position_ = 0;
  filled_ = rest;
  while (filled_ < block_->capacity()) {
    const ssize_t got = ::read(fd_, block_->data() + filled_, block_->capacity() - filled_);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      // A read error is left to CaptureSource, which reads the record again.
      file_end_ = true;
      break;
    }
    filled_ += static_cast<size_t>(got);
  }
  return filled_ >= wanted;
}

void PcapBlockReader::HandOver(uint64_t offset) {
  CloseFile();
  fallback_ = std::make_unique<CaptureSource>();
  fallback_->ContinueFile(path_, offset, frames_);
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
      fallback_.reset();
      continue;
    }
    if (fd_ < 0) {
      if (!OpenNext()) return ReadStatus::kEnd;
      continue;
    }
    const uint64_t record_offset = block_offset_ + position_;
    if (!Have(kRecordHeaderBytes)) {
      if (filled_ == position_) {
        finished_bytes_ += record_offset;
        CloseFile();
      } else {
        HandOver(record_offset);
      }
      continue;
    }
    const uint8_t* header = block_->data() + position_;
    const uint32_t seconds = Load32(header, swapped_);
    const uint32_t fraction = Load32(header + 4, swapped_);
    const uint32_t captured = Load32(header + 8, swapped_);
    const uint32_t wire = Load32(header + 12, swapped_);
    const bool usual = seconds < 0x80000000u && fraction < (nanosecond_ ? 1000000000u : 1000000u) &&
                       captured <= snap_length_ && captured <= kMaxRecordLength && captured <= wire;
    if (!usual || !Have(kRecordHeaderBytes + captured)) {
      HandOver(record_offset);
      continue;
    }
    frame->data = block_->data() + position_ + kRecordHeaderBytes;
    frame->captured_length = captured;
    frame->wire_length = wire;
    frame->number = ++frames_;
    frame->time_us = uint64_t{seconds} * 1000000 + (nanosecond_ ? fraction / 1000 : fraction);
    frame->link_type = link_type_;
    position_ += kRecordHeaderBytes + captured;
    *block = block_;
    return ReadStatus::kFrame;
  }
}

uint64_t PcapBlockReader::bytes_read() const {
  if (fallback_) return finished_bytes_ + fallback_->bytes_read();
  return finished_bytes_ + (fd_ >= 0 ? block_offset_ + position_ : 0);
}

uint64_t PcapBlockReader::frames_read() const { return fallback_ ? fallback_->frames_read() : frames_; }

}  // namespace pelka
