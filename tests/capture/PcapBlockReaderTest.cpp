// The block reader hands out what CaptureSource hands out: the same frames,
// numbers, times, link types, errors, byte counts and files whose records are
// longer than their snap length, whether it reads a file in place or gives
// it, or its damaged rest, to CaptureSource.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "ProgramHarness.h"
#include "capture/CaptureSource.h"
#include "capture/PcapBlockReader.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;

using test::PcapFileHeader;
using test::PcapLayout;
using test::Put32;

// A record whose header may claim another captured length than it holds.
std::string Record(const PcapLayout& layout, uint32_t index, uint32_t bytes, uint32_t claimed) {
  std::string out;
  for (uint32_t field : {1700000000 + index, (layout.nanosecond ? 123456789 : 123456) + index, claimed, claimed + 4})
    Put32(out, field, layout.big_endian);
  for (uint32_t i = 0; i < bytes; ++i) out += static_cast<char>((index * 7 + i) & 0xFF);
  return out;
}

std::string Capture(const PcapLayout& layout, uint32_t frames) {
  std::string out = PcapFileHeader(layout);
  // Lengths from 60 to about 1500 bytes, so records straddle small blocks.
  for (uint32_t i = 0; i < frames; ++i) {
    const uint32_t length = 60 + (i * 397) % 1440;
    out += Record(layout, i, length, length);
  }
  return out;
}

// Everything a reader hands out, one line each, then the totals.
template <typename Reader, typename Next>
std::vector<std::string> Transcript(Reader& reader, Next next) {
  std::vector<std::string> lines;
  CapturedFrame frame;
  for (ReadStatus status; (status = next(&frame)) != ReadStatus::kEnd;) {
    lines.push_back(status == ReadStatus::kError
                        ? "error " + reader.error()
                        : std::to_string(frame.number) + " " + std::to_string(frame.time_us) + " " +
                              std::to_string(frame.link_type) + " " + std::to_string(frame.wire_length) + " " +
                              std::string(reinterpret_cast<const char*>(frame.data), frame.captured_length));
  }
  lines.push_back("bytes " + std::to_string(reader.bytes_read()) + " frames " + std::to_string(reader.frames_read()));
  // A file whose records are longer than its header's snap length is named once.
  for (const LongRecordFile& file : reader.long_record_files())
    lines.push_back("long " + file.name + " " + std::to_string(file.header_snap_length));
  return lines;
}

std::vector<std::string> ThroughCaptureSource(const std::vector<std::string>& paths) {
  CaptureSource source;
  source.OpenFiles(paths);
  return Transcript(source, [&](CapturedFrame* frame) { return source.Next(frame); });
}

// `read_ahead`: blocks are read ahead before every frame, as idle workers do.
std::vector<std::string> ThroughBlockReader(const std::vector<std::string>& paths, PcapBlockPool& pool,
                                            bool read_ahead) {
  PcapBlockReader reader(&pool);
  reader.OpenFiles(paths);
  return Transcript(reader, [&](CapturedFrame* frame) {
    while (read_ahead && reader.Prefetch()) {
    }
    PcapBlock* block = nullptr;
    return reader.Next(frame, &block);
  });
}

struct Case {
  const char* name;
  std::vector<std::string> files;
  bool in_place = true;  // the first file is read in blocks, at least up to its damage
};

std::vector<Case> Cases() {
  const PcapLayout micro, nano_big{true, true}, nano{false, true}, micro_big{true, false};
  const PcapLayout small_snap{.snap_length = 1000};
  const std::string good = Capture(micro, 60);
  return {
      {"no records", {PcapFileHeader(micro)}},
      {"record cut short", {good + Record(micro, 60, 100, 500)}},
      {"record header cut short", {good + Record(micro, 60, 0, 0).substr(0, 9)}},
      {"record beyond the file", {good + Record(micro, 60, 100, 60000)}},
      {"record beyond any snap length", {good + Record(micro, 60, 100, 100000000) + good.substr(24)}},
      {"record beyond the snap length",
       {Capture(small_snap, 5) + Record(small_snap, 5, 1400, 1400) + Record(small_snap, 6, 60, 60) +
        Record(small_snap, 7, 1200, 1200)}},
      {"not classic pcap", {"\x0a\x0d\x0d\x0a" + good.substr(4)}, false},
      {"damaged file, then a good one", {good + Record(micro, 60, 10, 40), Capture(nano_big, 30)}},
      {"good files of every layout", {good, Capture(nano, 20), Capture(nano_big, 20), Capture(micro_big, 20)}},
  };
}

TEST(PcapBlockReaderTest, HandsOutWhatCaptureSourceDoes) {
  test::TempDir dir;
  for (const Case& c : Cases()) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> paths;
    for (const std::string& bytes : c.files) {
      paths.push_back((dir / ("capture" + std::to_string(paths.size()))).string());
      test::WriteWholeFile(paths.back(), bytes);
    }
    const std::vector<std::string> expected = ThroughCaptureSource(paths);
    // Records span small blocks often, some of them several; 1 MiB blocks
    // hold a whole file.
    for (size_t block_bytes : {size_t{700}, size_t{2048}, size_t{5000}, PcapBlockPool::kBlockBytes}) {
      for (const size_t blocks : {2, 8}) {
        SCOPED_TRACE("blocks of " + std::to_string(block_bytes) + ", " + std::to_string(blocks) + " in the pool");
        PcapBlockPool pool(blocks, block_bytes);
        EXPECT_EQ(ThroughBlockReader(paths, pool, blocks > 2), expected);
        EXPECT_EQ(pool.made_blocks() > 0, c.in_place);
        EXPECT_EQ(pool.free_blocks(), pool.made_blocks());
      }
    }
  }
}

}  // namespace
}  // namespace pelka
