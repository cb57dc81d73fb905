// The platform layer besides code pages (CodePageTest): base64 text, wide
// formatting with Windows conversions and the packet record reader.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "host/Base64Coder.h"
#include "host/PacketRecord.h"
#include "host/WideFormat.h"
#include "support/FakeFlow.h"

namespace pelka {
namespace {

TEST(Base64CoderTest, DecodeString) {
  const std::vector<std::pair<const wchar_t*, const wchar_t*>> cases = {  // null: nothing decodes
      {nullptr, nullptr},
      {L"", nullptr},
      {L"====", nullptr},
      {L" ?*\r\nQ", nullptr},
      {L"aGVs\r\n b\u4E2DG8", L"hello"},  // characters outside the alphabet skipped
      {L"aGk=aGVsbG8=", L"hi"},           // "=" ends the data
      {L"1tDOxA==", L"\u4E2D\u6587"},     // GBK bytes read in the ANSI code page
      {L"Pj4+Pz8/", L">>>???"},           // the two symbols of the alphabet, 62 and 63
  };
  CTQBase64Coder coder;  // one coder for all: each call replaces its text
  for (const auto& [input, expected] : cases) {
    const wchar_t* decoded = coder.DecodeString(input);
    EXPECT_EQ(decoded ? std::wstring(decoded) : L"(null)", expected ? expected : L"(null)")
        << (input ? input : L"(null)");
  }
}

// The module's formats are written with Windows meanings: "%s" and "%c" take
// wide text, "I64" and "I32" are length modifiers.
TEST(WideFormat, WindowsConversionsBecomeTheirPosixForms) {
  struct Case {
    const char* name;
    const wchar_t* format;
    const wchar_t* posix;
  };
  const std::vector<Case> cases = {
      {"wide string and character", L"%-10s|%c|100%%", L"%-10ls|%lc|100%%"},
      {"precision and star width", L"%.3s|%-*.*s", L"%.3ls|%-*.*ls"},
      {"64-bit", L"%I64u/%I64d/%I64x", L"%llu/%lld/%llx"},
      {"32-bit", L"%I32u", L"%u"},
  };
  for (const Case& c : cases) EXPECT_EQ(TranslateWideFormat(c.format), c.posix) << c.name;
  EXPECT_EQ(FormatWide(L"%I64u-%I64d", uint64_t{18446744073709551615u}, int64_t{-5}), L"18446744073709551615--5");
  const std::wstring long_text(5000, L'z');
  EXPECT_EQ(FormatWide(L"[%s]", long_text.c_str()), L"[" + long_text + L"]") << "the buffer grows";
}

using Layout = testing::PacketRecordBuilder::Layout;

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
