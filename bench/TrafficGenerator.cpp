#include "bench/TrafficGenerator.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "bench/TrafficGeneratorPcap.h"
#include "bench/TrafficGeneratorSessions.h"
#include "bench/TrafficGeneratorTcp.h"

namespace pelka {
namespace {

constexpr uint64_t kCaptureStartUs = 1700000000ull * 1000000;  // 2023-11-14
constexpr double kMedianSize = 30000;
constexpr double kSizeSigma = 1.5;
constexpr uint64_t kSmallestSize = 2 * 1024;
constexpr uint64_t kLargestSize = 3 * 1000 * 1000;
// Frame overhead per packet in the file: record header, Ethernet, IPv4, TCP.
constexpr uint64_t kPacketOverhead = 16 + 14 + 20 + 20;

MailProtocol RandomProtocol(TrafficRandom& random) {
  const double pick = random.Unit();
  if (pick < 0.45) return MailProtocol::kSmtp;
  if (pick < 0.75) return MailProtocol::kPop3;
  return MailProtocol::kImap;
}

uint64_t MessagesPerSession(TrafficRandom& random, MailProtocol protocol) {
  return protocol == MailProtocol::kImap ? random.Between(2, 5) : random.Between(1, 3);
}

size_t RandomSize(TrafficRandom& random) {
  const double size = random.LogNormal(kMedianSize, kSizeSigma);
  return static_cast<size_t>(std::clamp(size, double(kSmallestSize), double(kLargestSize)));
}

// Addresses and ports of the n-th session: every session has its own client
// address and port, so no connection is ever reused.
Conversation Endpoints(uint64_t n, MailProtocol protocol, TrafficRandom& random) {
  Conversation conversation;
  const uint64_t host = n / 254;
  conversation.client.ip = (10u << 24) | static_cast<uint32_t>((host & 0xFFFF) << 8) | static_cast<uint32_t>(1 + n % 254);
  conversation.client.port = static_cast<uint16_t>(49152 + (n * 7919) % 16000);
  conversation.client.mac = {0x02, 0x00, 0x0A, static_cast<uint8_t>(host >> 8), static_cast<uint8_t>(host),
                             static_cast<uint8_t>(1 + n % 254)};
  const uint32_t server = static_cast<uint32_t>(10 + static_cast<unsigned>(protocol) * 10 + random.Below(3));
  conversation.server.ip = (198u << 24) | (51u << 16) | (100u << 8) | server;
  conversation.server.port = kServicePort[static_cast<size_t>(protocol)];
  conversation.server.mac = {0x02, 0x00, 0xC6, 0x33, 0x64, static_cast<uint8_t>(server)};
  // Per-flow link speed 20 to 400 Mbit/s and round trip 0.5 to 60 ms.
  conversation.segment_gap_us = static_cast<uint32_t>(kTrafficMss * 8 / random.Between(20, 400));
  conversation.round_trip_us = static_cast<uint32_t>(random.Between(500, 60000));
  return conversation;
}

uint64_t EstimateFileBytes(const std::vector<Turn>& turns) {
  uint64_t bytes = 0;
  for (const Turn& turn : turns) {
    const uint64_t segments = std::max<uint64_t>(1, SegmentCount(turn.bytes.size()));
    bytes += turn.bytes.size() + (segments + segments / 2) * kPacketOverhead;
  }
  return bytes + 6 * kPacketOverhead;
}

class Generator {
 public:
  Generator(const TrafficOptions& options, std::FILE* out) : options_(options), random_(options.seed), writer_(out) {}

  TrafficSummary Run() {
    uint64_t now = kCaptureStartUs;
    summary_.first_time_us = now;
    for (uint32_t i = 0; i < std::max(1u, options_.concurrent_sessions) && StartSession(now + random_.Below(50000));
         ++i) {
    }
    while (!players_.empty()) {
      auto earliest = std::min_element(players_.begin(), players_.end(), [](const auto& a, const auto& b) {
        return a->next_time_us() < b->next_time_us();
      });
      now = (*earliest)->next_time_us();
      (*earliest)->WriteNext(writer_);
      if ((*earliest)->done()) {
        players_.erase(earliest);
        StartSession(now + random_.Below(20000));
      }
    }
    summary_.last_time_us = now;
    summary_.packets = writer_.packets();
    summary_.file_bytes = writer_.file_bytes();
    summary_.write_ok = writer_.ok();
    return summary_;
  }

 private:
  bool MoreWanted() const {
    if (options_.message_count) return placed_messages_ < options_.message_count;
    return planned_bytes_ < options_.target_bytes;
  }

  SessionPlan Plan(TrafficRandom& random) {
    SessionPlan plan;
    plan.protocol = RandomProtocol(random);
    plan.flow_limit = options_.flow_limit;
    plan.bdat = plan.protocol == MailProtocol::kSmtp && random.Chance(0.08);
    uint64_t count = MessagesPerSession(random, plan.protocol);
    if (options_.message_count) count = std::min<uint64_t>(count, options_.message_count - placed_messages_);
    for (uint64_t i = 0; i < count; ++i) {
      plan.sizes.push_back(options_.message_count ? options_.message_size : RandomSize(random));
    }
    return plan;
  }

  bool StartSession(uint64_t start_us) {
    if (!MoreWanted()) return false;
    // Each session draws from its own stream, so a change in one kind of
    // session leaves the others as they were.
    TrafficRandom random = random_.Fork();
    const SessionPlan plan = Plan(random);
    Session session = BuildSession(random, plan);
    Conversation conversation = Endpoints(sessions_, plan.protocol, random);
    conversation.turns = std::move(session.turns);
    planned_bytes_ += EstimateFileBytes(conversation.turns);
    placed_messages_ += session.counts.messages;
    Count(plan.protocol, session.counts);
    const uint32_t client_isn = static_cast<uint32_t>(random.Next());
    const uint32_t server_isn = static_cast<uint32_t>(random.Next());
    players_.push_back(
        std::make_unique<TcpConversationPlayer>(std::move(conversation), start_us, client_isn, server_isn));
    ++sessions_;
    return true;
  }

  void Count(MailProtocol protocol, const SessionCounts& counts) {
    const size_t index = static_cast<size_t>(protocol);
    ++summary_.flows[index];
    summary_.messages[index] += counts.messages;
    summary_.bdat_messages += counts.bdat_messages;
    summary_.expected_records += counts.expected_records;
    summary_.message_bytes += counts.message_bytes;
  }

  const TrafficOptions& options_;
  TrafficRandom random_;
  PcapTrafficWriter writer_;
  std::vector<std::unique_ptr<TcpConversationPlayer>> players_;
  TrafficSummary summary_;
  uint64_t sessions_ = 0;
  uint64_t planned_bytes_ = 24;
  uint64_t placed_messages_ = 0;
};

}  // namespace

TrafficSummary GenerateTraffic(const TrafficOptions& options, std::FILE* out) {
  return Generator(options, out).Run();
}

}  // namespace pelka
