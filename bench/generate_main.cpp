// pelka-traffic-gen: writes the benchmark's mail traffic capture and prints
// what it holds, one "name value" pair per line, for scripts to read.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/TrafficGenerator.h"

namespace {

constexpr size_t kOutputBuffer = 1 << 20;

void Usage() {
  std::fprintf(stderr,
               "usage: pelka-traffic-gen -o FILE [--bytes SIZE] [--seed N]\n"
               "                         [--messages N --message-size SIZE]\n"
               "                         [--flow-limit SIZE] [--sessions N]\n"
               "SIZE takes the suffixes K, M and G (powers of 1024).\n");
}

// A byte count with an optional K/M/G suffix; false when malformed.
bool ParseSize(std::string_view text, uint64_t& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  const std::string copy(text);
  errno = 0;
  const unsigned long long number = std::strtoull(copy.c_str(), &end, 10);
  if (errno != 0 || end == copy.c_str()) return false;
  const std::string_view suffix(end);
  uint64_t scale = 1;
  if (suffix == "K" || suffix == "k") scale = 1ull << 10;
  else if (suffix == "M" || suffix == "m") scale = 1ull << 20;
  else if (suffix == "G" || suffix == "g") scale = 1ull << 30;
  else if (!suffix.empty()) return false;
  value = number * scale;
  return true;
}

void Print(const char* name, uint64_t value) { std::printf("%s %" PRIu64 "\n", name, value); }

}  // namespace

int main(int argc, char** argv) {
  pelka::TrafficOptions options;
  std::string path;
  // Every option takes a value.
  for (int i = 1; i < argc; i += 2) {
    const std::string_view arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    uint64_t number = 0;
    bool ok = value != nullptr;
    if (arg == "-o") path = value ? value : "";
    else if (arg == "--bytes") ok = ok && ParseSize(value, options.target_bytes);
    else if (arg == "--seed") ok = ok && ParseSize(value, options.seed);
    else if (arg == "--message-size") ok = ok && ParseSize(value, options.message_size);
    else if (arg == "--flow-limit") ok = ok && ParseSize(value, options.flow_limit);
    else if (arg == "--messages" || arg == "--sessions") {
      ok = ok && ParseSize(value, number) && number > 0 && number < (1ull << 31);
      (arg == "--messages" ? options.message_count : options.concurrent_sessions) = static_cast<uint32_t>(number);
    } else {
      ok = false;
    }
    if (!ok) {
      Usage();
      return 2;
    }
  }
  if (path.empty() || (options.message_count && options.message_size == 0) || options.flow_limit < (64u << 10)) {
    Usage();
    return 2;
  }

  // glibc ignores setvbuf's size unless it is given the buffer, which must
  // outlive the file.
  std::vector<char> buffer(kOutputBuffer);
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::fopen(path.c_str(), "wb"), &std::fclose);
  if (!out) {
    std::fprintf(stderr, "pelka-traffic-gen: cannot open %s: %s\n", path.c_str(), std::strerror(errno));
    return 1;
  }
  std::setvbuf(out.get(), buffer.data(), _IOFBF, buffer.size());
  const pelka::TrafficSummary summary = pelka::GenerateTraffic(options, out.get());
  if (!summary.write_ok || std::fclose(out.release()) != 0) {
    std::fprintf(stderr, "pelka-traffic-gen: writing %s failed\n", path.c_str());
    return 1;
  }

  std::printf("file %s\n", path.c_str());
  Print("packets", summary.packets);
  Print("file_bytes", summary.file_bytes);
  Print("smtp_flows", summary.flows[0]);
  Print("pop3_flows", summary.flows[1]);
  Print("imap_flows", summary.flows[2]);
  Print("smtp_messages", summary.messages[0]);
  Print("smtp_bdat_messages", summary.bdat_messages);
  Print("pop3_messages", summary.messages[1]);
  Print("imap_messages", summary.messages[2]);
  Print("messages", summary.messages[0] + summary.messages[1] + summary.messages[2]);
  Print("expected_records", summary.expected_records);
  Print("message_bytes", summary.message_bytes);
  std::printf("capture_seconds %.3f\n", double(summary.last_time_us - summary.first_time_us) / 1e6);
  return 0;
}
