#include "capture/PacketRecordBuilder.h"

#include <gtest/gtest.h>

#include <vector>

#include "host/PacketRecord.h"

namespace pelka {
namespace {

struct RecordCase {
  const char* name;
  uint32_t header_length;
  uint32_t tcp_offset;
  bool has_ports;
};

// A frame whose TCP header at `tcp_offset` carries ports 40000 -> 25.
std::vector<uint8_t> Frame(uint32_t header_length, uint32_t tcp_offset) {
  std::vector<uint8_t> frame(header_length, 0xEE);
  if (tcp_offset + 4 <= header_length) {
    frame[tcp_offset] = 0x9C;
    frame[tcp_offset + 1] = 0x40;
    frame[tcp_offset + 2] = 0x00;
    frame[tcp_offset + 3] = 0x19;
  }
  return frame;
}

TEST(PacketRecordBuilderTest, RecordsReadBackThroughTheModuleReaders) {
  const std::vector<RecordCase> cases = {
      {"ethernet ipv4", 54, 34, true},
      {"odd header length needs alignment", 59, 39, true},
      {"raw ip", 40, 20, true},
      {"long ipv6 extension chain", 4000, 3940, true},
      {"headers beyond 16-bit offsets", 70000, 69980, false},
      {"tcp offset outside the headers", 40, 40, false},
  };
  PacketRecordBuilder builder;
  for (const RecordCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::vector<uint8_t> frame = Frame(c.header_length, c.tcp_offset);
    const PacketRecord& record = builder.Build(123456789012ull, 1700000000123456ull, frame.data(), c.header_length,
                                               c.tcp_offset);
    EXPECT_EQ(GetPacketNumber(&record), 123456789012ull);
    EXPECT_EQ(GetPacketTime(&record), 1700000000123456ull);
    uint16_t source = 0, destination = 0;
    ASSERT_EQ(FindTcpPorts(&record, &source, &destination), c.has_ports);
    if (!c.has_ports) continue;
    EXPECT_EQ(source, 40000);
    EXPECT_EQ(destination, 25);
    EXPECT_EQ(record.record[7] & 0x0F, 1);
    EXPECT_EQ(record.record[24] | record.record[25] | record.record[26] | record.record[27], 0);  // flags clear
  }
}

TEST(PacketRecordBuilderTest, ReusesItsBufferOnceGrown) {
  PacketRecordBuilder builder;
  const std::vector<uint8_t> large = Frame(1500, 34);
  const uint8_t* first = builder.Build(1, 1, large.data(), 1500, 34).record;
  const std::vector<uint8_t> small = Frame(54, 34);
  for (uint64_t n = 2; n < 100; ++n) {
    const PacketRecord& record = builder.Build(n, n, small.data(), 54, 34);
    ASSERT_EQ(record.record, first);
    ASSERT_EQ(GetPacketNumber(&record), n);
  }
}

}  // namespace
}  // namespace pelka
