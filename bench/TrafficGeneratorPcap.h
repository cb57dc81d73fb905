// Writes generated TCP segments as a classic pcap file (microsecond times,
// Ethernet link type), each frame Ethernet + IPv4 + TCP with correct lengths
// and checksums.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <span>
#include <vector>

namespace pelka {

struct TcpEndpoint {
  std::array<uint8_t, 6> mac{};
  uint32_t ip = 0;  // host order
  uint16_t port = 0;
};

namespace tcp_flag {
inline constexpr uint8_t kFin = 0x01;
inline constexpr uint8_t kSyn = 0x02;
inline constexpr uint8_t kRst = 0x04;
inline constexpr uint8_t kPsh = 0x08;
inline constexpr uint8_t kAck = 0x10;
}  // namespace tcp_flag

struct TcpSegment {
  const TcpEndpoint* from = nullptr;
  const TcpEndpoint* to = nullptr;
  uint32_t seq = 0;
  uint32_t ack = 0;
  uint8_t flags = 0;
  uint16_t ip_id = 0;
  uint16_t window = 0;
  uint16_t mss_option = 0;  // non-zero: the segment carries an MSS option (SYNs)
  std::span<const uint8_t> payload;
  uint64_t time_us = 0;
};

class PcapTrafficWriter {
 public:
  // Writes the file header at once; `out` stays the caller's.
  explicit PcapTrafficWriter(std::FILE* out);

  void Write(const TcpSegment& segment);

  bool ok() const { return ok_; }
  uint64_t packets() const { return packets_; }
  uint64_t file_bytes() const { return file_bytes_; }

 private:
  void Put(const void* bytes, size_t length);

  std::FILE* out_;
  std::vector<uint8_t> frame_;
  bool ok_ = true;
  uint64_t packets_ = 0;
  uint64_t file_bytes_ = 0;
};

}  // namespace pelka
