#include "capture/FlowTracker.h"

#include <algorithm>
#include <cstring>

#include "host/Types.h"

namespace pelka {

namespace {

constexpr size_t kMaxSpareBuffers = 256;

// Sequence numbers wrap; the sign of the 32-bit difference tells the order.
int32_t SeqDiff(uint32_t a, uint32_t b) { return static_cast<int32_t>(a - b); }

uint16_t Classify(const DecodedPacket& packet) {
  auto either = [&](uint16_t port) { return packet.source_port == port || packet.destination_port == port; };
  if (either(kSmtpPort)) return kProtocolSmtp;
  if (either(kPop3Port)) return kProtocolPop3;
  if (either(kImapPort)) return kProtocolImap4;
  return 0;
}

}  // namespace

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

size_t FlowTracker::KeyHash::operator()(const Key& key) const {
  // Multiply-xorshift over the key's 64-bit words: a few cycles per packet.
  auto mix = [](uint64_t hash, uint64_t word) {
    hash = (hash ^ word) * 0x9E3779B97F4A7C15ull;
    return hash ^ (hash >> 29);
  };
  uint64_t hash = key.version;
  for (int side = 0; side < 2; ++side) {
    uint64_t words[2];
    std::memcpy(words, key.address[side].data(), sizeof(words));
    hash = mix(hash, words[0]);
    hash = mix(hash, words[1]);
  }
  hash = mix(hash, (uint64_t{key.port[0]} << 16) | key.port[1]);
  return static_cast<size_t>(hash);
}

FlowTracker::FlowTracker(FlowSink* sink) : FlowTracker(sink, Options{}) {}

FlowTracker::FlowTracker(FlowSink* sink, Options options) : sink_(sink), options_(options) {
  if (options_.max_flows == 0) options_.max_flows = 1;
}

FlowTracker::~FlowTracker() = default;

FlowTracker::Key FlowTracker::MakeKey(const DecodedPacket& packet) {
  Key key{};
  key.version = packet.source.version;
  // Any fixed order of the two endpoints will do; comparing the addresses as
  // two 64-bit halves is the cheapest.
  uint64_t from[2];
  uint64_t to[2];
  std::memcpy(from, packet.source.bytes.data(), sizeof from);
  std::memcpy(to, packet.destination.bytes.data(), sizeof to);
  const bool source_first = from[0] != to[0]   ? from[0] < to[0]
                            : from[1] != to[1] ? from[1] < to[1]
                                               : packet.source_port < packet.destination_port;
  const int source = source_first ? 0 : 1;
  key.address[source] = packet.source.bytes;
  key.port[source] = packet.source_port;
  key.address[1 - source] = packet.destination.bytes;
  key.port[1 - source] = packet.destination_port;
  return key;
}

void FlowTracker::OnPacket(const DecodedPacket& decoded, const uint8_t* frame, uint64_t packet_number,
                           uint64_t time_us) {
  ++counters_.packets;
  if (IdleExpired(time_us)) ExpireIdle(time_us);
  const uint16_t protocol = Classify(decoded);
  if (protocol == 0) {
    ++counters_.not_mail;
    if (decoded.HasFlag(kTcpSyn) && !decoded.HasFlag(kTcpAck)) sink_->OnUnfollowedSyn(decoded, packet_number, time_us);
    return;
  }

  Packet packet{decoded, {frame, decoded.payload_offset, decoded.tcp_offset, decoded.payload_length, packet_number, time_us}, 0};
  Flow* flow = Find(decoded, &packet.side);
  if (flow) {
    if (StartsNewConnection(*flow, packet)) {
      if (!flow->ended) EndFlow(*flow, FlowEndReason::kReplaced);
      Erase(*flow);
      flow = nullptr;
      packet.side = 0;
    }
  }
  if (flow && flow->ended) {
    ++counters_.packets_after_end;
    Touch(*flow, time_us);
    return;
  }
  if (flow) {
    Touch(*flow, time_us);
  } else {
    flow = StartFlow(MakeKey(decoded), packet, protocol);
  }
  HandlePacket(*flow, packet);
}

void FlowTracker::Advance(uint64_t time_us) { ExpireIdle(time_us); }

void FlowTracker::Finish() {
  std::vector<Flow*> live;
  for (auto& entry : flows_) {
    if (!entry.second->ended) live.push_back(entry.second.get());
  }
  std::sort(live.begin(), live.end(), [](const Flow* a, const Flow* b) { return a->view.id_ < b->view.id_; });
  for (Flow* flow : live) EndFlow(*flow, FlowEndReason::kEndOfInput);
  while (oldest_) Erase(*oldest_);
}

bool FlowTracker::StartsNewConnection(const Flow& flow, const Packet& packet) const {
  const DecodedPacket& d = packet.decoded;
  if (!d.HasFlag(kTcpSyn) || d.HasFlag(kTcpAck)) return false;
  if (flow.ended) return true;
  const Stream& own = flow.streams[packet.side];
  if (own.syn) return own.syn_sequence != d.sequence;  // else a retransmitted SYN
  // The SYN-ACK answering this SYN may have been captured first.
  const Stream& other = flow.streams[1 - packet.side];
  return !(other.syn_ack && other.syn_ack_acknowledgement == d.sequence + 1);
}

FlowTracker::Flow* FlowTracker::StartFlow(const Key& key, const Packet& packet, uint16_t protocol) {
  MakeRoom();
  auto owned = std::make_unique<Flow>();
  Flow* flow = owned.get();
  flow->key = key;
  const DecodedPacket& d = packet.decoded;
  TrackedFlow& view = flow->view;
  view.id_ = next_id_++;
  view.protocol_ = protocol;
  view.opened_by_syn_ = d.HasFlag(kTcpSyn);
  // The first packet's sender: the SYN's sender when the SYN opens the capture.
  view.sides_[0].address = d.source;
  view.sides_[0].port = d.source_port;
  view.sides_[1].address = d.destination;
  view.sides_[1].port = d.destination_port;
  flows_.emplace(key, std::move(owned));
  flow->last_time_us = packet.bytes.time_us;
  flow->older = newest_;
  if (newest_) newest_->newer = flow;
  newest_ = flow;
  if (!oldest_) oldest_ = flow;

  if (protocol == kProtocolSmtp) ++counters_.flows_smtp;
  if (protocol == kProtocolPop3) ++counters_.flows_pop3;
  if (protocol == kProtocolImap4) ++counters_.flows_imap;
  flow->taken = sink_->OnFlowStart(view);
  if (!flow->taken) ++counters_.flows_declined;
  return flow;
}

void FlowTracker::HandlePacket(Flow& flow, const Packet& packet) {
  const DecodedPacket& d = packet.decoded;
  std::array<FlowEndpoint, 2>& sides = flow.view.sides_;
  if (d.has_source_mac && !sides[packet.side].has_mac) {
    sides[packet.side].has_mac = true;
    sides[packet.side].mac = d.source_mac;
  }
  if (d.has_destination_mac && !sides[1 - packet.side].has_mac) {
    sides[1 - packet.side].has_mac = true;
    sides[1 - packet.side].mac = d.destination_mac;
  }

  Stream& stream = flow.streams[packet.side];
  const bool closing = flow.streams[0].fin && flow.streams[1].fin;  // before this packet
  if (d.HasFlag(kTcpSyn) && !d.HasFlag(kTcpAck) && !stream.syn) {
    stream.syn = true;
    stream.syn_sequence = d.sequence;
  }
  if (d.HasFlag(kTcpSyn) && d.HasFlag(kTcpAck)) {
    stream.syn_ack = true;
    stream.syn_ack_acknowledgement = d.acknowledgement;
  }
  if (flow.taken) {
    HandleData(flow, stream, packet);
  } else {
    ++counters_.packets_ignored;
  }
  if (d.HasFlag(kTcpFin)) stream.fin = true;
  if (d.HasFlag(kTcpRst)) {
    EndFlow(flow, FlowEndReason::kReset);
  } else if (closing) {
    EndFlow(flow, FlowEndReason::kClosed);
  }
}

void FlowTracker::HandleData(Flow& flow, Stream& stream, const Packet& packet) {
  const DecodedPacket& d = packet.decoded;
  const bool syn = d.HasFlag(kTcpSyn);
  const uint32_t start = d.sequence + (syn ? 1 : 0);  // the SYN takes one sequence number
  if (!stream.started) {
    BeginStream(stream, d, start);
  } else if (stream.awaiting_head && d.segment_length > 0 && SeqDiff(start, stream.next) <= 0) {
    // The head has come: the stream begins with it, whatever lies below.
    stream.awaiting_head = false;
    stream.next = start;
  }
  if (d.segment_length == 0) {
    Deliver(flow, packet.side, packet.bytes, 0);
  } else if (SeqDiff(start, stream.next) > 0) {
    HoldSegment(flow, stream, packet, start);
  } else {
    DeliverFrom(flow, stream, packet, start);
  }
}

// A SYN fixes where the stream begins; without one, the first segment that
// carries data does, unless a packet without payload said the data lies
// further on.
void FlowTracker::BeginStream(Stream& stream, const DecodedPacket& d, uint32_t start) {
  if (!d.HasFlag(kTcpSyn) && d.segment_length == 0) {
    stream.bare_seen = true;
    stream.bare_sequence = d.sequence;
    return;
  }
  stream.started = true;
  stream.next = start;
  if (d.HasFlag(kTcpSyn) || !stream.bare_seen) return;
  const uint32_t head_limit = stream.bare_sequence + 1;
  if (SeqDiff(start, head_limit) <= 0) return;
  stream.awaiting_head = true;
  stream.next = head_limit;
}

void FlowTracker::DeliverFrom(Flow& flow, Stream& stream, const Packet& packet, uint32_t start) {
  Deliver(flow, packet.side, packet.bytes, stream.next - start);
  const uint32_t end = start + packet.decoded.segment_length;
  if (SeqDiff(end, stream.next) > 0) stream.next = end;
  DrainHeld(flow, stream);
}

void FlowTracker::HoldSegment(Flow& flow, Stream& stream, const Packet& packet, uint32_t start) {
  const DecodedPacket& d = packet.decoded;
  HeldSegment segment{start, d.segment_length, packet.bytes.header_length, packet.bytes.tcp_offset,
                      d.payload_length, packet.bytes.number, packet.bytes.time_us, next_serial_++, {}};
  if (!spare_buffers_.empty()) {
    segment.frame = std::move(spare_buffers_.back());
    spare_buffers_.pop_back();
  }
  const size_t stored = size_t{packet.bytes.header_length} + d.payload_length;
  segment.frame.assign(packet.bytes.frame, packet.bytes.frame + stored);
  auto position = std::upper_bound(stream.held.begin(), stream.held.end(), start,
                                   [](uint32_t value, const HeldSegment& held) { return SeqDiff(value, held.start) < 0; });
  const int side = &stream == &flow.streams[0] ? 0 : 1;
  tickets_.push_back({segment.serial, flow.key, side});
  held_bytes_ += stored;
  ++held_segments_;
  stream.held.insert(position, std::move(segment));
  stream.held_bytes += d.payload_length;
  ++counters_.segments_held;
  // Over the bound, the lowest held segment goes out after its gap, even the
  // one that just came: bytes never delivered are never trimmed.
  while (stream.held.size() > kMaxHeldSegments || stream.held_bytes > kMaxHeldBytes) {
    ++counters_.gaps_skipped;
    ++flow.view.gaps_;
    stream.next = stream.held.front().start;
    DrainHeld(flow, stream);
  }
  EnforceHoldLimit();
  if (tickets_.size() > 2 * held_segments_ + 1024) DropStaleTickets();
}

// Over the bound of all flows, the segment held longest goes out after its
// gap. Its direction may hold lower segments that came later: they go first,
// as the per-direction bound sends them, so no byte is trimmed unseen.
void FlowTracker::EnforceHoldLimit() {
  while (held_bytes_ > options_.max_held_bytes && !tickets_.empty()) {
    const auto [flow, stream] = Holder(tickets_.front());
    if (!stream) {
      tickets_.pop_front();
      continue;
    }
    ++counters_.gaps_skipped;
    ++counters_.hold_limit_gaps;
    ++flow->view.gaps_;
    stream->next = stream->held.front().start;
    DrainHeld(*flow, *stream);
  }
}

std::pair<FlowTracker::Flow*, FlowTracker::Stream*> FlowTracker::Holder(const HoldTicket& ticket) {
  const auto found = flows_.find(ticket.key);
  if (found == flows_.end()) return {nullptr, nullptr};
  Flow& flow = *found->second;
  Stream& stream = flow.streams[ticket.side];
  const bool held = std::any_of(stream.held.begin(), stream.held.end(),
                                [&](const HeldSegment& segment) { return segment.serial == ticket.serial; });
  return held ? std::pair{&flow, &stream} : std::pair<Flow*, Stream*>{nullptr, nullptr};
}

// Tickets of delivered segments pile up behind one held for long; they are
// dropped once they outnumber the held segments, at a cost shared by the
// holds that made them.
void FlowTracker::DropStaleTickets() {
  std::erase_if(tickets_, [this](const HoldTicket& ticket) { return Holder(ticket).second == nullptr; });
}

FlowTracker::HeldSegment FlowTracker::TakeLowestHeld(Stream& stream) {
  HeldSegment segment = std::move(stream.held.front());
  stream.held.erase(stream.held.begin());
  stream.held_bytes -= segment.payload_length;
  held_bytes_ -= segment.frame.size();
  --held_segments_;
  return segment;
}

void FlowTracker::DrainHeld(Flow& flow, Stream& stream) {
  while (!stream.held.empty() && SeqDiff(stream.held.front().start, stream.next) <= 0) {
    HeldSegment segment = TakeLowestHeld(stream);
    DeliverHeld(flow, stream, segment);
  }
}

void FlowTracker::DeliverHeld(Flow& flow, Stream& stream, HeldSegment& segment) {
  const int side = &stream == &flow.streams[0] ? 0 : 1;
  stream.awaiting_head = false;
  Deliver(flow, side, segment.Bytes(), stream.next - segment.start);
  const uint32_t end = segment.start + segment.segment_length;
  if (SeqDiff(end, stream.next) > 0) stream.next = end;
  if (spare_buffers_.size() < kMaxSpareBuffers) spare_buffers_.push_back(std::move(segment.frame));
}

void FlowTracker::Deliver(Flow& flow, int side, const SegmentBytes& bytes, uint32_t skip) {
  const uint32_t length = skip < bytes.payload_length ? bytes.payload_length - skip : 0;
  const uint8_t* payload = bytes.frame + bytes.header_length + (length ? skip : 0);
  const int client_side = flow.view.swapped_ ? 1 : 0;
  const uint32_t direction = side == client_side ? kFromClient : kFromServer;
  const PacketRecord& record =
      builder_.Build(bytes.number, bytes.time_us, bytes.frame, bytes.header_length, bytes.tcp_offset);
  ++counters_.packets_delivered;
  sink_->OnFlowPacket(flow.view, record, payload, length, direction);
}

void FlowTracker::FlushHeld(Flow& flow) {
  for (;;) {
    // Of the two directions' lowest held segments, the one captured first.
    Stream* pick = nullptr;
    for (Stream& stream : flow.streams) {
      if (stream.held.empty()) continue;
      if (!pick || stream.held.front().number < pick->held.front().number) pick = &stream;
    }
    if (!pick) return;
    if (SeqDiff(pick->held.front().start, pick->next) > 0) {
      ++counters_.gaps_skipped;
      ++flow.view.gaps_;
      pick->next = pick->held.front().start;
    }
    HeldSegment segment = TakeLowestHeld(*pick);
    DeliverHeld(flow, *pick, segment);
  }
}

void FlowTracker::EndFlow(Flow& flow, FlowEndReason reason) {
  if (flow.ended) return;
  flow.ended = true;
  if (flow.taken) {
    FlushHeld(flow);
    sink_->OnFlowEnd(flow.view, reason);
  }
  for (Stream& stream : flow.streams) ReleaseHeld(stream);
}

void FlowTracker::ReleaseHeld(Stream& stream) {
  for (HeldSegment& segment : stream.held) {
    held_bytes_ -= segment.frame.size();
    --held_segments_;
    if (spare_buffers_.size() < kMaxSpareBuffers) spare_buffers_.push_back(std::move(segment.frame));
  }
  stream.held.clear();
  stream.held.shrink_to_fit();
  stream.held_bytes = 0;
}

size_t FlowTracker::RecentSlot(const IpAddress& a, uint16_t a_port, const IpAddress& b, uint16_t b_port) {
  // The same slot for both directions: ports and the addresses' last bytes
  // (IPv4 and IPv6 alike) combined by xor.
  const unsigned mix = a_port ^ b_port ^ a.bytes[3] ^ b.bytes[3] ^ a.bytes[15] ^ b.bytes[15];
  return mix % kRecentSlots;
}

bool FlowTracker::SameConnection(const Flow& flow, const DecodedPacket& packet, int* side) {
  const std::array<FlowEndpoint, 2>& sides = flow.view.sides_;
  for (int from = 0; from < 2; ++from) {
    if (sides[from].port == packet.source_port && sides[1 - from].port == packet.destination_port &&
        sides[from].address == packet.source && sides[1 - from].address == packet.destination) {
      *side = from;
      return true;
    }
  }
  return false;
}

FlowTracker::Flow* FlowTracker::Find(const DecodedPacket& packet, int* side) {
  Flow*& recent = recent_[RecentSlot(packet.source, packet.source_port, packet.destination, packet.destination_port)];
  if (recent && SameConnection(*recent, packet, side)) return recent;
  const auto found = flows_.find(MakeKey(packet));
  if (found == flows_.end()) return nullptr;
  recent = found->second.get();
  SameConnection(*recent, packet, side);
  return recent;
}

void FlowTracker::Erase(Flow& flow) {
  const std::array<FlowEndpoint, 2>& sides = flow.view.sides_;
  Flow*& recent = recent_[RecentSlot(sides[0].address, sides[0].port, sides[1].address, sides[1].port)];
  if (recent == &flow) recent = nullptr;
  for (Stream& stream : flow.streams) ReleaseHeld(stream);
  Unlink(flow);
  const Key key = flow.key;  // the flow, and its key, go with the entry
  flows_.erase(key);
}

void FlowTracker::Unlink(Flow& flow) {
  (flow.older ? flow.older->newer : oldest_) = flow.newer;
  (flow.newer ? flow.newer->older : newest_) = flow.older;
  flow.older = flow.newer = nullptr;
}

void FlowTracker::Touch(Flow& flow, uint64_t time_us) {
  flow.last_time_us = time_us;
  if (newest_ == &flow) return;
  Unlink(flow);
  flow.older = newest_;
  if (newest_) newest_->newer = &flow;
  newest_ = &flow;
  if (!oldest_) oldest_ = &flow;
}

bool FlowTracker::IdleExpired(uint64_t time_us) const {
  return oldest_ && time_us > oldest_->last_time_us && time_us - oldest_->last_time_us > options_.idle_timeout_us;
}

void FlowTracker::ExpireIdle(uint64_t time_us) {
  while (IdleExpired(time_us)) {
    Flow& flow = *oldest_;
    if (flow.ended) {
      Erase(flow);
      continue;
    }
    ++counters_.flows_idle;
    EndFlow(flow, FlowEndReason::kIdle);
    Touch(flow, time_us);  // the ended connection is remembered for one more timeout
  }
}

void FlowTracker::MakeRoom() {
  while (flows_.size() >= options_.max_flows && oldest_) {
    Flow& flow = *oldest_;
    if (!flow.ended) {
      ++counters_.flows_evicted;
      EndFlow(flow, FlowEndReason::kEvicted);
    }
    Erase(flow);
  }
}

}  // namespace pelka
