// pelka-read-limit: the fastest a program can go through a capture: read every
// packet, add up its length and touch its last byte, nothing else. Each loop
// is a plain way to read a classic pcap file; the benchmark runs them all and
// takes the fastest as the limit.
//
//   --loop aligned   pcap_next_ex over pcap_fopen_offline, 1 MiB stdio buffer
//                    that starts on a page boundary (the default)
//   --loop heap      the same with a 1 MiB buffer from the heap, which starts
//                    16 bytes into a page: the kernel copies into it several
//                    times slower on the machines measured
//   --loop default   pcap_open_offline with libpcap's own small reads
//   --loop blocks    pread of 1 MiB page-aligned blocks, walking the record
//                    headers in place (how pelka-email reads a regular file)
//   --loop program   pelka-email's own block reader (capture/PcapBlockReader)
//                    with its single-thread pool: what reading costs the
//                    program, every check it makes on a record included
#include <fcntl.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <chrono>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "capture/PcapBlockReader.h"

namespace {

constexpr size_t kBuffer = 1 << 20;
constexpr size_t kFileHeader = 24;
constexpr size_t kRecordHeader = 16;

struct Totals {
  uint64_t packets = 0;
  uint64_t bytes = 0;
  uint64_t touched = 0;  // keeps the last-byte reads from being optimised away
};

// The loops over libpcap: `buffer` null leaves libpcap its own reads.
bool ReadWithLibpcap(const char* path, char* buffer, Totals* totals, std::string* error) {
  char message[PCAP_ERRBUF_SIZE] = "";
  pcap_t* pcap = nullptr;
  if (buffer) {
    std::FILE* file = std::fopen(path, "rb");
    if (!file) {
      *error = std::strerror(errno);
      return false;
    }
    std::setvbuf(file, buffer, _IOFBF, kBuffer);
    pcap = pcap_fopen_offline(file, message);  // owns the file from here on
    if (!pcap) std::fclose(file);
  } else {
    pcap = pcap_open_offline(path, message);
  }
  if (!pcap) {
    *error = message;
    return false;
  }
  pcap_pkthdr* header = nullptr;
  const u_char* data = nullptr;
  int status = 0;
  while ((status = pcap_next_ex(pcap, &header, &data)) == 1) {
    ++totals->packets;
    totals->bytes += header->caplen;
    if (header->caplen) totals->touched += data[header->caplen - 1];
  }
  if (status == PCAP_ERROR) *error = pcap_geterr(pcap);
  pcap_close(pcap);
  return status != PCAP_ERROR;
}

uint32_t Load32(const uint8_t* p) {
  uint32_t value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

// Little-endian microsecond files only, which is what the generator writes.
bool ReadBlocks(const char* path, uint8_t* block, Totals* totals, std::string* error) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = std::strerror(errno);
    return false;
  }
  std::vector<uint8_t> carry;  // a record that runs into the next block
  uint64_t offset = kFileHeader;
  size_t need = kRecordHeader;  // bytes the record in `carry` still wants
  for (;;) {
    const ssize_t got = ::pread(fd, block, kBuffer, static_cast<off_t>(offset));
    if (got <= 0) break;
    offset += static_cast<uint64_t>(got);
    size_t position = 0;
    const size_t filled = static_cast<size_t>(got);
    while (position < filled) {
      const bool joining = !carry.empty();
      const uint8_t* record = block + position;
      size_t length = kRecordHeader;
      if (!joining && filled - position >= kRecordHeader) length += Load32(record + 8);
      if (joining || filled - position < length) {
        const size_t take = std::min(need - carry.size(), filled - position);
        carry.insert(carry.end(), record, record + take);
        position += take;
        if (carry.size() == kRecordHeader) need = kRecordHeader + Load32(carry.data() + 8);
        if (carry.size() < need) continue;
        record = carry.data();
        length = need;
      } else {
        position += length;
      }
      const uint32_t captured = Load32(record + 8);
      ++totals->packets;
      totals->bytes += captured;
      if (captured) totals->touched += record[length - 1];
      if (record == carry.data()) {
        carry.clear();
        need = kRecordHeader;
      }
    }
  }
  ::close(fd);
  return true;
}

// The program's reader, as its single-thread run uses it.
bool ReadWithProgramReader(const char* path, Totals* totals, std::string* error) {
  pelka::PcapBlockPool pool(2);
  pelka::PcapBlockReader reader(&pool);
  reader.OpenFiles({path});
  pelka::CapturedFrame frame;
  pelka::PcapBlock* block = nullptr;
  pelka::ReadStatus status;
  while ((status = reader.Next(&frame, &block)) == pelka::ReadStatus::kFrame) {
    ++totals->packets;
    totals->bytes += frame.captured_length;
    if (frame.captured_length) totals->touched += frame.data[frame.captured_length - 1];
  }
  if (!reader.error().empty()) *error = reader.error();
  return status != pelka::ReadStatus::kError && reader.error().empty();
}

}  // namespace

int main(int argc, char** argv) {
  std::string loop = "aligned";
  const char* path = nullptr;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg(argv[i]);
    if (arg == "--loop" && i + 1 < argc) loop = argv[++i];
    else if (arg == "--default") loop = "default";  // the older spelling
    else path = argv[i];
  }
  if (!path || (loop != "aligned" && loop != "heap" && loop != "default" && loop != "blocks" && loop != "program")) {
    std::fprintf(stderr, "usage: pelka-read-limit [--loop aligned|heap|default|blocks|program] FILE\n");
    return 2;
  }

  // glibc ignores setvbuf's size unless it is given the buffer; these outlive
  // the file, which pcap_close closes.
  std::vector<char> heap(kBuffer);
  auto* aligned = static_cast<uint8_t*>(std::aligned_alloc(4096, kBuffer));
  const auto start = std::chrono::steady_clock::now();
  Totals totals;
  std::string error;
  bool ok = false;
  if (loop == "blocks") ok = ReadBlocks(path, aligned, &totals, &error);
  else if (loop == "program") ok = ReadWithProgramReader(path, &totals, &error);
  else if (loop == "default") ok = ReadWithLibpcap(path, nullptr, &totals, &error);
  else ok = ReadWithLibpcap(path, loop == "heap" ? heap.data() : reinterpret_cast<char*>(aligned), &totals, &error);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::free(aligned);
  if (!ok) {
    std::fprintf(stderr, "pelka-read-limit: %s: %s\n", path, error.c_str());
    return 1;
  }
  std::printf("packets %" PRIu64 "\nbytes %" PRIu64 "\nseconds %.3f\nmb_per_s %.1f\ntouched %" PRIu64 "\n",
              totals.packets, totals.bytes, seconds, seconds > 0 ? totals.bytes / seconds / 1e6 : 0.0,
              totals.touched);
  return 0;
}
