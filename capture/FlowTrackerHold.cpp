// The segments a flow holds until the bytes before them arrive, and the
// bounds that send them out after their gap.
#include <algorithm>

#include "capture/FlowTracker.h"
#include "capture/FlowTrackerState.h"

namespace pelka {
namespace {

constexpr size_t kMaxSpareBuffers = 256;

}  // namespace

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

}  // namespace pelka
