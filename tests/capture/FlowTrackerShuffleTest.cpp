// Random reordering, duplication and re-cutting of two streams: whatever the
// order, every packet is delivered once and every stream byte at most once, in
// stream order, and all of it when no gap had to be skipped.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "TrackerHarness.h"

namespace pelka {
namespace {

using test::Step;

constexpr uint8_t PA = kTcpPsh | kTcpAck;

// The stream's bytes encode their own positions: 4-byte big-endian words.
std::string StreamBytes(uint32_t from_word, uint32_t words) {
  std::string bytes;
  for (uint32_t w = from_word; w < from_word + words; ++w) {
    const uint32_t position = w * 4;
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>(position >> shift));
  }
  return bytes;
}

class PositionSink : public FlowSink {
 public:
  bool OnFlowStart(TrackedFlow&) override { return true; }
  void OnFlowPacket(TrackedFlow&, const PacketRecord&, const uint8_t* payload, uint32_t length,
                    uint32_t direction) override {
    ++packets;
    ASSERT_EQ(length % 4, 0u);
    for (uint32_t i = 0; i < length; i += 4) {
      const uint32_t position = (uint32_t{payload[i]} << 24) | (uint32_t{payload[i + 1]} << 16) |
                                (uint32_t{payload[i + 2]} << 8) | payload[i + 3];
      positions[direction].push_back(position);
    }
  }
  void OnFlowEnd(TrackedFlow&, FlowEndReason) override {}

  uint64_t packets = 0;
  std::map<uint32_t, std::vector<uint32_t>> positions;
};

TEST(FlowTrackerShuffleTest, BytesComeOnceAndInOrderWhateverTheCaptureOrder) {
  for (uint32_t seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const uint32_t total_words = 3000;
    std::vector<Step> steps;
    for (char from : {'c', 's'}) {
      const uint32_t base = from == 'c' ? 0xFFFFF000u : 5000u;  // one stream wraps its sequence numbers
      for (uint32_t word = 0; word < total_words;) {
        const uint32_t words = std::min<uint32_t>(1 + random() % 40, total_words - word);
        steps.push_back({from, base + word * 4, PA, StreamBytes(word, words)});
        if (random() % 5 == 0) {  // a retransmission, cut differently
          const uint32_t back = random() % (word + 1);
          steps.push_back({from, base + back * 4, PA, StreamBytes(back, word + words - back)});
        }
        word += words;
      }
    }
    // Local shuffles: each packet moves a few places at most, as on a real path.
    const size_t reach = seed % 3 == 0 ? 200 : 8;
    for (size_t i = 0; i + 1 < steps.size(); ++i) {
      std::swap(steps[i], steps[i + random() % std::min(reach, steps.size() - i)]);
    }
    // The handshake comes first: without it a stream starts at its first
    // captured segment, and earlier bytes captured later count as old.
    steps.insert(steps.begin(), {{'c', 0xFFFFF000u - 1, kTcpSyn}, {'s', 5000u - 1, kTcpSyn | kTcpAck}});

    PositionSink sink;
    FlowTracker tracker(&sink);
    PacketDecoder decoder;
    uint64_t number = 0;
    for (const Step& step : steps) {
      const test::Bytes frame = test::StepFrame(step);
      DecodedPacket packet;
      ASSERT_EQ(decoder.Decode(kLinkRaw, frame.data(), frame.size(), &packet), DecodeStatus::kTcp);
      tracker.OnPacket(packet, frame.data(), ++number, 1000000);
    }
    tracker.Finish();

    EXPECT_EQ(sink.packets, steps.size());
    for (const auto& [direction, positions] : sink.positions) {
      for (size_t i = 1; i < positions.size(); ++i) {
        ASSERT_LT(positions[i - 1], positions[i]) << "direction " << direction;
      }
      if (tracker.counters().gaps_skipped == 0) {
        EXPECT_EQ(positions.size(), total_words);
      }
    }
  }
}

}  // namespace
}  // namespace pelka
