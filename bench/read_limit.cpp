// pelka-read-limit: the fastest a libpcap program can go through a capture:
// read every packet and add up its length, nothing else. By default it reads
// through a 1 MiB stdio buffer (fopen + setvbuf + pcap_fopen_offline), which
// is how a capture reader should read; --default lets libpcap open the file
// itself with its small default reads, for comparison.
#include <pcap/pcap.h>

#include <chrono>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

constexpr size_t kReadBuffer = 1 << 20;

struct Totals {
  uint64_t packets = 0;
  uint64_t bytes = 0;
};

void Count(u_char* user, const pcap_pkthdr* header, const u_char*) {
  auto* totals = reinterpret_cast<Totals*>(user);
  ++totals->packets;
  totals->bytes += header->caplen;
}

}  // namespace

int main(int argc, char** argv) {
  bool buffered = true;
  const char* path = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--default") buffered = false;
    else path = argv[i];
  }
  if (!path) {
    std::fprintf(stderr, "usage: pelka-read-limit [--default] FILE\n");
    return 2;
  }

  // glibc ignores setvbuf's size unless it is given the buffer; this one
  // outlives the file, which pcap_close closes.
  std::vector<char> buffer(kReadBuffer);
  const auto start = std::chrono::steady_clock::now();
  char error[PCAP_ERRBUF_SIZE] = "";
  pcap_t* pcap = nullptr;
  std::FILE* file = nullptr;
  if (buffered) {
    file = std::fopen(path, "rb");
    if (file) {
      std::setvbuf(file, buffer.data(), _IOFBF, buffer.size());
      pcap = pcap_fopen_offline(file, error);  // owns the file from here on
      if (!pcap) std::fclose(file);
    } else {
      std::snprintf(error, sizeof error, "%s", std::strerror(errno));
    }
  } else {
    pcap = pcap_open_offline(path, error);
  }
  if (!pcap) {
    std::fprintf(stderr, "pelka-read-limit: %s: %s\n", path, error);
    return 1;
  }
  Totals totals;
  const int result = pcap_loop(pcap, -1, &Count, reinterpret_cast<u_char*>(&totals));
  if (result == PCAP_ERROR) std::fprintf(stderr, "pelka-read-limit: %s\n", pcap_geterr(pcap));
  pcap_close(pcap);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  std::printf("packets %" PRIu64 "\nbytes %" PRIu64 "\nseconds %.3f\nmb_per_s %.1f\n", totals.packets, totals.bytes,
              seconds, seconds > 0 ? totals.bytes / seconds / 1e6 : 0.0);
  return result == PCAP_ERROR ? 1 : 0;
}
