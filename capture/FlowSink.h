// What the flow tracker tells its user: a mail flow starts, one of its packets
// is delivered, it ends.
#pragma once

#include <array>
#include <cstdint>

#include "capture/PacketDecoder.h"
#include "host/PacketRecord.h"

namespace pelka {

// One side of a flow. The MAC address is the first one seen for that side
// (Ethernet and cooked captures); has_mac stays false where none was seen.
struct FlowEndpoint {
  IpAddress address;
  uint16_t port = 0;
  bool has_mac = false;
  std::array<uint8_t, 6> mac{};
};

// The sink's view of one tracked flow. The tracker owns it; the pointer stays
// valid from OnFlowStart until OnFlowEnd returns.
class TrackedFlow {
 public:
  // Unique per run, in the order flows start.
  uint64_t id() const { return id_; }
  // 630 (SMTP), 626 (POP3) or 614 (IMAP4).
  uint16_t application_protocol() const { return protocol_; }
  uint8_t ip_version() const { return sides_[0].address.version; }

  const FlowEndpoint& client() const { return sides_[swapped_ ? 1 : 0]; }
  const FlowEndpoint& server() const { return sides_[swapped_ ? 0 : 1]; }

  // Exchanges client and server. Directions of every later packet follow.
  void SwapSides() { swapped_ = !swapped_; }
  bool swapped() const { return swapped_; }

  // Gaps skipped in the flow's data so far (bytes never captured).
  uint32_t gaps() const { return gaps_; }
  // The flow's first packet was a SYN: the capture saw the connection open.
  bool opened_by_syn() const { return opened_by_syn_; }

  // Free for the sink: the tracker never reads or frees it.
  void* user_data = nullptr;

 private:
  friend class FlowTracker;

  uint64_t id_ = 0;
  uint16_t protocol_ = 0;
  bool swapped_ = false;
  bool opened_by_syn_ = false;
  uint32_t gaps_ = 0;
  // [0] is the side the tracker first took for the client, [1] the other.
  std::array<FlowEndpoint, 2> sides_{};
};

enum class FlowEndReason {
  kClosed,      // FINs from both directions, then one more packet
  kReset,       // an RST
  kIdle,        // nothing for the idle timeout
  kEvicted,     // the live-flow bound made room for a new flow
  kReplaced,    // a new SYN on the same addresses and ports
  kEndOfInput,  // still open when the input ended
};

class FlowSink {
 public:
  virtual ~FlowSink() = default;

  // A new SMTP, POP3 or IMAP4 flow, offered once, before its first packet.
  // The sink may call flow.SwapSides() here. False: the flow is not taken and
  // none of its packets is delivered.
  virtual bool OnFlowStart(TrackedFlow& flow) = 0;

  // One packet of a taken flow, with its own record, in the tracker's delivery
  // order. `payload` holds `length` new bytes (0 for a packet without new
  // payload); direction 1 = from the client, 2 = from the server.
  virtual void OnFlowPacket(TrackedFlow& flow, const PacketRecord& record, const uint8_t* payload, uint32_t length,
                            uint32_t direction) = 0;

  // The flow ends; no packet of it follows.
  virtual void OnFlowEnd(TrackedFlow& flow, FlowEndReason reason) = 0;

  // A SYN without ACK on a port that is not followed (nothing else of such
  // connections is delivered): the sink may count it.
  virtual void OnUnfollowedSyn(const DecodedPacket& /*packet*/, uint64_t /*number*/, uint64_t /*time_us*/) {}
};

}  // namespace pelka
