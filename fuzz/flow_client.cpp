// Feeds the module's packet entry one flow of random packets, as the capture
// host would, including broken packet records.
//
// Input: one configuration byte, then packets, each a header byte, a 16-bit
// little-endian payload length and the payload (cut to what is left):
//   configuration  bits 0-1 application protocol (SMTP, POP3, IMAP4, other)
//                  bits 2-3 ANSI code page (GBK, UTF-8, Western, GBK)
//                  bit  4   a small flow limit (64 bytes)
//   packet header  bit  0   from the server (else from the client)
//                  bits 1-2 record layout: inline, shifted, indirect, broken
//                  bits 3-5 how a broken record is broken
//                  bits 6-7 port pair: the flow's, or that of SMTP, POP3, IMAP4
//
// The module runs as after the host's start-up (see HostedModule.h).
//
// While every packet reaches the parser of the flow's own protocol, the
// collected bytes are checked after each packet: they stay within the flow
// limit plus one packet, and hold no end marker that should have finished the
// message (SMTP, POP3) and no completion line that should have (IMAP4).
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "flow/EmailFlowContext.h"
#include "flow/EmailFlowData.h"
#include "fuzz/FuzzCommon.h"
#include "fuzz/HostedModule.h"
#include "host/PacketRecord.h"
#include "host/Types.h"
#include "module/EmailModule.h"
#include "support/Conversation.h"

namespace {

using pelka::fuzz::Fail;
using pelka::testing::FakeFlow;
using pelka::testing::FakeFlowNode;
using pelka::testing::InMemoryFlowStats;
using pelka::testing::PacketRecordBuilder;

constexpr uint16_t kClientPort = 40001;
constexpr uint32_t kSmallFlowLimit = 64;
constexpr uint32_t kMaxPayload = 0xFFFF;

class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return position_ >= size_; }
  uint8_t Byte() { return position_ < size_ ? data_[position_++] : 0; }
  std::string_view Bytes(size_t count) {
    count = std::min(count, size_ - std::min(position_, size_));
    std::string_view taken(reinterpret_cast<const char*>(data_) + position_, count);
    position_ += count;
    return taken;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t position_ = 0;
};

enum class Family { kSmtp, kPop3, kImap4, kNone };

// Which parser the module's dispatch gives a packet with these ports.
Family FamilyOfPorts(uint16_t source, uint16_t destination) {
  auto either = [&](uint16_t port) { return source == port || destination == port; };
  if (either(pelka::kSmtpPort)) return Family::kSmtp;
  if (either(pelka::kPop3Port)) return Family::kPop3;
  if (either(pelka::kImapPort)) return Family::kImap4;
  return Family::kNone;
}

struct ProtocolChoice {
  uint16_t application;
  uint16_t port;
  Family family;
};

ProtocolChoice ChooseProtocol(uint8_t bits) {
  switch (bits & 3) {
    case 0: return {pelka::kProtocolSmtp, pelka::kSmtpPort, Family::kSmtp};
    case 1: return {pelka::kProtocolPop3, pelka::kPop3Port, Family::kPop3};
    case 2: return {pelka::kProtocolImap4, pelka::kImapPort, Family::kImap4};
    default: return {0x1234, 80, Family::kNone};
  }
}

uint16_t PortOf(uint8_t bits, uint16_t flow_port) {
  static constexpr uint16_t kPorts[] = {0, pelka::kSmtpPort, pelka::kPop3Port, pelka::kImapPort};
  return bits == 0 ? flow_port : kPorts[bits];
}

// The IMAP4 completion line searched from the start, stepping over the second
// byte of GBK characters as the module does.
bool HoldsFetchCompletion(std::string_view collected, const std::string& tag) {
  const std::string_view text = collected.substr(0, collected.find('\0'));
  const std::string marker = tag + " OK";
  const bool gbk = pelka::GetAnsiCodePage() == pelka::kCodePageGbk;
  for (size_t p = 0; p + marker.size() <= text.size();) {
    if (text.compare(p, marker.size(), marker) == 0) return true;
    const auto byte = static_cast<uint8_t>(text[p]);
    p += gbk && byte >= 0x81 && byte <= 0xFE ? 2 : 1;
  }
  return false;
}

class FlowRun {
 public:
  FlowRun(pelka::CPelkaEmailModule& module, uint8_t configuration)
      : module_(module),
        choice_(ChooseProtocol(configuration)),
        flow_(0x0A000002, kClientPort, 0x0A000001, choice_.port, choice_.application) {
    pelka::fuzz::ChooseAnsiCodePage(configuration >> 2);
    module_.set_max_flow_length(configuration & 0x10 ? kSmallFlowLimit : pelka::kDefaultMaxFlowLength);
    bound_ = module_.BindFlow(&flow_, &stats_, &context_) == 0;
    if (bound_ != (choice_.family != Family::kNone)) Fail("only SMTP, POP3 and IMAP4 flows are bound");
  }
  ~FlowRun() {
    if (bound_) module_.UnbindFlow(&flow_, &stats_, &node_, context_);
  }
  FlowRun(const FlowRun&) = delete;
  FlowRun& operator=(const FlowRun&) = delete;

  void Packet(uint8_t header, std::string_view payload_text, Reader& input) {
    if (!bound_) return;
    const uint32_t direction = header & 1 ? pelka::kFromServer : pelka::kFromClient;
    const auto layout_bits = (header >> 1) & 3;
    static constexpr PacketRecordBuilder::Layout kLayouts[] = {
        PacketRecordBuilder::Layout::kInline, PacketRecordBuilder::Layout::kShifted,
        PacketRecordBuilder::Layout::kIndirect, PacketRecordBuilder::Layout::kInline};
    PacketRecordBuilder builder(kLayouts[layout_bits]);
    const uint16_t service = PortOf(header >> 6, choice_.port);
    const bool from_client = direction == pelka::kFromClient;
    const pelka::PacketRecord* packet =
        builder.Build(++number_, time_us_ += 1000, from_client ? kClientPort : service, from_client ? service : kClientPort);
    const auto* payload = reinterpret_cast<const uint8_t*>(payload_text.data());
    auto length = static_cast<uint32_t>(payload_text.size());
    if (layout_bits == 3) Break((header >> 3) & 7, builder, packet, payload, input);

    auto& context = *dynamic_cast<pelka::CEmailFlowContext*>(context_);
    const bool body_before = context.in_body != 0;
    const uint64_t length_before = context.flow_data->GetLength();
    module_.ProcessFlowData(&flow_, packet, payload, length, direction, &node_, context_);

    uint16_t source = 0, destination = 0;
    if (packet && pelka::FindTcpPorts(packet, &source, &destination) &&
        FamilyOfPorts(source, destination) != choice_.family) {
      single_family_ = false;
    }
    if (single_family_) CheckCollection(context, direction, body_before, length_before, payload ? length : 0);
  }

 private:
  // Spoils a well-built record the way a damaged capture or a confused host
  // might.
  void Break(int how, PacketRecordBuilder& builder, const pelka::PacketRecord*& packet, const uint8_t*& payload,
             Reader& input) {
    pelka::PacketRecord& record = builder.packet();
    auto& bytes = builder.record_bytes();
    switch (how) {
      case 0: record.record_length = std::min<uint32_t>(record.record_length, input.Byte()); break;
      case 1: bytes[input.Byte() % bytes.size()] = input.Byte(); break;
      case 2: record.frame_length = std::min<uint32_t>(record.frame_length, input.Byte() % 48); break;
      case 3: packet = nullptr; break;
      case 4: payload = nullptr; break;
      case 5: bytes[7] = input.Byte(); break;  // the layer count
      case 6: record.record = nullptr; break;
      default:
        bytes[2] = input.Byte();  // the layer table's offset
        bytes[28] = input.Byte();  // the variable area's offset
        break;
    }
  }

  void CheckCollection(pelka::CEmailFlowContext& context, uint32_t direction, bool body_before,
                       uint64_t length_before, uint32_t length) {
    const std::string collected = pelka::testing::CollectedBytes(context);
    if (collected.size() != context.flow_data->GetLength()) Fail("the collection cannot be read whole");
    if (collected.size() > uint64_t{module_.max_flow_length()} + kMaxPayload) Fail("the collection grew past its limit");
    if (length_before <= module_.max_flow_length() && collected.size() > length_before + length) {
      Fail("a packet added more than its payload");
    }
    switch (choice_.family) {
      case Family::kSmtp:
      case Family::kPop3:
        if (collected.find("\r\n.\r\n") != std::string::npos) Fail("a finished message stayed collected");
        break;
      case Family::kImap4:
        // Completion is tested when a server packet adds to the response; a
        // new tag from the client may match bytes collected earlier, which
        // wait for the next server packet.
        if (direction == pelka::kFromServer && body_before && context.in_body && collected.size() > length_before &&
            length_before <= module_.max_flow_length() && HoldsFetchCompletion(collected, context.fetch_tag)) {
          Fail("a completed fetch stayed collected");
        }
        break;
      case Family::kNone: break;
    }
  }

  pelka::CPelkaEmailModule& module_;
  ProtocolChoice choice_;
  FakeFlow flow_;
  FakeFlowNode node_;
  InMemoryFlowStats stats_;
  pelka::IPelkaFlowBindContext* context_ = nullptr;
  bool bound_ = false;
  bool single_family_ = true;
  uint64_t number_ = 0;
  uint64_t time_us_ = 1'700'000'000'000'000;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static pelka::fuzz::HostedModule host;
  host.ForgetOutputs();
  Reader input(data, size);
  FlowRun run(host.module, input.Byte());
  while (!input.empty()) {
    const uint8_t header = input.Byte();
    const size_t length = input.Byte() | size_t{input.Byte()} << 8;
    // The payload is copied to a block of its exact size, so that reading past
    // it is caught.
    const std::string_view taken = input.Bytes(length);
    const std::vector<char> payload(taken.begin(), taken.end());
    run.Packet(header, std::string_view(payload.data(), payload.size()), input);
  }
  return 0;
}
