// The wide formatting of the original platform and the packet record reader.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "host/PacketRecord.h"
#include "host/WideFormat.h"
#include "support/FakeFlow.h"

namespace pelka {
namespace {

using Layout = testing::PacketRecordBuilder::Layout;

TEST(WideFormat, WindowsConversionsMeanWhatTheyMeantThere) {
  EXPECT_EQ(TranslateWideFormat(L"%-10s|%c|100%%"), L"%-10ls|%lc|100%%");
  EXPECT_EQ(TranslateWideFormat(L"%I64u/%I64d/%I64x"), L"%llu/%lld/%llx");
  EXPECT_EQ(FormatWide(L"%I64u-%I64d", uint64_t{18446744073709551615u}, int64_t{-5}), L"18446744073709551615--5");
  EXPECT_EQ(FormatWide(L"%c%s", L'\x4E2D', L"a"), L"\x4E2D" L"a");
  const std::wstring long_text(5000, L'z');
  EXPECT_EQ(FormatWide(L"[%s]", long_text.c_str()), L"[" + long_text + L"]") << "the buffer grows";
}

TEST(PacketRecordReader, ReadsNumberTimeAndPortsInEveryLayout) {
  for (Layout layout : {Layout::kInline, Layout::kShifted, Layout::kIndirect}) {
    testing::PacketRecordBuilder builder(layout);
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
  using B = testing::PacketRecordBuilder;
  const std::vector<std::tuple<const char*, Layout, std::function<void(B&)>>> cases = {
      {"no layers", Layout::kInline, [](B& b) { b.record_bytes()[7] = 0; }},
      {"no TCP entry", Layout::kInline, [](B& b) { b.record_bytes()[36] = 0x11; }},
      {"table beyond the record", Layout::kInline, [](B& b) { b.record_bytes()[2] = 0xF0; }},
      {"variable area beyond the record", Layout::kInline, [](B& b) { b.record_bytes()[29] = 0x7F; }},
      {"header offset beyond the record", Layout::kInline, [](B& b) { b.record_bytes()[38] = 0xFF; }},
      {"record cut short", Layout::kInline, [](B& b) { b.packet().record_length = 30; }},
      {"stored address before the frame", Layout::kIndirect, [](B& b) { b.record_bytes()[32] -= 1; }},
      {"header beyond the frame", Layout::kIndirect, [](B& b) { b.packet().frame_length = 22; }},
      {"no frame", Layout::kIndirect, [](B& b) { b.packet().frame = nullptr; }},
  };
  for (const auto& [what, layout, damage] : cases) {
    B builder(layout);
    builder.Build(1, 2, 40001, 25);
    damage(builder);
    uint16_t source = 0, destination = 0;
    EXPECT_FALSE(FindTcpPorts(&builder.packet(), &source, &destination)) << what;
  }
  const PacketRecord empty{};
  EXPECT_EQ(GetPacketNumber(&empty), 0u);
  EXPECT_EQ(GetPacketTime(nullptr), 0u);
}

}  // namespace
}  // namespace pelka
