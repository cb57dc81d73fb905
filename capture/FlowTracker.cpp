#include "capture/FlowTracker.h"

#include <algorithm>
#include <cstring>

#include "capture/FlowTrackerState.h"
#include "host/Types.h"

namespace pelka {

namespace {

uint16_t Classify(const DecodedPacket& packet) {
  auto either = [&](uint16_t port) { return packet.source_port == port || packet.destination_port == port; };
  if (either(kSmtpPort)) return kProtocolSmtp;
  if (either(kPop3Port)) return kProtocolPop3;
  if (either(kImapPort)) return kProtocolImap4;
  return 0;
}

}  // namespace

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
  if (!stream.held.empty()) DrainHeld(flow, stream);
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

void FlowTracker::EndFlow(Flow& flow, FlowEndReason reason) {
  if (flow.ended) return;
  flow.ended = true;
  if (flow.taken) {
    FlushHeld(flow);
    sink_->OnFlowEnd(flow.view, reason);
  }
  for (Stream& stream : flow.streams) ReleaseHeld(stream);
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
