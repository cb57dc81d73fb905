// The tracker's own state of a connection and of its held segments, shared by
// the files that implement FlowTracker; nothing outside them includes it.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "capture/FlowTracker.h"

namespace pelka {

// Sequence numbers wrap; the sign of the 32-bit difference tells the order.
inline int32_t SeqDiff(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b); }

// A segment's bytes as needed to deliver it: the frame up to the end of the
// captured payload, where its headers end, and its place in the capture.
struct FlowTracker::SegmentBytes {
  const uint8_t* frame;
  uint32_t header_length;
  uint32_t tcp_offset;
  uint32_t payload_length;
  uint64_t number;
  uint64_t time_us;
};

struct FlowTracker::Packet {
  const DecodedPacket& decoded;
  SegmentBytes bytes;
  int side;  // index of the sender in TrackedFlow::sides_
};

struct FlowTracker::HeldSegment {
  uint32_t start;           // sequence number of the first payload byte
  uint32_t segment_length;  // payload bytes in sequence space
  uint32_t header_length;
  uint32_t tcp_offset;
  uint32_t payload_length;  // captured payload bytes
  uint64_t number;
  uint64_t time_us;
  uint64_t serial;  // order of holding, over all flows
  std::vector<uint8_t> frame;

  SegmentBytes Bytes() const { return {frame.data(), header_length, tcp_offset, payload_length, number, time_us}; }
};

struct FlowTracker::Stream {
  bool started = false;
  uint32_t next = 0;  // next expected sequence number
  // Without a SYN, a packet without payload before the first data tells where
  // the stream can begin: data more than one byte past its number lies beyond
  // a gap and waits for its head (a keep-alive is sent one below the next byte).
  bool bare_seen = false;
  uint32_t bare_sequence = 0;
  bool awaiting_head = false;
  bool syn = false;
  uint32_t syn_sequence = 0;
  bool fin = false;
  bool syn_ack = false;
  uint32_t syn_ack_acknowledgement = 0;
  std::vector<HeldSegment> held;  // ordered by start, capture order among equals
  size_t held_bytes = 0;
};

struct FlowTracker::Flow {
  Key key;
  TrackedFlow view;
  bool taken = false;
  bool ended = false;
  std::array<Stream, 2> streams;
  uint64_t last_time_us = 0;
  Flow* older = nullptr;
  Flow* newer = nullptr;
};

}  // namespace pelka
