// The wide formatting of the original platform and the packet record reader.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "host/DataFormat.h"
#include "host/PacketRecord.h"
#include "host/WideFormat.h"
#include "support/FakeFlow.h"

namespace pelka {
namespace {

using testing::PacketRecordBuilder;

TEST(WideFormat, WindowsConversionsMeanWhatTheyMeantThere) {
  EXPECT_EQ(TranslateWideFormat(L"%s <%s>"), L"%ls <%ls>");
  EXPECT_EQ(TranslateWideFormat(L"%-10s|%c"), L"%-10ls|%lc");
  EXPECT_EQ(TranslateWideFormat(L"%I64u/%I64d/%I64x"), L"%llu/%lld/%llx");
  EXPECT_EQ(TranslateWideFormat(L"100%% %d"), L"100%% %d");
  EXPECT_EQ(FormatWide(L"\"%s\"<%s>", L"N", L"x@y"), L"\"N\"<x@y>");
  EXPECT_EQ(FormatWide(L"%I64u-%I64d", uint64_t{18446744073709551615u}, int64_t{-5}), L"18446744073709551615--5");
  EXPECT_EQ(FormatWide(L"%c%c", L'\x4E2D', L'a'), L"\x4E2D" L"a");
  const std::wstring long_text(5000, L'z');
  EXPECT_EQ(FormatWide(L"[%s]", long_text.c_str()), L"[" + long_text + L"]") << "the buffer grows";
}

TEST(DataFormat, Ipv4AddressesAsDottedDecimal) {
  const CTQDataFormat format;
  EXPECT_EQ(format.FormatIpAddress(0), L"0.0.0.0");
  EXPECT_EQ(format.FormatIpAddress(0xFFFFFFFF), L"255.255.255.255");
  EXPECT_EQ(format.FormatIpAddress(0x0A006409), L"10.0.100.9");
  EXPECT_EQ(format.FormatIpAddress(0xC0A8010A), L"192.168.1.10");
}

TEST(PacketRecordReader, ReadsNumberTimeAndPortsInEveryLayout) {
  for (auto layout : {PacketRecordBuilder::Layout::kInline, PacketRecordBuilder::Layout::kShifted,
                      PacketRecordBuilder::Layout::kIndirect}) {
    PacketRecordBuilder builder(layout);
    const PacketRecord* packet = builder.Build(42, 1'234'567, 40001, 25);
    uint16_t source = 0, destination = 0;
    ASSERT_TRUE(FindTcpPorts(packet, &source, &destination));
    EXPECT_EQ(source, 40001);
    EXPECT_EQ(destination, 25);
    EXPECT_EQ(GetPacketNumber(packet), 42u);
    EXPECT_EQ(GetPacketTime(packet), 1'234'567u);
  }
}

TEST(PacketRecordReader, RefusesRecordsWhoseOffsetsPointOutside) {
  struct Case {
    const char* what;
    PacketRecordBuilder::Layout layout;
    std::function<void(PacketRecordBuilder&)> damage;
  } cases[] = {
      {"no layers", PacketRecordBuilder::Layout::kInline, [](auto& b) { b.record_bytes()[7] = 0; }},
      {"no TCP entry", PacketRecordBuilder::Layout::kInline, [](auto& b) { b.record_bytes()[36] = 0x11; }},
      {"table beyond the record", PacketRecordBuilder::Layout::kInline,
       [](auto& b) { b.record_bytes()[2] = 0xF0; }},
      {"variable area beyond the record", PacketRecordBuilder::Layout::kInline,
       [](auto& b) { b.record_bytes()[29] = 0x7F; }},
      {"header offset beyond the record", PacketRecordBuilder::Layout::kInline,
       [](auto& b) { b.record_bytes()[38] = 0xFF; }},
      {"record cut short", PacketRecordBuilder::Layout::kInline, [](auto& b) { b.packet().record_length = 30; }},
      {"stored address before the frame", PacketRecordBuilder::Layout::kIndirect,
       [](auto& b) { b.record_bytes()[32] -= 1; }},
      {"header beyond the frame", PacketRecordBuilder::Layout::kIndirect,
       [](auto& b) { b.packet().frame_length = 22; }},
      {"no frame", PacketRecordBuilder::Layout::kIndirect, [](auto& b) { b.packet().frame = nullptr; }},
  };
  for (const Case& c : cases) {
    PacketRecordBuilder builder(c.layout);
    builder.Build(1, 2, 40001, 25);
    c.damage(builder);
    uint16_t source = 0, destination = 0;
    EXPECT_FALSE(FindTcpPorts(&builder.packet(), &source, &destination)) << c.what;
  }
  const PacketRecord empty{};
  EXPECT_EQ(GetPacketNumber(&empty), 0u);
  EXPECT_EQ(GetPacketTime(nullptr), 0u);
}

}  // namespace
}  // namespace pelka
