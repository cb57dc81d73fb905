#include "capture/FlowTracker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <tuple>

#include "TrackerHarness.h"

namespace pelka {
namespace {

using test::Step;
using test::TrackerHarness;
using ::testing::ElementsAreArray;

constexpr uint8_t A = kTcpAck;
constexpr uint8_t S = kTcpSyn;
constexpr uint8_t SA = kTcpSyn | kTcpAck;
constexpr uint8_t PA = kTcpPsh | kTcpAck;
constexpr uint8_t FA = kTcpFin | kTcpAck;
constexpr uint8_t R = kTcpRst;

struct FlowCase {
  const char* name;
  std::vector<Step> steps;
  std::vector<std::string> events;  // after Finish
  bool swap = false;                // the sink swaps sides so that the service port is the server's
  bool take = true;                 // the sink takes the flows it is offered
  uint64_t idle_timeout_us = FlowTracker::Options{}.idle_timeout_us;
};

const std::vector<FlowCase>& Cases() {
  static const std::vector<FlowCase> cases = {
      {"handshake, data, FINs, last ACK ends; a later packet is dropped",
       {{'c', 100, S}, {'s', 500, SA}, {'c', 101, A}, {'s', 501, PA, "220 hi\r\n"}, {'c', 101, PA, "QUIT\r\n"},
        {'c', 107, FA}, {'s', 509, FA}, {'c', 108, A}, {'s', 510, A}},
       {"start 630 10.0.0.1:40000", "#1 1 ", "#2 2 ", "#3 1 ", "#4 2 220 hi\r\n", "#5 1 QUIT\r\n", "#6 1 ", "#7 2 ",
        "#8 1 ", "end closed"}},
      {"retransmission and overlap are trimmed",
       {{'c', 101, PA, "HELO\r\n"}, {'c', 101, PA, "HELO\r\n"}, {'c', 105, PA, "\r\nMAIL"}, {'c', 100, PA, "xHELO\r\nMAIL:"}},
       {"start 630 10.0.0.1:40000", "#1 1 HELO\r\n", "#2 1 ", "#3 1 MAIL", "#4 1 :", "end end of input"}},
      {"segment ahead is held until the gap fills, then in sequence order",
       {{'c', 101, PA, "abc"}, {'c', 110, PA, "jkl"}, {'c', 107, PA, "ghi"}, {'s', 1, A}, {'c', 104, PA, "def"}},
       {"start 630 10.0.0.1:40000", "#1 1 abc", "#4 2 ", "#5 1 def", "#3 1 ghi", "#2 1 jkl", "end end of input"}},
      {"held segment overlapped by the filling packet comes trimmed",
       {{'c', 101, PA, "abc"}, {'c', 106, PA, "fgh"}, {'c', 104, PA, "defgh"}},
       {"start 630 10.0.0.1:40000", "#1 1 abc", "#3 1 defgh", "#2 1 ", "end end of input"}},
      {"held segments at flow end: gaps skipped, before the end",
       {{'c', 101, PA, "abc"}, {'c', 120, PA, "xyz"}, {'c', 110, PA, "mno"}},
       {"start 630 10.0.0.1:40000", "#1 1 abc", "#3 1 mno", "#2 1 xyz", "end end of input"}},
      {"RST is delivered, held segments follow, then the end",
       {{'c', 101, PA, "abc"}, {'c', 110, PA, "xyz"}, {'s', 900, R}, {'c', 113, PA, "late"}},
       {"start 630 10.0.0.1:40000", "#1 1 abc", "#3 2 ", "#2 1 xyz", "end reset"}},
      {"without a SYN the first packet's sender is the client",
       {{'s', 501, PA, "220 hi\r\n"}, {'c', 101, PA, "EHLO\r\n"}},
       {"start 630 10.0.0.2:25", "#1 1 220 hi\r\n", "#2 2 EHLO\r\n", "end end of input"}},
      {"a SYN-ACK first: its sender is taken for the client",
       {{'s', 500, SA}, {'c', 101, A}},
       {"start 630 10.0.0.2:25", "#1 1 ", "#2 2 ", "end end of input"}},
      {"a retransmitted SYN stays in its flow",
       {{'c', 100, S}, {'c', 100, S}, {'s', 500, SA}},
       {"start 630 10.0.0.1:40000", "#1 1 ", "#2 1 ", "#3 2 ", "end end of input"}},
      {"a SYN captured after its SYN-ACK stays in the flow",
       {{'s', 500, SA, "", -1, 0, 40000, 25, 100}, {'c', 99, S}},
       {"start 630 10.0.0.2:25", "#1 1 ", "#2 2 ", "end end of input"}},
      {"a new SYN on the same ports replaces a live flow",
       {{'c', 100, S}, {'c', 101, PA, "HELO\r\n"}, {'c', 7000, S}, {'c', 7001, PA, "EHLO\r\n"}},
       {"start 630 10.0.0.1:40000", "#1 1 ", "#2 1 HELO\r\n", "end replaced", "start 630 10.0.0.1:40000", "#3 1 ",
        "#4 1 EHLO\r\n", "end end of input"}},
      {"a SYN on a flow a stray packet opened starts a new flow, its sender the client",
       {{'s', 501, FA}, {'c', 100, S}, {'s', 700, SA, "", -1, 0, 40000, 25, 101}, {'c', 101, PA, "EHLO\r\n"}},
       {"start 630 10.0.0.2:25", "#1 1 ", "end replaced", "start 630 10.0.0.1:40000", "#2 1 ", "#3 2 ",
        "#4 1 EHLO\r\n", "end end of input"}},
      {"a new SYN after the close starts a new flow",
       {{'c', 101, FA}, {'s', 501, FA}, {'c', 102, A}, {'s', 502, A}, {'c', 9000, S}},
       {"start 630 10.0.0.1:40000", "#1 1 ", "#2 2 ", "#3 1 ", "end closed", "start 630 10.0.0.1:40000", "#5 1 ",
        "end end of input"}},
      {"the ended entry is forgotten after another idle timeout",
       {{'c', 101, PA, "a", -1, 1}, {'c', 102, PA, "b", -1, 1900}, {'c', 103, PA, "c", -1, 3800}},
       {"start 630 10.0.0.1:40000", "#1 1 a", "end idle", "start 630 10.0.0.1:40000", "#3 1 c", "end end of input"}},
      {"any TCP segment, of any port, ends idle flows before it is handled",
       {{'c', 101, PA, "a", -1, 1}, {'c', 1, A, "", -1, 1900, 40001, 80}},
       {"start 630 10.0.0.1:40000", "#1 1 a", "end idle"}},
      {"each packet of an ended connection renews its memory",
       {{'c', 101, PA, "a", -1, 1}, {'c', 102, PA, "b", -1, 1900}, {'c', 103, PA, "c", -1, 3000},
        {'c', 104, PA, "d", -1, 4000}},
       {"start 630 10.0.0.1:40000", "#1 1 a", "end idle"}},
      {"at the end, of the two directions' next held segments the one captured first goes first",
       {{'c', 101, PA, "abc"}, {'c', 120, PA, "late"}, {'s', 1, PA, "x"}, {'s', 10, PA, "S"}, {'c', 110, PA, "mid"}},
       {"start 630 10.0.0.1:40000", "#1 1 abc", "#3 2 x", "#4 2 S", "#5 1 mid", "#2 1 late", "end end of input"}},
      {"payload cut by the snap length still moves the sequence",
       {{'c', 101, PA, "HELO\r\n", 0}, {'c', 107, PA, "MAIL\r\n", 2}, {'c', 113, PA, "RCPT\r\n"}},
       {"start 630 10.0.0.1:40000", "#1 1 ", "#2 1 MA", "#3 1 RCPT\r\n", "end end of input"}},
      {"sequence numbers wrap",
       {{'c', 0xFFFFFFFE, PA, "abcd"}, {'c', 6, PA, "ij"}, {'c', 2, PA, "efgh"}},
       {"start 630 10.0.0.1:40000", "#1 1 abcd", "#3 1 efgh", "#2 1 ij", "end end of input"}},
      {"classification: 25 before 110 before 143",
       {{'c', 1, A, "", -1, 0, 110, 25}, {'c', 1, A, "", -1, 0, 143, 110}, {'c', 1, A, "", -1, 0, 40001, 143},
        {'c', 1, A, "", -1, 0, 40002, 80}},
       {"start 630 10.0.0.1:110", "#1 1 ", "start 626 10.0.0.1:143", "#2 1 ", "start 614 10.0.0.1:40001", "#3 1 ",
        "end end of input", "end end of input", "end end of input"}},
      {"directions follow the swap at the start",
       {{'s', 501, PA, "220\r\n"}, {'c', 101, PA, "EHLO\r\n"}},
       {"start 630 10.0.0.2:25", "#1 2 220\r\n", "#2 1 EHLO\r\n", "end end of input"},
       true},
      {"a keep-alive first (one below the next byte) holds nothing back",
       {{'c', 100, A}, {'c', 101, PA, "abc"}, {'s', 1, PA, "x"}},
       {"start 630 10.0.0.1:40000", "#1 1 ", "#2 1 abc", "#3 2 x", "end end of input"}},
      {"after a bare packet, data beyond a gap waits for its head",
       {{'c', 100, A}, {'c', 110, PA, "later"}, {'c', 101, PA, "123456789"}},
       {"start 630 10.0.0.1:40000", "#1 1 ", "#3 1 123456789", "#2 1 later", "end end of input"}},
      {"two connections that share a slot of the recent-flow table stay apart (40000 ^ 40064 = 3 x 64)",
       {{'c', 101, PA, "a"}, {'c', 51, PA, "b", -1, 0, 40064}, {'s', 1, PA, "x"}, {'c', 52, PA, "c", -1, 0, 40064}},
       {"start 630 10.0.0.1:40000", "#1 1 a", "start 630 10.0.0.1:40064", "#2 1 b", "#3 2 x", "#4 1 c",
        "end end of input", "end end of input"}},
      {"data starting below the bare packet's number begins the stream there",
       {{'c', 100, A}, {'c', 95, PA, "abcde"}},
       {"start 630 10.0.0.1:40000", "#1 1 ", "#2 1 abcde", "end end of input"}},
      {.name = "declined flows get no packets",
       .steps = {{'c', 100, S}, {'c', 101, PA, "x"}, {'c', 102, R}, {'c', 500, S}},
       .events = {"start 630 10.0.0.1:40000", "start 630 10.0.0.1:40000"},
       .take = false},
      // A packet exactly the idle timeout after the flow's last one still
      // belongs to the flow; one microsecond more ends the flow first, and the
      // packet, on a remembered connection, is dropped.
      {.name = "gap equal to the idle timeout",
       .steps = {{'c', 101, PA, "a", -1, 1}, {'c', 102, PA, "b", -1, 601}},
       .events = {"start 630 10.0.0.1:40000", "#1 1 a", "#2 1 b", "end end of input"},
       .idle_timeout_us = 600'000'000},
      {.name = "gap one above the idle timeout",
       .steps = {{'c', 101, PA, "a", -1, 1}, {'c', 102, PA, "b", -1, 601}},
       .events = {"start 630 10.0.0.1:40000", "#1 1 a", "end idle"},
       .idle_timeout_us = 599'999'999},
  };
  return cases;
}

// Ports that are not mail ports are the "classification" case; Advance()
// without packets is checked by ParallelPipelineAdvanceTest, the counts per
// protocol and IPv6 flows by CaptureCorpusTest.
TEST(FlowTrackerTest, FollowsTheDeliveryRules) {
  for (const FlowCase& c : Cases()) {
    SCOPED_TRACE(c.name);
    FlowTracker::Options options;
    options.idle_timeout_us = c.idle_timeout_us;
    TrackerHarness harness(options);
    harness.sink.swap_service_port = c.swap;
    harness.sink.take = c.take;
    harness.FeedAll(c.steps);
    harness.tracker.Finish();
    EXPECT_THAT(harness.sink.events, ElementsAreArray(c.events));
    for (const std::string& event : harness.sink.events) EXPECT_EQ(event.find("(no ports)"), std::string::npos);
  }
}

// Segments held ahead of a gap are bounded in number and in bytes; one more
// sends the lowest out after its gap, and every packet still comes once.
TEST(FlowTrackerTest, HeldSegmentsAreBoundedThenTheLowestGoesOutAfterItsGap) {
  struct Case {
    const char* name;
    size_t payload;
    size_t held;  // the most that fit
  } cases[] = {
      {"64 segments", 1, FlowTracker::kMaxHeldSegments},
      {"1 MiB", 60000, FlowTracker::kMaxHeldBytes / 60000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TrackerHarness harness;
    harness.Feed({'c', 100, PA, "a"});
    uint32_t sequence = 200;
    for (size_t i = 0; i < c.held; ++i, sequence += static_cast<uint32_t>(c.payload) + 10) {
      harness.Feed({'c', sequence, PA, std::string(c.payload, 'h')});
    }
    EXPECT_EQ(harness.sink.events.size(), 2u);  // start and the first packet
    harness.Feed({'c', sequence, PA, std::string(c.payload, 'z')});
    ASSERT_EQ(harness.sink.events.size(), 3u);
    EXPECT_EQ(harness.sink.events[2].substr(0, 5), "#2 1 ");
    EXPECT_EQ(harness.tracker.counters().gaps_skipped, 1u);
    harness.tracker.Finish();
    EXPECT_EQ(harness.sink.events.size(), 1 + (c.held + 2) + 1);  // start, packets, end
  }
}

// A segment below every held one is held too; over the bound it is the lowest
// and goes out whole, before the others.
TEST(FlowTrackerTest, ASegmentBelowEveryHeldOneGoesOutWholeWhenTheBoundIsReached) {
  TrackerHarness harness;
  harness.Feed({'c', 100, PA, "a"});
  for (uint32_t i = 0; i < FlowTracker::kMaxHeldSegments; ++i) harness.Feed({'c', 300 + 2 * i, PA, "h"});
  harness.Feed({'c', 150, PA, "below"});
  ASSERT_EQ(harness.sink.events.size(), 3u);
  EXPECT_EQ(harness.sink.events[2], "#66 1 below");
}

// Over all connections the held frames are bounded too: past the bound the
// segment held longest goes out after its gap, whichever flow holds it.
TEST(FlowTrackerTest, HoldBoundOverAllFlowsReleasesTheOldestHeldFirst) {
  FlowTracker::Options options;
  options.max_held_bytes = 60;  // one held frame of 41 bytes, not two
  TrackerHarness harness(options);
  harness.Feed({'c', 1, PA, "a", -1, 0, 40001});
  harness.Feed({'c', 10, PA, "A", -1, 0, 40001});
  harness.Feed({'c', 1, PA, "b", -1, 0, 40002});
  harness.Feed({'c', 10, PA, "B", -1, 0, 40002});
  EXPECT_THAT(harness.sink.events, ElementsAreArray({"start 630 10.0.0.1:40001", "#1 1 a", "start 630 10.0.0.1:40002",
                                                     "#3 1 b", "#2 1 A"}));
  EXPECT_EQ(harness.tracker.counters().hold_limit_gaps, 1u);
  EXPECT_EQ(harness.tracker.held_bytes(), 41u);
  harness.tracker.Finish();
  EXPECT_EQ(harness.tracker.held_bytes(), 0u);
}

TEST(FlowTrackerTest, LiveFlowBoundEndsTheLeastRecentlyActive) {
  FlowTracker::Options options;
  options.max_flows = 2;
  TrackerHarness harness(options);
  harness.Feed({'c', 1, PA, "a", -1, 0, 40001});
  harness.Feed({'c', 1, PA, "b", -1, 0, 40002});
  harness.Feed({'c', 2, PA, "c", -1, 0, 40001});  // 40002 is now the least recently active
  harness.Feed({'c', 1, PA, "d", -1, 0, 40003});
  EXPECT_THAT(harness.sink.events,
              ElementsAreArray({"start 630 10.0.0.1:40001", "#1 1 a", "start 630 10.0.0.1:40002", "#2 1 b", "#3 1 c",
                                "end evicted", "start 630 10.0.0.1:40003", "#4 1 d"}));
  EXPECT_EQ(harness.tracker.tracked_connections(), 2u);
}

// Random reordering, duplication and re-cutting of two streams: whatever the
// order, every packet is delivered once and every stream byte at most once, in
// stream order, and all of it when no gap had to be skipped.
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
    TrackerHarness harness({}, &sink);
    harness.FeedAll(steps);
    harness.tracker.Finish();

    EXPECT_EQ(sink.packets, steps.size());
    for (const auto& [direction, positions] : sink.positions) {
      for (size_t i = 1; i < positions.size(); ++i) {
        ASSERT_LT(positions[i - 1], positions[i]) << "direction " << direction;
      }
      if (harness.tracker.counters().gaps_skipped == 0) {
        EXPECT_EQ(positions.size(), total_words);
      }
    }
  }
}

}  // namespace
}  // namespace pelka
