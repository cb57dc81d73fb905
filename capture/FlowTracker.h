// Follows the TCP connections of a capture and hands the mail flows among them
// to a FlowSink.
//
// - A flow is one TCP connection: both directions of an address and port pair.
//   Only flows with port 25 (SMTP, 630), 110 (POP3, 626) or 143 (IMAP4, 614) on
//   either side are tracked, checked in that order; other packets are counted
//   and dropped at once. A flow is classified and offered once, at its first
//   packet.
// - The first view of the client is the sender of a SYN without ACK, else the
//   sender of the flow's first captured packet. The sink may swap the sides at
//   OnFlowStart; directions follow the swap.
// - Every packet of a taken flow is delivered once with its own record. Bytes
//   delivered before (retransmissions, overlaps) are trimmed off; a packet
//   trimmed to nothing comes with length 0, as does a packet without payload.
//   A segment ahead of the next expected sequence number is held and delivered
//   right after the packet that fills the gap, in sequence order. At most
//   kMaxHeldSegments segments or kMaxHeldBytes payload bytes are held per
//   direction; beyond that the lowest held segment (possibly the one that just
//   came) is delivered after its gap. Over all connections at most
//   Options::max_held_bytes of frames are held: beyond that, the segment held
//   longest goes out after its gap (with the segments of its direction below
//   it, then those it reaches), so memory stays bounded however many
//   connections lose packets at once.
// - A side's stream begins at its SYN's number + 1; without a SYN, at its first
//   segment with payload, unless a packet without payload came first and the
//   data starts more than one byte past that packet's number: then the data is
//   held until a segment starting at most one byte past it comes.
// - A flow ends right after the first packet that follows FINs from both
//   directions, right after an RST, after the idle timeout (capture time), when
//   the live-flow bound needs room (least recently active first), on a new SYN
//   of the same addresses and ports (unless it repeats the flow's own SYN), and
//   at Finish. Held segments are delivered, gaps skipped, before OnFlowEnd.
//   Later packets of an ended connection are not delivered until a new SYN;
//   the ended entry is forgotten after another idle timeout of silence.
//
// Memory budget: per tracked connection (live or ended) a fixed part of about
// 350 bytes (the flow, 264 bytes on x86-64, and its table node); per live flow with segments out of order at
// most 2 x (kMaxHeldSegments frame headers + kMaxHeldBytes payload), about
// 2.1 MiB, and over all flows at most Options::max_held_bytes; the number of
// entries is bounded by Options::max_flows, whatever the idle timeout. In-order
// delivery allocates nothing per packet; held segments reuse freed buffers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "capture/FlowSink.h"
#include "capture/PacketDecoder.h"
#include "capture/PacketRecordBuilder.h"

namespace pelka {

struct FlowTrackerCounters {
  uint64_t packets = 0;            // TCP packets handed to the tracker
  uint64_t not_mail = 0;           // dropped: no mail port
  uint64_t flows_smtp = 0;         // flows offered, by protocol
  uint64_t flows_pop3 = 0;
  uint64_t flows_imap = 0;
  uint64_t flows_declined = 0;     // offered, not taken
  uint64_t packets_delivered = 0;
  uint64_t packets_ignored = 0;    // of declined flows
  uint64_t packets_after_end = 0;  // of ended connections, not delivered
  uint64_t segments_held = 0;
  uint64_t gaps_skipped = 0;       // sequence gaps never filled
  uint64_t hold_limit_gaps = 0;    // of those, skipped because Options::max_held_bytes was reached
  uint64_t flows_idle = 0;
  uint64_t flows_evicted = 0;
};

class FlowTracker {
 public:
  static constexpr size_t kMaxHeldSegments = 64;
  static constexpr size_t kMaxHeldBytes = 1024 * 1024;

  struct Options {
    // A connection silent for longer ends (and an ended one is forgotten).
    // Half an hour: an IMAP client idles up to 29 minutes between commands.
    uint64_t idle_timeout_us = 1800ull * 1000 * 1000;
    size_t max_flows = 100000;  // live and ended connections together
    // Frame bytes of out-of-order segments held over all connections.
    size_t max_held_bytes = size_t{256} << 20;
  };

  explicit FlowTracker(FlowSink* sink);
  FlowTracker(FlowSink* sink, Options options);
  ~FlowTracker();
  FlowTracker(const FlowTracker&) = delete;
  FlowTracker& operator=(const FlowTracker&) = delete;

  // One decoded TCP packet: `frame` holds its captured bytes, at least up to
  // the end of the captured payload. Numbers and times come from the capture.
  void OnPacket(const DecodedPacket& packet, const uint8_t* frame, uint64_t packet_number, uint64_t time_us);

  // Capture time moved on without a packet (live capture): ends idle flows.
  void Advance(uint64_t time_us);

  // End of input: every live flow ends, in the order the flows started.
  void Finish();

  size_t tracked_connections() const { return flows_.size(); }
  // Frame bytes held out of order now, over all connections.
  size_t held_bytes() const { return held_bytes_; }
  const FlowTrackerCounters& counters() const { return counters_; }

 private:
  struct Flow;
  struct Stream;
  struct HeldSegment;
  struct SegmentBytes;
  struct Key {
    std::array<uint8_t, 16> address[2];
    uint16_t port[2];
    uint8_t version;
    friend bool operator==(const Key&, const Key&) = default;
  };
  struct KeyHash {
    size_t operator()(const Key& key) const;
  };
  struct Packet;
  // A held segment, in the order segments were held: the oldest is released
  // first when the bound over all connections is reached. Tickets of
  // segments already delivered are dropped lazily.
  struct HoldTicket {
    uint64_t serial;
    Key key;
    int side;
  };

  static Key MakeKey(const DecodedPacket& packet);
  // The entry of the packet's connection, or nullptr; sets `side` to the
  // sender's index in the flow's sides. A small table of recently found
  // entries, by a slot both directions share, is tried before a key is made
  // and looked up: a capture interleaves few connections at a time.
  Flow* Find(const DecodedPacket& packet, int* side);
  static size_t RecentSlot(const IpAddress& a, uint16_t a_port, const IpAddress& b, uint16_t b_port);
  // Whether the packet belongs to `flow`; sets `side` when it does.
  static bool SameConnection(const Flow& flow, const DecodedPacket& packet, int* side);
  Flow* StartFlow(const Key& key, const Packet& packet, uint16_t protocol);
  bool StartsNewConnection(const Flow& flow, const Packet& packet) const;
  void HandlePacket(Flow& flow, const Packet& packet);
  void HandleData(Flow& flow, Stream& stream, const Packet& packet);
  static void BeginStream(Stream& stream, const DecodedPacket& decoded, uint32_t start);
  void HoldSegment(Flow& flow, Stream& stream, const Packet& packet, uint32_t start);
  void DeliverFrom(Flow& flow, Stream& stream, const Packet& packet, uint32_t start);
  void DrainHeld(Flow& flow, Stream& stream);
  void DeliverHeld(Flow& flow, Stream& stream, HeldSegment& segment);
  void Deliver(Flow& flow, int side, const SegmentBytes& bytes, uint32_t skip);
  void EndFlow(Flow& flow, FlowEndReason reason);
  void FlushHeld(Flow& flow);
  void ReleaseHeld(Stream& stream);
  // Takes the stream's lowest held segment out, keeping the totals.
  HeldSegment TakeLowestHeld(Stream& stream);
  void EnforceHoldLimit();
  // The flow and stream that still hold the ticket's segment, or nulls.
  std::pair<Flow*, Stream*> Holder(const HoldTicket& ticket);
  void DropStaleTickets();
  void Erase(Flow& flow);
  void Touch(Flow& flow, uint64_t time_us);
  void Unlink(Flow& flow);
  // Whether the least recently active entry has been silent too long: asked
  // inline for every packet, so that ExpireIdle is called only when there is
  // something to end.
  bool IdleExpired(uint64_t time_us) const;
  void ExpireIdle(uint64_t time_us);
  void MakeRoom();

  FlowSink* sink_;
  Options options_;
  PacketRecordBuilder builder_;
  std::unordered_map<Key, std::unique_ptr<Flow>, KeyHash> flows_;
  static constexpr size_t kRecentSlots = 64;
  std::array<Flow*, kRecentSlots> recent_{};
  Flow* oldest_ = nullptr;  // least recently active entry
  Flow* newest_ = nullptr;
  uint64_t next_id_ = 1;
  std::vector<std::vector<uint8_t>> spare_buffers_;
  std::deque<HoldTicket> tickets_;
  uint64_t next_serial_ = 1;
  size_t held_bytes_ = 0;     // frame bytes held over all flows
  size_t held_segments_ = 0;  // segments held over all flows
  FlowTrackerCounters counters_;
};

}  // namespace pelka
