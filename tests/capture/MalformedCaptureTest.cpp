// Damaged and hostile captures through the whole program: each gives a clear
// message and the documented exit status, never a crash, and what was found
// before the damage stays in the outputs, in whole lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "ProgramHarness.h"
#include "capture/CommandLine.h"

namespace pelka {
namespace {

using test::Frame;
using test::ProgramResult;
using test::TempDir;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::StartsWith;


const std::string kBefore = "Before the damage";
const std::string kAfter = "After the damage";

constexpr size_t kEthernetHeader = 14;
constexpr size_t kTcpOffsetByte = kEthernetHeader + 20 + 12;

std::string SessionBefore() { return test::PcapRecords(test::SmtpSession(40001, kBefore)); }
std::string SessionAfter() { return test::PcapRecords(test::SmtpSession(40002, kAfter), 1000); }

// Both sessions, the second broken off in its DATA, 20 bytes into a record.
std::string CutInsideSecondSession() {
  std::vector<Frame> after = test::SmtpSession(40002, kAfter);
  const size_t first_body_frame = 13;
  const std::string next_record = test::PcapRecord(after[first_body_frame], test::kCaptureStartUs);
  after.resize(first_body_frame);
  return test::PcapFileHeader() + SessionBefore() + test::PcapRecords(after, 1000) + next_record.substr(0, 20);
}

// A data segment of a third connection on port 25 with one header byte changed.
Frame PatchedFrame(size_t offset, uint8_t value) {
  test::Segment segment;
  segment.source_port = 40003;
  segment.flags = kTcpAck | kTcpPsh;
  segment.payload = "MAIL FROM:<mallory@example.org>\r\n";
  Frame frame = test::EthernetFrame(segment);
  frame.bytes[offset] = value;
  return frame;
}

// A pcap record header claiming `captured` bytes, with `present` bytes after it.
std::string RecordClaiming(uint32_t captured, size_t present) {
  std::string out;
  for (uint32_t field : {1700000000u, 500000u, captured, captured}) test::Put32(out, field);
  return out + std::string(present, '\x55');
}

// The session's records, every other one stamped 4000 s early with
// 4,000,000,000 microseconds: the same times, once the fraction is carried
// into the seconds (read otherwise, the connection would go idle).
std::string CarriedTimeRecords(const std::vector<Frame>& frames) {
  std::string out;
  for (size_t i = 0; i < frames.size(); ++i) {
    const uint64_t time = test::kCaptureStartUs + i * 100;
    std::string record = test::PcapRecord(frames[i], time), stamp;
    if (i % 2 == 0) {
      out += record;
      continue;
    }
    test::Put32(stamp, static_cast<uint32_t>(time / 1000000 - 4000));
    test::Put32(stamp, static_cast<uint32_t>(time % 1000000 + 4000000000u));
    out += record.replace(0, stamp.size(), stamp);
  }
  return out;
}

// A pcapng section of Ethernet frames in either byte order, in enhanced
// packet blocks or in simple ones (which hold at most the snap length).
std::string PcapngSection(const std::vector<Frame>& frames, uint64_t first_index, bool big,
                          uint32_t snap_length = 65535, bool simple = false) {
  const auto block = [big](uint32_t type, std::string body) {
    body.resize((body.size() + 3) / 4 * 4, '\0');
    std::string out;
    for (uint32_t field : {type, static_cast<uint32_t>(body.size() + 12)}) test::Put32(out, field, big);
    out += body;
    test::Put32(out, static_cast<uint32_t>(body.size() + 12), big);
    return out;
  };
  std::string header, interface;
  test::Put32(header, 0x1A2B3C4D, big);
  test::Put32(header, big ? 0x00010000 : 0x00000001, big);  // version 1.0
  header += std::string(8, '\xFF');                          // section length unknown
  test::Put32(interface, big ? 0x00010000 : 0x00000001, big); // Ethernet, reserved
  test::Put32(interface, snap_length, big);
  std::string out = block(0x0A0D0D0A, header) + block(1, interface);
  for (size_t i = 0; i < frames.size(); ++i) {
    const uint64_t time = test::kCaptureStartUs + (first_index + i) * 100;
    const auto length = static_cast<uint32_t>(frames[i].bytes.size());
    std::string packet;
    if (simple) {
      test::Put32(packet, length, big);
      out += block(3, packet.append(frames[i].bytes.begin(), frames[i].bytes.begin() + std::min(length, snap_length)));
      continue;
    }
    for (uint64_t field : {uint64_t{0}, time >> 32, time & 0xFFFFFFFF, uint64_t{length}, uint64_t{length}})
      test::Put32(packet, static_cast<uint32_t>(field), big);
    out += block(6, packet.append(frames[i].bytes.begin(), frames[i].bytes.end()));
  }
  return out;
}

struct MalformedCase {
  const char* name;
  std::vector<std::string> files;     // capture files, read in order
  int status;
  std::vector<std::string> subjects;  // the records that must be found, in order
  std::vector<std::string> err_parts; // stderr must hold each; "FILE0" names the first file
  bool on_stdin = false;              // the one file comes through standard input
};

void PrintTo(const MalformedCase& c, std::ostream* out) { *out << c.name; }

const std::vector<MalformedCase>& Cases() {
  const std::string header = test::PcapFileHeader();
  const std::string zero = test::PcapRecord({{}, 0}, test::kCaptureStartUs + 1) +
                           test::PcapRecord({{}, 60}, test::kCaptureStartUs + 2);
  // Each lie is a row of PacketDecoderTest; here, that the run goes on past them.
  const std::vector<Frame> lies = {
      PatchedFrame(kEthernetHeader, 0x4F),   // IP header of 60 bytes, longer than the frame's IP part
      PatchedFrame(kEthernetHeader + 2, 7),  // IP total length of 1865 bytes, more than captured
      PatchedFrame(kTcpOffsetByte, 0x20),    // 8-byte TCP header, shorter than any
  };
  static const std::vector<MalformedCase> cases = {
      {"TruncatedInsideARecord", {CutInsideSecondSession()}, kExitInputProblem, {kBefore}, {"FILE0", "truncated"}},
      {"TruncatedOnStandardInput", {CutInsideSecondSession()}, kExitInputProblem, {kBefore}, {"FILE0", "truncated"},
       true},
      {"TruncatedInsideARecordHeader", {header + SessionBefore() + RecordClaiming(100, 100).substr(0, 7)},
       kExitInputProblem, {kBefore}, {"FILE0", "truncated"}},
      {"TruncatedInsideTheFileHeader", {header.substr(0, 13)}, kExitInputProblem, {}, {"FILE0"}},
      {"BadMagicThenAGoodFile", {"JUNK" + header.substr(4), header + SessionBefore()}, kExitInputProblem, {kBefore},
       {"FILE0"}},
      {"RecordLengthBeyondAnySnapLength", {header + SessionBefore() + RecordClaiming(0x7FFFFFF0, 64) + SessionAfter()},
       kExitInputProblem, {kBefore}, {"FILE0"}},
      {"SnapLength64", {test::PcapFileHeader({.snap_length = 64}) + test::PcapRecords(test::SmtpSession(40001, kBefore), 0, 64)},
       kExitDone, {}, {"FILE0"}},
      {"ZeroLengthFrames", {header + zero + SessionBefore() + zero + SessionAfter() + zero}, kExitDone,
       {kBefore, kAfter}, {}},
      // The frame claiming 1865 bytes is a cut segment; the other two are skipped.
      {"UnsupportedLinkType", {header.substr(0, 20) + std::string("\x93\0\0\0", 4) + SessionBefore()}, kExitInputProblem, {},
       {"FILE0", "link type 147 is not supported"}},
      {"FractionOfASecondOrMoreIsCarried", {header + CarriedTimeRecords(test::SmtpSession(40001, kBefore))},
       kExitDone, {kBefore}, {"FILE0", "carried into the seconds"}},
      {"FractionOfASecondOrMoreOnStandardInput", {header + CarriedTimeRecords(test::SmtpSession(40001, kBefore))},
       kExitDone, {kBefore}, {"FILE0", "carried into the seconds"}, true},
      {"PcapngSectionsInBothByteOrders",
       {PcapngSection(test::SmtpSession(40001, kBefore), 0, false) +
        PcapngSection(test::SmtpSession(40002, kAfter), 1000, true)},
       kExitDone, {kBefore, kAfter}, {}},
      {"PcapngRecordsLongerThanTheirInterfaceSnapLength",
       {PcapngSection(test::SmtpSession(40001, kBefore), 0, false, 64) +
        PcapngSection(test::SmtpSession(40002, kAfter), 1000, true, 64)},
       kExitDone, {kBefore, kAfter}, {"FILE0", "snap length of 64 bytes"}},
      {"PcapngSimplePacketsCutByTheSnapLength", {PcapngSection(test::SmtpSession(40001, kBefore), 0, false, 64, true)},
       kExitDone, {}, {"FILE0", "cut short by the capture's snap length"}},
      {"HeaderLengthsThatLie", {header + SessionBefore() + test::PcapRecords(lies, 900) + SessionAfter()}, kExitDone,
       {kBefore, kAfter}, {"FILE0", "2 frames were skipped"}},
  };
  return cases;
}

class MalformedCaptureTest : public ::testing::TestWithParam<MalformedCase> {};

// Runs the case's capture with "-o DIR/out --quiet --threads N --exact-threads" and returns
// what it gave; `input` is set to the name the messages must use for it.
ProgramResult RunCase(const TempDir& dir, const MalformedCase& c, const char* threads, std::string* input) {
  std::vector<std::string> args = {"-o", (dir / "out").string(), "--quiet", "--threads", threads, "--exact-threads"};
  const size_t first_file = args.size();
  for (size_t i = 0; i < c.files.size(); ++i) {
    const test::fs::path path = dir / ("capture" + std::to_string(i) + ".pcap");
    test::WriteWholeFile(path, c.files[i]);
    args.push_back(c.on_stdin ? "-" : path.string());
  }
  *input = c.on_stdin ? "standard input" : args[first_file];
  test::ProgramProcess process(args, c.on_stdin);
  if (c.on_stdin) {
    process.WriteStdin(c.files[0]);
    process.CloseStdin();
  }
  return process.Wait();
}

// A single-threaded and a parallel run must agree on every word.
TEST_P(MalformedCaptureTest, ClearMessageDocumentedStatusAndEarlierFindingsKept) {
  REQUIRE_PROGRAM();
  const MalformedCase& c = GetParam();
  TempDir dir;
  std::vector<std::string> errs;
  for (const char* threads : {"1", "2"}) {
    SCOPED_TRACE(std::string("--threads ") + threads);
    test::fs::remove_all(dir / "out");
    std::string input;
    const ProgramResult result = RunCase(dir, c, threads, &input);

    test::ExpectNoCrash(result);
    EXPECT_EQ(result.status, c.status) << result.err;
    // A capture read to its end with parts skipped says so too: the user should
    // not take an empty result for an empty capture.
    if (!c.err_parts.empty()) {
      EXPECT_THAT(result.err, StartsWith("pelka-email: "));
    }
    for (const std::string& part : c.err_parts) EXPECT_THAT(result.err, HasSubstr(part == "FILE0" ? input : part));
    errs.push_back(result.err);
    EXPECT_THAT(test::RecordedSubjects(dir / "out"), ElementsAreArray(c.subjects));
    test::ReadJsonLines(dir / "out" / "entries.jsonl");
    test::ReadJsonLines(dir / "out" / "diagnosis.jsonl");
  }
  EXPECT_EQ(errs[1], errs[0]);
}

std::string CaseName(const ::testing::TestParamInfo<MalformedCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Captures, MalformedCaptureTest, ::testing::ValuesIn(Cases()), CaseName);

}  // namespace
}  // namespace pelka
