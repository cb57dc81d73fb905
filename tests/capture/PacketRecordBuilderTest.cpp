#include "capture/PacketRecordBuilder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "host/PacketRecord.h"

namespace pelka {
namespace {

// A frame whose TCP header at `tcp_offset` carries ports 40000 -> 25.
std::vector<uint8_t> Frame(uint32_t header_length, uint32_t tcp_offset) {
  std::vector<uint8_t> frame(header_length, 0xEE);
  if (tcp_offset + 4 <= header_length) std::copy_n("\x9C\x40\x00\x19", 4, frame.begin() + tcp_offset);
  return frame;
}

TEST(PacketRecordBuilderTest, RecordsReadBackThroughTheModuleReaders) {
  const struct {
    const char* name;
    uint32_t header_length, tcp_offset;
    bool has_ports;
  } cases[] = {
      {"ethernet ipv4", 54, 34, true},
      {"odd header length needs alignment", 59, 39, true},
      {"long ipv6 extension chain", 4000, 3940, true},
      {"headers beyond 16-bit offsets", 70000, 69980, false},
      {"tcp offset outside the headers", 40, 40, false},
  };
  PacketRecordBuilder builder;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::vector<uint8_t> frame = Frame(c.header_length, c.tcp_offset);
    const PacketRecord& record = builder.Build(123456789012ull, 1700000000123456ull, frame.data(), c.header_length,
                                               c.tcp_offset);
    EXPECT_EQ(GetPacketNumber(&record), 123456789012ull);
    EXPECT_EQ(GetPacketTime(&record), 1700000000123456ull);
    uint16_t source = 0, destination = 0;
    ASSERT_EQ(FindTcpPorts(&record, &source, &destination), c.has_ports);
    if (!c.has_ports) {
      EXPECT_EQ(record.record[7] & 0x0F, 0) << "a record without layers, whatever the one before held";
      continue;
    }
    EXPECT_EQ(source, 40000);
    EXPECT_EQ(destination, 25);
    EXPECT_EQ(record.record[7] & 0x0F, 1);
    EXPECT_EQ(record.record[24] | record.record[25] | record.record[26] | record.record[27], 0);  // flags clear
  }
}

}  // namespace
}  // namespace pelka
