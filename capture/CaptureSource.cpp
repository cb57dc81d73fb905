#include "capture/CaptureSource.h"

#include <pcap/pcap.h>
#include <poll.h>
#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "capture/CaptureFilter.h"
#include "capture/PacketDecoder.h"
#include "capture/PcapFormat.h"
#include "capture/PcapTime.h"
#include "capture/PcapngSections.h"

namespace pelka {

namespace {

constexpr size_t kFileBufferSize = 1 << 20;
// A stream in front of a file (SnapLengthWidening) is read through a buffer
// of its own: glibc asks an unbuffered one for a byte at a time. In front of
// standard input it takes only what has come, so the buffer never waits to
// fill; StandardInputReady looks into both buffers.
constexpr size_t kWidenedBufferSize = 64 << 10;

void BufferWidened(FILE* widened) { std::setvbuf(widened, nullptr, _IOFBF, kWidenedBufferSize); }
constexpr auto kDropSampleInterval = std::chrono::seconds(1);

std::string LiveError(const std::string& name, int status, pcap_t* handle) {
  switch (status) {
    case PCAP_ERROR_NO_SUCH_DEVICE:
      return "no such interface: " + name;
    case PCAP_ERROR_PERM_DENIED:
      return "no permission to capture on " + name +
             ": run as root or give the program the CAP_NET_RAW and CAP_NET_ADMIN capabilities";
    case PCAP_ERROR_IFACE_NOT_UP:
      return "interface " + name + " is not up";
    default:
      return "cannot capture on " + name + ": " + pcap_geterr(handle);
  }
}

FILE* OpenCaptureFile(const std::string& path) { return path == "-" ? stdin : std::fopen(path.c_str(), "rb"); }

// A classic file is read in its own precision: libpcap then hands its
// fraction field over unchanged (as a signed 32-bit value), where scaling
// would mangle a fraction of a second or more. pcapng times come whole.
pcap_t* OpenOffline(FILE* file, bool nanosecond, char* message) {
  return pcap_fopen_offline_with_tstamp_precision(
      file, nanosecond ? PCAP_TSTAMP_PRECISION_NANO : PCAP_TSTAMP_PRECISION_MICRO, message);
}

}  // namespace

std::string UnsupportedLinkTypeError(const std::string& input, int link_type) {
  if (IsSupportedLinkType(link_type)) return {};
  const char* name = pcap_datalink_val_to_name(link_type);
  return input + ": link type " + std::to_string(link_type) + (name ? std::string(" (") + name + ")" : "") +
         " is not supported: only Ethernet, Linux cooked (SLL, SLL2), raw IP and loopback captures are read";
}

CaptureSource::CaptureSource() = default;

CaptureSource::~CaptureSource() {
  CloseCurrent();
  CloseHeldFiles();
}

void CaptureSource::OpenFiles(std::vector<std::string> paths) {
  CloseCurrent();
  CloseHeldFiles();
  paths_ = std::move(paths);
  next_path_ = 0;
  live_ = false;
}

void CaptureSource::ContinueFile(const std::string& path, uint64_t offset, uint64_t frames_before) {
  OpenFiles({path});
  start_offset_ = offset;
  frames_ = frames_before;
}

void CaptureSource::OpenAllFilesNow() {
  CloseHeldFiles();
  held_.resize(paths_.size());
  for (size_t i = next_path_; i < paths_.size(); ++i) {
    errno = 0;
    held_[i].file = OpenCaptureFile(paths_[i]);
    held_[i].open_error = held_[i].file ? 0 : errno;
  }
}

void CaptureSource::CloseHeldFiles() {
  for (HeldFile& held : held_)
    if (held.file && held.file != stdin) std::fclose(held.file);
  held_.clear();
}

bool CaptureSource::OpenLive(const std::string& interface_name, const LiveSettings& settings) {
  CloseCurrent();
  CloseHeldFiles();
  paths_.clear();
  char message[PCAP_ERRBUF_SIZE] = {};
  pcap_t* handle = pcap_create(interface_name.c_str(), message);
  if (!handle) {
    error_ = "cannot capture on " + interface_name + ": " + message;
    return false;
  }
  pcap_set_snaplen(handle, static_cast<int>(kPcapLargestRecord));
  pcap_set_promisc(handle, 1);
  pcap_set_timeout(handle, settings.read_timeout_ms);
  pcap_set_buffer_size(handle, static_cast<int>(uint64_t{settings.buffer_size_mib} << 20));
  pcap_set_tstamp_precision(handle, PCAP_TSTAMP_PRECISION_NANO);
  const int status = pcap_activate(handle);
  if (status < 0) {
    error_ = LiveError(interface_name, status, handle);
    pcap_close(handle);
    return false;
  }
  error_ = UnsupportedLinkTypeError(interface_name, pcap_datalink(handle));
  if (!error_.empty() || !ApplyFilter(handle, settings.filter, &error_)) {
    if (error_.rfind(interface_name, 0) != 0) error_ = interface_name + ": " + error_;
    pcap_close(handle);
    return false;
  }
  handle_ = handle;
  live_ = true;
  kernel_drops_ = 0;
  nanosecond_ = pcap_get_tstamp_precision(handle) == PCAP_TSTAMP_PRECISION_NANO;
  // libpcap's read timeout does not run out while nothing arrives, so a
  // quiet interface would never time out: reads do not block, and Next waits
  // on the descriptor itself.
  read_timeout_ms_ = settings.read_timeout_ms;
  selectable_fd_ = pcap_get_selectable_fd(handle);
  if (selectable_fd_ >= 0 && pcap_setnonblock(handle, 1, message) != 0) selectable_fd_ = -1;
  current_name_ = interface_name;
  return true;
}

bool CaptureSource::OpenNextFile() {
  if (next_path_ >= paths_.size()) return false;
  const size_t index = next_path_++;
  const std::string& path = paths_[index];
  current_name_ = path == "-" ? "standard input" : path;
  reading_stdin_ = path == "-";
  current_bytes_ = 0;
  FILE* file = nullptr;
  int open_error = 0;
  if (index < held_.size()) {
    file = std::exchange(held_[index].file, nullptr);
    open_error = held_[index].open_error;
  } else {
    file = OpenCaptureFile(path);
    open_error = errno;
  }
  if (!file) {
    error_ = "cannot open " + path + ": " + std::strerror(open_error);
    return false;
  }
  if (!file_buffer_) file_buffer_ = MakePageAlignedBytes(kFileBufferSize);
  std::setvbuf(file, reinterpret_cast<char*>(file_buffer_.get()), _IOFBF, kFileBufferSize);
  const int descriptor = file == stdin ? -1 : ::fileno(file);
  if (FILE* widened = WidenSnapLength(file, &snap_view_)) {
    if (widened != file) BufferWidened(widened);
    file = widened;
  }
  long_record_noted_ = false;
  char message[PCAP_ERRBUF_SIZE] = {};
  pcap_t* handle = OpenOffline(file, snap_view_.nanosecond, message);
  if (!handle) {
    if (file != stdin) std::fclose(file);
    error_ = "cannot read " + current_name_ + ": " + message;
    return false;
  }
  if (error_ = UnsupportedLinkTypeError(current_name_, pcap_datalink(handle)); !error_.empty()) {
    pcap_close(handle);
    return false;
  }
  if (start_offset_ && std::fseek(file, static_cast<long>(std::exchange(start_offset_, 0)), SEEK_SET) != 0) {
    pcap_close(handle);
    error_ = "cannot read " + current_name_ + ": " + std::strerror(errno);
    return false;
  }
  handle_ = handle;
  file_ = file;
  file_descriptor_ = descriptor;
  nanosecond_ = snap_view_.nanosecond;
  section_start_ = 0;
  return true;
}

bool CaptureSource::ResumeAtNextSection() {
  if (!file_ || file_descriptor_ < 0) return false;
  const long position = std::ftell(file_);
  if (position < 0) return false;
  const std::optional<uint64_t> next =
      FindByteOrderChange(file_descriptor_, section_start_, static_cast<uint64_t>(position));
  if (!next) return false;
  // The descriptor outlives the libpcap handle, which closes its stream: a
  // file opened before --user dropped the privileges stays readable.
  const int descriptor = ::fcntl(file_descriptor_, F_DUPFD_CLOEXEC, 0);
  if (descriptor < 0) return false;
  FILE* file = ::fdopen(descriptor, "rb");
  if (!file) {
    ::close(descriptor);
    return false;
  }
  // The old handle goes first: both streams would use the one buffer.
  pcap_close(handle_);
  handle_ = nullptr;
  file_ = nullptr;
  std::setvbuf(file, reinterpret_cast<char*>(file_buffer_.get()), _IOFBF, kFileBufferSize);
  // The new section's interfaces are shown to libpcap widened too.
  FILE* stream =
      std::fseek(file, static_cast<long>(*next), SEEK_SET) == 0 ? WidenSnapLength(file, &snap_view_) : nullptr;
  char message[PCAP_ERRBUF_SIZE] = {};
  if (stream) {
    if (stream != file) BufferWidened(stream);
    handle_ = OpenOffline(stream, false, message);
  }
  if (!handle_) {
    // Fail closes a handle only: the stream goes here.
    std::fclose(stream ? stream : file);
    return false;
  }
  file_ = stream;
  file_descriptor_ = descriptor;
  section_start_ = *next;
  return true;
}

void CaptureSource::NoteLongRecord(uint32_t captured_length) {
  const uint32_t stated = snap_view_.header_snap_length;
  const uint32_t exceeded = stated && captured_length > stated ? stated : snap_view_.exceeded_snap_length;
  if (!exceeded) return;
  long_record_noted_ = true;
  long_records_.push_back({current_name_, exceeded});
}

void CaptureSource::CloseCurrent() {
  if (!handle_) return;
  const long position = file_ ? std::ftell(file_) : -1;
  finished_bytes_ += position >= 0 ? static_cast<uint64_t>(position) : current_bytes_;
  pcap_close(handle_);  // closes the file too
  handle_ = nullptr;
  selectable_fd_ = -1;
  file_ = nullptr;
  file_descriptor_ = -1;
  reading_stdin_ = false;
  current_bytes_ = 0;
  current_name_.clear();
}

ReadStatus CaptureSource::Fail(const std::string& message) {
  error_ = message;
  CloseCurrent();
  return ReadStatus::kError;
}

ReadStatus CaptureSource::Next(CapturedFrame* frame) {
  for (;;) {
    if (stopped_) {
      SampleKernelDrops(true);
      return ReadStatus::kEnd;
    }
    if (!handle_) {
      if (live_) return ReadStatus::kEnd;
      error_.clear();
      if (OpenNextFile()) continue;
      return error_.empty() ? ReadStatus::kEnd : ReadStatus::kError;
    }
    if (reading_stdin_ && stdin_timeout_ms_ > 0 && !StandardInputReady()) return ReadStatus::kTimeout;
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    const int status = pcap_next_ex(handle_, &header, &data);
    if (status == 1) {
      frame->data = data;
      frame->captured_length = header->caplen;
      frame->wire_length = header->len;
      frame->number = ++frames_;
      // A file's fraction field is unsigned; libpcap hands it over signed.
      const uint64_t fraction = live_ ? static_cast<uint64_t>(header->ts.tv_usec)
                                      : static_cast<uint32_t>(header->ts.tv_usec);
      frame->time_us = PcapTimeMicroseconds(static_cast<uint64_t>(header->ts.tv_sec), fraction, nanosecond_);
      if (fraction >= PcapFractionsPerSecond(nanosecond_)) ++odd_time_frames_;
      frame->link_type = pcap_datalink(handle_);
      if (live_) SampleKernelDrops(false);
      current_bytes_ += header->caplen + kPcapRecordHeaderBytes;
      if (!long_record_noted_) NoteLongRecord(header->caplen);
      return ReadStatus::kFrame;
    }
    if (status == 0) {
      if (WaitForFrames()) continue;
      SampleKernelDrops(false);
      return ReadStatus::kTimeout;
    }
    if (status == PCAP_ERROR_BREAK) {
      if (live_) return ReadStatus::kEnd;
      CloseCurrent();
      continue;
    }
    const std::string reason = pcap_geterr(handle_);
    if (!live_ && ResumeAtNextSection()) continue;
    return Fail(current_name_ + ": " + reason + " (after frame " + std::to_string(frames_) + ")");
  }
}

bool CaptureSource::WaitForFrames() {
  if (selectable_fd_ < 0) return false;
  pollfd wanted{selectable_fd_, POLLIN, 0};
  return ::poll(&wanted, 1, read_timeout_ms_) > 0;
}

bool CaptureSource::StandardInputReady() const {
  // Bytes stdio already holds are there to read; glibc keeps them between
  // these two pointers, for standard input and for the stream libpcap reads
  // in front of it.
  if (stdin->_IO_read_ptr < stdin->_IO_read_end) return true;
  if (file_ && file_ != stdin && file_->_IO_read_ptr < file_->_IO_read_end) return true;
  // A stop signal cuts the wait short (-1): the next call sees the stop
  // rather than blocking in a read.
  pollfd wanted{STDIN_FILENO, POLLIN, 0};
  return ::poll(&wanted, 1, stdin_timeout_ms_) > 0;
}

void CaptureSource::SampleKernelDrops(bool now) {
  const auto time = std::chrono::steady_clock::now();
  if (!handle_ || !live_ || (!now && time - last_drop_sample_ < kDropSampleInterval)) return;
  last_drop_sample_ = time;
  pcap_stat counts{};
  if (pcap_stats(handle_, &counts) == 0) kernel_drops_.store(counts.ps_drop, std::memory_order_relaxed);
}

void CaptureSource::Stop() {
  stopped_ = true;
  if (handle_ && live_) pcap_breakloop(handle_);
}

uint64_t CaptureSource::bytes_read() const {
  const long position = file_ ? std::ftell(file_) : -1;
  return finished_bytes_ + (position >= 0 ? static_cast<uint64_t>(position) : current_bytes_);
}

uint64_t CaptureSource::total_bytes() const { return RegularFileBytes(paths_); }

uint64_t RegularFileBytes(const std::vector<std::string>& paths) {
  uint64_t total = 0;
  for (const std::string& path : paths) {
    struct stat info {};
    if (path != "-" && ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) total += info.st_size;
  }
  return total;
}

}  // namespace pelka
