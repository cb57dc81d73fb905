#include "bench/TrafficGeneratorPcap.h"

#include <cstring>

namespace pelka {
namespace {

constexpr size_t kEthernetHeader = 14;
constexpr size_t kIpHeader = 20;
constexpr size_t kTcpHeader = 20;
constexpr uint32_t kPcapMagic = 0xA1B2C3D4;  // microsecond times
constexpr uint32_t kSnapLength = 65535;
constexpr uint32_t kLinkEthernet = 1;

void PutBe16(uint8_t* at, uint16_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}

void PutBe32(uint8_t* at, uint32_t value) {
  PutBe16(at, static_cast<uint16_t>(value >> 16));
  PutBe16(at + 2, static_cast<uint16_t>(value));
}

// Ones' complement sum of 16-bit big-endian words, not yet folded.
uint64_t SumWords(const uint8_t* bytes, size_t length) {
  uint64_t sum = 0;
  size_t i = 0;
  for (; i + 1 < length; i += 2) sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
  if (i < length) sum += static_cast<uint32_t>(bytes[i] << 8);
  return sum;
}

uint16_t Fold(uint64_t sum) {
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

}  // namespace

PcapTrafficWriter::PcapTrafficWriter(std::FILE* out) : out_(out) {
  // The file header in the writer's byte order, as pcap readers expect.
  const uint32_t magic = kPcapMagic;
  const uint16_t version[2] = {2, 4};
  const int32_t zone = 0;
  const uint32_t sigfigs = 0, snap = kSnapLength, link = kLinkEthernet;
  Put(&magic, 4);
  Put(version, 4);
  Put(&zone, 4);
  Put(&sigfigs, 4);
  Put(&snap, 4);
  Put(&link, 4);
}

void PcapTrafficWriter::Write(const TcpSegment& segment) {
  const size_t options = segment.mss_option ? 4 : 0;
  const size_t tcp_length = kTcpHeader + options + segment.payload.size();
  const size_t ip_length = kIpHeader + tcp_length;
  frame_.resize(kEthernetHeader + ip_length);
  uint8_t* eth = frame_.data();
  std::memcpy(eth, segment.to->mac.data(), 6);
  std::memcpy(eth + 6, segment.from->mac.data(), 6);
  PutBe16(eth + 12, 0x0800);

  uint8_t* ip = eth + kEthernetHeader;
  ip[0] = 0x45;
  ip[1] = 0;
  PutBe16(ip + 2, static_cast<uint16_t>(ip_length));
  PutBe16(ip + 4, segment.ip_id);
  PutBe16(ip + 6, 0x4000);  // don't fragment
  ip[8] = 64;
  ip[9] = 6;
  PutBe16(ip + 10, 0);
  PutBe32(ip + 12, segment.from->ip);
  PutBe32(ip + 16, segment.to->ip);
  PutBe16(ip + 10, Fold(SumWords(ip, kIpHeader)));

  uint8_t* tcp = ip + kIpHeader;
  PutBe16(tcp, segment.from->port);
  PutBe16(tcp + 2, segment.to->port);
  PutBe32(tcp + 4, segment.seq);
  PutBe32(tcp + 8, segment.ack);
  tcp[12] = static_cast<uint8_t>(((kTcpHeader + options) / 4) << 4);
  tcp[13] = segment.flags;
  PutBe16(tcp + 14, segment.window);
  PutBe16(tcp + 16, 0);
  PutBe16(tcp + 18, 0);
  if (options) {
    tcp[20] = 2;
    tcp[21] = 4;
    PutBe16(tcp + 22, segment.mss_option);
  }
  if (!segment.payload.empty()) {
    std::memcpy(tcp + kTcpHeader + options, segment.payload.data(), segment.payload.size());
  }
  // Pseudo header: addresses, protocol and TCP length.
  uint64_t sum = SumWords(ip + 12, 8) + 6 + tcp_length + SumWords(tcp, tcp_length);
  PutBe16(tcp + 16, Fold(sum));

  const uint32_t record[4] = {static_cast<uint32_t>(segment.time_us / 1000000),
                              static_cast<uint32_t>(segment.time_us % 1000000),
                              static_cast<uint32_t>(frame_.size()), static_cast<uint32_t>(frame_.size())};
  Put(record, sizeof record);
  Put(frame_.data(), frame_.size());
  ++packets_;
}

void PcapTrafficWriter::Put(const void* bytes, size_t length) {
  if (std::fwrite(bytes, 1, length, out_) != length) ok_ = false;
  file_bytes_ += length;
}

}  // namespace pelka
