// Plays one scripted TCP conversation as packets: the three-way handshake,
// each turn cut into MSS-sized segments with the receiver's ACK after every
// second segment, and the FIN exchange at the end. Packets come out one at a
// time so that many conversations can be interleaved by time.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "bench/TrafficGeneratorPcap.h"

namespace pelka {

enum class Side : uint8_t { kClient = 0, kServer = 1 };

struct Turn {
  Side side = Side::kClient;
  uint64_t delay_us = 0;  // quiet time before the turn's first segment
  std::string bytes;
};

struct Conversation {
  TcpEndpoint client;
  TcpEndpoint server;
  std::vector<Turn> turns;
  uint32_t segment_gap_us = 100;  // between the segments of one turn
  uint32_t round_trip_us = 2000;
};

inline constexpr uint32_t kTrafficMss = 1460;

// Segments a turn of `length` bytes is cut into.
inline uint64_t SegmentCount(uint64_t length) { return (length + kTrafficMss - 1) / kTrafficMss; }

class TcpConversationPlayer {
 public:
  TcpConversationPlayer(Conversation conversation, uint64_t start_us, uint32_t client_isn, uint32_t server_isn);

  bool done() const { return pending_.empty(); }
  // Time of the packet WriteNext writes; only when not done.
  uint64_t next_time_us() const { return pending_.front().time_us; }
  void WriteNext(PcapTrafficWriter& writer);

 private:
  struct Pending {
    Side from;
    uint8_t flags;
    uint16_t mss_option;
    uint32_t seq;
    uint32_t ack;
    uint32_t offset;  // payload range in the current turn
    uint32_t length;
    uint64_t time_us;
  };
  enum class Phase : uint8_t { kTurns, kClose, kDone };

  void Push(Side from, uint8_t flags, uint64_t time_us, uint32_t offset = 0, uint32_t length = 0);
  void Refill();
  void ExpandTurn();
  void ExpandClose();

  Conversation conversation_;
  std::deque<Pending> pending_;
  Phase phase_ = Phase::kTurns;
  size_t turn_ = 0;      // next turn to expand
  size_t current_ = 0;   // turn whose bytes the pending packets carry
  uint32_t next_seq_[2];
  uint16_t ip_id_[2];
  uint64_t clock_us_;
};

}  // namespace pelka
