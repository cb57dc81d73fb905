// The parallel pipeline hands every flow the same packets, in the same order,
// as one tracker does; only which thread handles a flow changes.
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "FrameBuilder.h"
#include "ProgramHarness.h"
#include "capture/ConnectionHash.h"
#include "capture/FlowTracker.h"
#include "capture/ParallelPipeline.h"
#include "capture/PacketDecoder.h"
#include "capture/PcapBlock.h"
#include "host/PacketRecord.h"

namespace pelka {
namespace {

using test::Bytes;
using test::Segment;

DecodedPacket Decode(const Bytes& frame) {
  PacketDecoder decoder;
  DecodedPacket packet;
  EXPECT_EQ(decoder.Decode(kLinkEthernet, frame.data(), frame.size(), &packet), DecodeStatus::kTcp);
  return packet;
}

Segment Between(IpAddress a, uint16_t a_port, IpAddress b, uint16_t b_port) {
  Segment segment;
  segment.source = a;
  segment.source_port = a_port;
  segment.destination = b;
  segment.destination_port = b_port;
  return segment;
}

Segment Reversed(Segment segment) {
  std::swap(segment.source, segment.destination);
  std::swap(segment.source_port, segment.destination_port);
  return segment;
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

// Writes down what each flow hears, keyed by its client endpoint. Flows are
// started, fed and ended on the workers' threads.
class FlowLogSink : public FlowSink {
 public:
  bool OnFlowStart(TrackedFlow& flow) override {
    const std::string key = Key(flow);
    const std::lock_guard<std::mutex> lock(mutex_);
    logs_[key].push_back("start " + std::to_string(flow.application_protocol()));
    threads_[key] = std::this_thread::get_id();
    return true;
  }
  void OnFlowPacket(TrackedFlow& flow, const PacketRecord& record, const uint8_t* payload, uint32_t length,
                    uint32_t direction) override {
    const std::string key = Key(flow);
    std::string line = "#" + std::to_string(GetPacketNumber(&record)) + " " + std::to_string(direction) + " @" +
                       std::to_string(GetPacketTime(&record)) + " " +
                       std::string(reinterpret_cast<const char*>(payload), length);
    const std::lock_guard<std::mutex> lock(mutex_);
    logs_[key].push_back(std::move(line));
    if (threads_[key] != std::this_thread::get_id()) logs_[key].push_back("moved to another thread");
  }
  void OnFlowEnd(TrackedFlow& flow, FlowEndReason reason) override {
    const std::string key = Key(flow);
    const std::lock_guard<std::mutex> lock(mutex_);
    logs_[key].push_back("end " + std::to_string(static_cast<int>(reason)));
  }

  std::map<std::string, std::vector<std::string>> logs() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return logs_;
  }
  std::set<std::thread::id> threads() {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::set<std::thread::id> ids;
    for (const auto& [key, id] : threads_) ids.insert(id);
    return ids;
  }

 private:
  static std::string Key(const TrackedFlow& flow) {
    const FlowEndpoint& client = flow.client();
    std::string key = std::to_string(client.address.version) + "/";
    for (uint8_t byte : client.address.bytes) key += std::to_string(byte) + ".";
    return key + ":" + std::to_string(client.port);
  }

  std::mutex mutex_;
  std::map<std::string, std::vector<std::string>> logs_;
  std::map<std::string, std::thread::id> threads_;
};

struct Packet {
  Bytes frame;
  uint64_t time_us;
};

// Many SMTP sessions, `concurrent` of them at a time, their frames
// interleaved; some end with FINs, some stay open; one is IPv6.
std::vector<Packet> Traffic(size_t sessions, size_t concurrent) {
  std::vector<Packet> packets;
  uint64_t time = test::kCaptureStartUs;
  for (test::Frame& frame : test::Interleaved(sessions, concurrent, [](size_t i) {
         return test::SmtpSession(static_cast<uint16_t>(30000 + i), "Message " + std::to_string(i),
                                  300 + 700 * (i % 5), i % 7 != 3);
       })) {
    packets.push_back({std::move(frame.bytes), time += 100});
  }
  Segment v6 = Between(test::V6(1), 50000, test::V6(2), 143);
  v6.flags = kTcpAck | kTcpPsh;
  v6.payload = "* OK IMAP4 ready\r\n";
  packets.push_back({test::Ethernet(test::IpPacket(Reversed(v6))), time += 100});
  return packets;
}

CapturedFrame FrameOf(const Packet& packet, uint64_t number) {
  CapturedFrame frame;
  frame.data = packet.frame.data();
  frame.captured_length = frame.wire_length = static_cast<uint32_t>(packet.frame.size());
  frame.number = number;
  frame.time_us = packet.time_us;
  frame.link_type = kLinkEthernet;
  return frame;
}

// What one tracker tells the flows of these packets.
struct SingleTracker {
  explicit SingleTracker(const std::vector<Packet>& packets) {
    uint64_t number = 0;
    for (const Packet& packet : packets) {
      DecodedPacket decoded;
      ++number;
      if (decoder.Decode(kLinkEthernet, packet.frame.data(), packet.frame.size(), &decoded) != DecodeStatus::kTcp)
        continue;
      tracker.OnPacket(decoded, packet.frame.data(), number, packet.time_us);
    }
    tracker.Finish();
  }

  FlowLogSink sink;
  FlowTracker tracker{&sink};
  PacketDecoder decoder;
};

// The packets as the workers read them: copied frames, and with `advance_us`
// a timeout passing that capture time after the last one.
void Feed(ParallelPipeline& parallel, const std::vector<Packet>& packets, uint64_t advance_us = 0) {
  size_t next = 0;
  bool advanced = advance_us == 0;
  parallel.Run([&](CapturedFrame* frame, PcapBlock** block) {
    *block = nullptr;
    if (next < packets.size()) {
      *frame = FrameOf(packets[next], next + 1);
      ++next;
      return ReadStatus::kFrame;
    }
    if (advanced) return ReadStatus::kEnd;
    advanced = true;
    frame->time_us = advance_us;
    return ReadStatus::kTimeout;
  });
}

struct PipelineCase {
  const char* name;
  size_t sessions;
  size_t concurrent;
  unsigned workers;
};

class ParallelPipelineTest : public ::testing::TestWithParam<PipelineCase> {};

TEST_P(ParallelPipelineTest, EveryFlowHearsWhatOneTrackerTellsIt) {
  const PipelineCase& c = GetParam();
  const std::vector<Packet> packets = Traffic(c.sessions, c.concurrent);
  SingleTracker single(packets);
  FlowLogSink parallel_sink;
  ParallelPipeline parallel(c.workers, &parallel_sink);
  Feed(parallel, packets);

  const auto expected = single.sink.logs();
  EXPECT_EQ(expected.size(), c.sessions + 1);
  EXPECT_EQ(parallel_sink.logs(), expected);
  EXPECT_LE(parallel_sink.threads().size(), c.workers);
  if (c.sessions >= 50) {
    EXPECT_EQ(parallel_sink.threads().size(), c.workers);
  }

  const FlowTrackerCounters want = single.tracker.counters();
  const FlowTrackerCounters got = parallel.counters();
  EXPECT_EQ(got.packets, want.packets);
  EXPECT_EQ(got.packets_delivered, want.packets_delivered);
  EXPECT_EQ(got.flows_smtp, want.flows_smtp);
  EXPECT_EQ(got.flows_imap, want.flows_imap);
  EXPECT_EQ(parallel.decoder_counters().tcp, single.decoder.counters().tcp);
}

INSTANTIATE_TEST_SUITE_P(Traffic, ParallelPipelineTest,
                         ::testing::Values(PipelineCase{"OneWorker", 20, 5, 1},
                                           PipelineCase{"TwoWorkersManyBatches", 300, 40, 2},
                                           PipelineCase{"FourWorkers", 120, 120, 4},
                                           PipelineCase{"MoreWorkersThanFlows", 3, 3, 8}),
                         [](const ::testing::TestParamInfo<PipelineCase>& info) { return info.param.name; });

// Frames read in place from a few small blocks, as the block reader hands
// them out: the flows hear the same, the reader waits for blocks without
// stalling, and every block comes back once the workers are done.
TEST(ParallelPipelineBlocksTest, FramesInSharedBlocksReachTheFlowsAndBlocksComeBack) {
  const std::vector<Packet> packets = Traffic(200, 40);
  SingleTracker single(packets);

  FlowLogSink parallel_sink;
  PcapBlockPool pool(2, 16384);
  {
    ParallelPipeline parallel(2, &parallel_sink);
    PcapBlock* current = nullptr;
    size_t used = 0;
    size_t next = 0;
    parallel.Run([&](CapturedFrame* frame, PcapBlock** block) {
      if (next == packets.size()) {
        if (current) current->Unref();
        current = nullptr;
        return ReadStatus::kEnd;
      }
      const Packet& packet = packets[next];
      if (!current || used + packet.frame.size() > current->capacity()) {
        PcapBlock* fresh = pool.Acquire();
        if (current) current->Unref();
        current = fresh;
        used = 0;
      }
      uint8_t* bytes = current->data() + used;
      std::copy(packet.frame.begin(), packet.frame.end(), bytes);
      used += packet.frame.size();
      *frame = FrameOf(packet, ++next);
      frame->data = bytes;
      *block = current;
      return ReadStatus::kFrame;
    });
  }
  EXPECT_EQ(parallel_sink.logs(), single.sink.logs());
  EXPECT_EQ(pool.made_blocks(), 2u);
  EXPECT_EQ(pool.free_blocks(), 2u);
}

TEST(ParallelPipelineAdvanceTest, CaptureTimeReachesEveryWorker) {
  FlowTracker::Options options;
  options.idle_timeout_us = 5 * 1000000ull;
  FlowLogSink sink;
  ParallelPipeline parallel(3, &sink, options);
  const std::vector<Packet> packets = Traffic(12, 12);
  // Only the handshakes: every flow stays open.
  std::vector<Packet> openings;
  for (size_t i = 0; i < 12 * 3; ++i) openings.push_back(packets[i]);
  Feed(parallel, openings, openings.back().time_us + options.idle_timeout_us + 1);

  const auto logs = sink.logs();
  ASSERT_EQ(logs.size(), 12u);
  for (const auto& [flow, events] : logs) {
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back(), "end " + std::to_string(static_cast<int>(FlowEndReason::kIdle))) << flow;
  }
}

TEST(ParallelPipelineAdvanceTest, RunWithoutPacketsAndTwiceIsHarmless) {
  FlowLogSink sink;
  ParallelPipeline parallel(4, &sink);
  Feed(parallel, {}, 1);
  Feed(parallel, {}, 1);
  EXPECT_TRUE(sink.logs().empty());
  EXPECT_EQ(parallel.counters().packets, 0u);
}

}  // namespace
}  // namespace pelka
