// Deterministic mail traffic for the benchmark: SMTP, POP3 and IMAP4 sessions
// over Ethernet/IPv4/TCP, several at a time and interleaved by capture time,
// written as one pcap file. The same options and seed give the same file.
//
// Two ways to size the capture:
// - by bytes: sessions start until the file reaches about `target_bytes`;
//   messages have log-normal sizes from 2 KB to 3 MB, median about 30 KB;
// - by messages: `message_count` messages of `message_size` bytes each.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>

namespace pelka {

struct TrafficOptions {
  uint64_t target_bytes = 64ull * 1024 * 1024;
  uint64_t seed = 1;
  uint32_t message_count = 0;  // non-zero: size by messages
  uint64_t message_size = 0;
  uint64_t flow_limit = 2ull * 1024 * 1024;  // the email module's max_flow_length
  uint32_t concurrent_sessions = 8;
};

struct TrafficSummary {
  // Indexed by MailProtocol.
  std::array<uint64_t, 3> flows{};
  std::array<uint64_t, 3> messages{};
  uint64_t bdat_messages = 0;     // SMTP messages sent in BDAT chunks
  uint64_t expected_records = 0;  // messages the email module records
  uint64_t message_bytes = 0;
  uint64_t packets = 0;
  uint64_t file_bytes = 0;
  uint64_t first_time_us = 0;
  uint64_t last_time_us = 0;
  bool write_ok = true;
};

// Writes the capture to `out` (the caller opens, buffers and closes it).
TrafficSummary GenerateTraffic(const TrafficOptions& options, std::FILE* out);

}  // namespace pelka
