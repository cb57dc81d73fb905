// Feeds the TCP flow tracker random packet sequences of a few connections:
// any flags, sequence numbers anywhere in a window (wrapping around 2^32 when
// asked), retransmissions, overlaps, gaps and idle pauses, with a small
// live-flow bound so that eviction happens.
//
// Every payload byte is the low byte of its own sequence number, so a
// delivered payload must count up by one from byte to byte, and a direction's
// next delivery must go on where the last one stopped unless the tracker
// counted a skipped gap in between: the tracker may trim and reorder
// segments, but never deliver a byte twice or out of order. The sink
// also checks the flow life cycle: packets only between start and end, only
// for taken flows, one end per flow, and none left open after Finish.
//
// Input: a configuration byte, then 6 bytes per packet:
//   configuration  bits 0-1 live-flow bound - 1; bits 2-3 idle timeout
//                  (default, 1 ms, 1 s, 10 s); bit 4 sequence numbers near
//                  the 2^32 wrap; bit 5 the sink declines POP3 flows
//   packet         [0] bits 0-2 connection (SMTP, POP3, IMAP4 over IPv4,
//                      SMTP over IPv6, a web connection, ...), bit 3 from the
//                      server; [1] TCP flags; [2-3] sequence offset;
//                  [4] pause in 10 ms steps; [5] payload length
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "capture/FlowTracker.h"
#include "capture/FrameBuilder.h"
#include "fuzz/FuzzCommon.h"
#include "host/PacketRecord.h"
#include "host/Types.h"

namespace {

using pelka::fuzz::Fail;
using pelka::test::Segment;

class CheckingSink final : public pelka::FlowSink {
 public:
  explicit CheckingSink(bool decline_pop3) : decline_pop3_(decline_pop3) {}
  void set_tracker(const pelka::FlowTracker* tracker) { tracker_ = tracker; }

  bool OnFlowStart(pelka::TrackedFlow& flow) override {
    if (!started_.insert(flow.id()).second) Fail("a flow was offered twice");
    const uint16_t protocol = flow.application_protocol();
    if (protocol != pelka::kProtocolSmtp && protocol != pelka::kProtocolPop3 && protocol != pelka::kProtocolImap4) {
      Fail("a flow of no mail protocol was offered");
    }
    const bool take = !(decline_pop3_ && protocol == pelka::kProtocolPop3);
    if (take) live_.insert(flow.id());
    if (flow.id() % 2 == 0) flow.SwapSides();
    return take;
  }

  void OnFlowPacket(pelka::TrackedFlow& flow, const pelka::PacketRecord& record, const uint8_t* payload,
                    uint32_t length, uint32_t direction) override {
    if (!live_.count(flow.id())) Fail("a packet of a flow not taken, or already ended");
    if (direction != pelka::kFromClient && direction != pelka::kFromServer) Fail("no direction");
    if (length > 0 && !payload) Fail("a payload length without bytes");
    if (pelka::GetPacketNumber(&record) == 0) Fail("a record without its packet number");
    uint16_t source = 0, destination = 0;
    if (!pelka::FindTcpPorts(&record, &source, &destination)) Fail("a record without TCP ports");
    for (uint32_t i = 1; i < length; ++i) {
      if (static_cast<uint8_t>(payload[i - 1] + 1) != payload[i]) Fail("a delivery stitched foreign bytes together");
    }
    if (length == 0) return;
    const uint64_t gaps = tracker_->counters().gaps_skipped;
    StreamEnd& last = stream_ends_[{flow.id(), direction}];
    if (last.seen && last.gaps == gaps && last.next_byte != payload[0]) Fail("a delivery does not go on where the last stopped");
    last = {true, static_cast<uint8_t>(payload[length - 1] + 1), gaps};
  }

  void OnFlowEnd(pelka::TrackedFlow& flow, pelka::FlowEndReason) override {
    if (!live_.erase(flow.id())) Fail("a flow ended that was not live");
  }

  bool all_ended() const { return live_.empty(); }

 private:
  struct StreamEnd {
    bool seen = false;
    uint8_t next_byte = 0;
    uint64_t gaps = 0;  // the tracker's skipped gaps when it was delivered
  };

  bool decline_pop3_;
  const pelka::FlowTracker* tracker_ = nullptr;
  std::map<std::pair<uint64_t, uint32_t>, StreamEnd> stream_ends_;
  std::set<uint64_t> started_;
  std::set<uint64_t> live_;
};

struct Connection {
  pelka::IpAddress client;
  pelka::IpAddress server;
  uint16_t client_port;
  uint16_t server_port;
};

const Connection kConnections[8] = {
    {pelka::test::V4(10, 0, 0, 1), pelka::test::V4(10, 0, 0, 100), 40000, 25},
    {pelka::test::V4(10, 0, 0, 2), pelka::test::V4(10, 0, 0, 100), 40001, 110},
    {pelka::test::V4(10, 0, 0, 3), pelka::test::V4(10, 0, 0, 100), 40002, 143},
    {pelka::test::V6(1), pelka::test::V6(100), 40003, 25},
    {pelka::test::V4(10, 0, 0, 4), pelka::test::V4(10, 0, 0, 100), 40004, 80},
    {pelka::test::V4(10, 0, 0, 1), pelka::test::V4(10, 0, 0, 100), 40005, 25},
    {pelka::test::V4(10, 0, 0, 5), pelka::test::V4(10, 0, 0, 6), 25, 110},  // two mail ports
    {pelka::test::V4(10, 0, 0, 1), pelka::test::V4(10, 0, 0, 100), 40000, 25},  // the first again
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t configuration = data[0];
  pelka::FlowTracker::Options options;
  options.max_flows = 1 + (configuration & 3);
  static constexpr uint64_t kIdle[] = {600'000'000, 1'000, 1'000'000, 10'000'000};
  options.idle_timeout_us = kIdle[(configuration >> 2) & 3];
  const uint32_t base = configuration & 0x10 ? 0xFFFFF000u : 1000u;

  CheckingSink sink(configuration & 0x20);
  pelka::FlowTracker tracker(&sink, options);
  sink.set_tracker(&tracker);
  pelka::PacketDecoder decoder;
  uint64_t time_us = 1'700'000'000'000'000;
  uint64_t number = 0;

  for (size_t at = 1; at + 6 <= size; at += 6) {
    const uint8_t* p = data + at;
    const Connection& connection = kConnections[p[0] & 7];
    const bool from_server = p[0] & 8;
    Segment segment;
    segment.source = from_server ? connection.server : connection.client;
    segment.destination = from_server ? connection.client : connection.server;
    segment.source_port = from_server ? connection.server_port : connection.client_port;
    segment.destination_port = from_server ? connection.client_port : connection.server_port;
    segment.flags = p[1];
    segment.sequence = base + (from_server ? 0x10000u : 0u) + static_cast<uint32_t>(p[2] | p[3] << 8);
    segment.acknowledgement = base;
    // A SYN's data starts one sequence number after it.
    const uint32_t first = segment.sequence + (segment.flags & pelka::kTcpSyn ? 1 : 0);
    for (uint32_t i = 0; i < p[5]; ++i) segment.payload.push_back(static_cast<char>(first + i));
    time_us += uint64_t{p[4]} * 10'000;

    const pelka::test::Bytes frame = pelka::test::IpPacket(segment);
    pelka::DecodedPacket decoded;
    if (decoder.Decode(pelka::kLinkRaw, frame.data(), frame.size(), &decoded) != pelka::DecodeStatus::kTcp) {
      Fail("a well-formed frame did not decode");
    }
    tracker.OnPacket(decoded, frame.data(), ++number, time_us);
    if (tracker.tracked_connections() > options.max_flows) Fail("more connections than the bound");
  }
  tracker.Finish();
  if (!sink.all_ended()) Fail("a flow was left open after Finish");
  return 0;
}
