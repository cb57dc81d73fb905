#include "bench/TrafficGeneratorTcp.h"

#include <algorithm>
#include <utility>

namespace pelka {
namespace {

constexpr uint16_t kWindow[2] = {64240, 65160};
constexpr uint16_t kSynMss = kTrafficMss;
constexpr uint64_t kCloseDelayUs = 500;

size_t Index(Side side) { return static_cast<size_t>(side); }
Side Peer(Side side) { return side == Side::kClient ? Side::kServer : Side::kClient; }

}  // namespace

TcpConversationPlayer::TcpConversationPlayer(Conversation conversation, uint64_t start_us, uint32_t client_isn,
                                             uint32_t server_isn)
    : conversation_(std::move(conversation)),
      next_seq_{client_isn, server_isn},
      ip_id_{static_cast<uint16_t>(client_isn), static_cast<uint16_t>(server_isn)},
      clock_us_(start_us) {
  const uint64_t half = conversation_.round_trip_us / 2;
  Push(Side::kClient, tcp_flag::kSyn, clock_us_);
  pending_.back().mss_option = kSynMss;
  next_seq_[0] += 1;
  Push(Side::kServer, tcp_flag::kSyn | tcp_flag::kAck, clock_us_ + half);
  pending_.back().mss_option = kSynMss;
  next_seq_[1] += 1;
  Push(Side::kClient, tcp_flag::kAck, clock_us_ + 2 * half);
  clock_us_ += 2 * half;
}

void TcpConversationPlayer::Push(Side from, uint8_t flags, uint64_t time_us, uint32_t offset, uint32_t length) {
  // The caller advances the sequence number after pushing (payload, SYN, FIN).
  const uint32_t seq = next_seq_[Index(from)];
  const uint32_t ack = (flags & tcp_flag::kAck) ? next_seq_[Index(Peer(from))] : 0;
  pending_.push_back(Pending{from, flags, 0, seq, ack, offset, length, time_us});
}

void TcpConversationPlayer::WriteNext(PcapTrafficWriter& writer) {
  const Pending packet = pending_.front();
  pending_.pop_front();
  const bool from_client = packet.from == Side::kClient;
  TcpSegment segment;
  segment.from = from_client ? &conversation_.client : &conversation_.server;
  segment.to = from_client ? &conversation_.server : &conversation_.client;
  segment.seq = packet.seq;
  segment.ack = packet.ack;
  segment.flags = packet.flags;
  segment.ip_id = ip_id_[Index(packet.from)]++;
  segment.window = kWindow[Index(packet.from)];
  segment.mss_option = packet.mss_option;
  if (packet.length) {
    const std::string& bytes = conversation_.turns[current_].bytes;
    segment.payload = {reinterpret_cast<const uint8_t*>(bytes.data()) + packet.offset, packet.length};
  }
  segment.time_us = packet.time_us;
  writer.Write(segment);
  if (pending_.empty()) Refill();
}

void TcpConversationPlayer::Refill() {
  while (pending_.empty() && phase_ != Phase::kDone) {
    if (phase_ == Phase::kTurns && turn_ < conversation_.turns.size()) {
      ExpandTurn();
    } else if (phase_ == Phase::kTurns) {
      phase_ = Phase::kClose;
      ExpandClose();
    } else {
      phase_ = Phase::kDone;
    }
  }
}

void TcpConversationPlayer::ExpandTurn() {
  // The bytes of a turn are needed only while its packets are pending.
  if (turn_ > 0) std::string().swap(conversation_.turns[current_].bytes);
  current_ = turn_++;
  const Turn& turn = conversation_.turns[current_];
  const Side from = turn.side;
  const uint32_t length = static_cast<uint32_t>(turn.bytes.size());
  const uint64_t gap = conversation_.segment_gap_us;
  const uint64_t ack_lag = std::max<uint64_t>(1, std::min<uint64_t>(gap / 2, conversation_.round_trip_us / 2));
  uint64_t time = clock_us_ + turn.delay_us;
  uint32_t segment = 0;
  for (uint32_t offset = 0; offset < length; offset += kTrafficMss, ++segment) {
    const uint32_t size = std::min(kTrafficMss, length - offset);
    const bool last = offset + size == length;
    if (segment > 0) time += gap;
    Push(from, tcp_flag::kAck | (last ? tcp_flag::kPsh : 0), time, offset, size);
    next_seq_[Index(from)] += size;
    // Delayed ACK: the receiver answers every second full-sized segment.
    if (segment % 2 == 1 && !last) Push(Peer(from), tcp_flag::kAck, time + ack_lag);
  }
  clock_us_ = time;
}

void TcpConversationPlayer::ExpandClose() {
  const uint64_t half = conversation_.round_trip_us / 2;
  uint64_t time = clock_us_ + kCloseDelayUs;
  Push(Side::kClient, tcp_flag::kFin | tcp_flag::kAck, time);
  next_seq_[0] += 1;
  time += half;
  Push(Side::kServer, tcp_flag::kFin | tcp_flag::kAck, time);
  next_seq_[1] += 1;
  Push(Side::kClient, tcp_flag::kAck, time + half);
  clock_us_ = time + half;
}

}  // namespace pelka
