// The parallel pipeline's own parts: which worker a frame goes to, and
// capture time reaching every worker.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "ProgramHarness.h"
#include "capture/ConnectionHash.h"
#include "capture/FlowTracker.h"
#include "capture/ParallelPipeline.h"
#include "capture/PacketDecoder.h"

namespace pelka {
namespace {

using test::Between;
using test::Bytes;
using test::Reversed;
using test::Segment;

DecodedPacket Decode(const Bytes& frame) {
  PacketDecoder decoder;
  DecodedPacket packet;
  EXPECT_EQ(decoder.Decode(kLinkEthernet, frame.data(), frame.size(), &packet), DecodeStatus::kTcp);
  return packet;
}

// The worker reading a batch names each frame's worker from its first bytes;
// that must be the worker the decoded frame hashes to, or a connection would
// be split between two workers. Both directions of a connection meeting on
// one worker, and connections spreading over all, are checked by the
// pipeline tests below.
TEST(ConnectionHashTest, FrameBytesNameTheDecodedFramesWorker) {
  Segment with_options = Between(test::V4(172, 16, 9, 1), 40123, test::V4(192, 0, 2, 25), 25);
  with_options.ip_options = {1, 1, 1, 0};
  struct Case {
    const char* name;
    Bytes frame;
    bool placed;
  };
  const Segment plain = Between(test::V4(10, 0, 0, 1), 40000, test::V4(192, 0, 2, 25), 25);
  const Bytes whole = test::Ethernet(test::IpPacket(plain));
  const std::vector<Case> cases = {
      {"plain IPv4", whole, true},
      {"reply", test::Ethernet(test::IpPacket(Reversed(plain))), true},
      {"IPv4 options", test::Ethernet(test::IpPacket(with_options)), true},
      {"VLAN tag", test::Ethernet(test::IpPacket(plain), {0x8100}), false},
      {"IPv6", test::Ethernet(test::IpPacket(Between(test::V6(1), 51000, test::V6(2), 143))), false},
      {"fragment", test::Ethernet(test::Ipv4Packet(plain, 0x2000)), false},
      {"cut before the ports", Bytes(whole.begin(), whole.begin() + 36), false},
  };
  for (const Case& c : cases) {
    for (unsigned workers : {2u, 3u, 64u}) {
      const unsigned named = WorkerOfFrame(kLinkEthernet, c.frame.data(), static_cast<uint32_t>(c.frame.size()), workers);
      if (!c.placed) {
        EXPECT_EQ(named, kAnyWorker) << c.name;
        continue;
      }
      EXPECT_EQ(named, WorkerOf(Decode(c.frame), workers)) << c.name << ", " << workers << " workers";
    }
  }
  EXPECT_EQ(WorkerOfFrame(kLinkEthernet, whole.data(), static_cast<uint32_t>(whole.size()), 1), 0u);
  EXPECT_EQ(WorkerOfFrame(kLinkRaw, whole.data() + 14, static_cast<uint32_t>(whole.size() - 14), 2), kAnyWorker);
}

// Counts flows started and ended by an idle timeout, on the workers' threads.
struct IdleCountingSink : FlowSink {
  bool OnFlowStart(TrackedFlow&) override {
    ++started;
    return true;
  }
  void OnFlowPacket(TrackedFlow&, const PacketRecord&, const uint8_t*, uint32_t, uint32_t) override {}
  void OnFlowEnd(TrackedFlow&, FlowEndReason reason) override { idle += reason == FlowEndReason::kIdle; }
  std::atomic<int> started{0}, idle{0};
};

// The frames as the workers read them, the last one at `last_us` if given,
// then, with `advance_us`, a timeout passing that capture time.
void Feed(ParallelPipeline& parallel, const std::vector<Bytes>& frames, uint64_t advance_us = 0,
          uint64_t last_us = 0) {
  size_t next = 0;
  bool advanced = advance_us == 0;
  parallel.Run([&](CapturedFrame* frame, PcapBlock** block) {
    *block = nullptr;
    if (next < frames.size()) {
      const Bytes& bytes = frames[next++];
      *frame = CapturedFrame{bytes.data(), static_cast<uint32_t>(bytes.size()), static_cast<uint32_t>(bytes.size()),
                             next, last_us && next == frames.size() ? last_us : test::kCaptureStartUs + next * 100,
                             kLinkEthernet};
      return ReadStatus::kFrame;
    }
    if (advanced) return ReadStatus::kEnd;
    advanced = true;
    frame->time_us = advance_us;
    return ReadStatus::kTimeout;
  });
}

// That every flow hears on one worker what one tracker tells it is checked
// end to end by ThreadsTest, which compares every output of 1 to 4 threads
// over interleaved sessions and the corpus, read from shared blocks.
// A timeout or any worker's TCP segment, of any port, carries it.
TEST(ParallelPipelineAdvanceTest, CaptureTimeReachesEveryWorker) {
  FlowTracker::Options options;
  options.idle_timeout_us = 5 * 1000000ull;
  std::vector<Bytes> handshakes;  // every flow stays open
  for (uint16_t i = 0; i < 12; ++i) {
    const std::vector<test::Frame> session = test::SmtpSession(static_cast<uint16_t>(30000 + i), "");
    for (size_t k = 0; k < 3; ++k) handshakes.push_back(session[k].bytes);
  }
  const uint64_t late = test::kCaptureStartUs + 37 * 100 + options.idle_timeout_us + 1;
  for (const bool by_segment : {false, true}) {
    SCOPED_TRACE(by_segment ? "a web segment" : "a timeout");
    IdleCountingSink sink;
    ParallelPipeline parallel(3, &sink, options);
    std::vector<Bytes> frames = handshakes;
    const Segment web = Between(test::V4(10, 9, 9, 9), 50000, test::V4(10, 9, 9, 8), 80);
    if (by_segment) frames.push_back(test::Ethernet(test::IpPacket(web)));
    Feed(parallel, frames, by_segment ? 0 : late, by_segment ? late : 0);
    EXPECT_EQ(sink.started, 12);
    EXPECT_EQ(sink.idle, 12);
  }
}

}  // namespace
}  // namespace pelka
