// The flow client: binding SMTP, POP3 and IMAP4 flows and routing each packet
// by its ports to the diagnosis checks and the conversation parsers.
#include <memory>
#include <typeinfo>

#include "flow/EmailFlowData.h"
#include "flow/SessionHandlers.h"
#include "host/Types.h"
#include "module/EmailModule.h"

namespace pelka {
namespace {

// Room for the packet that takes a message past the longest length; a larger
// one costs one more reallocation.
constexpr uint32_t kPacketAllowance = 64 * 1024;

struct ProtocolChoice {
  MailProtocol protocol;
  uint16_t service_port;
};

bool ChooseProtocol(uint16_t application_protocol, ProtocolChoice* choice) {
  switch (application_protocol) {
    case kProtocolSmtp:
      *choice = {MailProtocol::kSmtp, kSmtpPort};
      return true;
    case kProtocolPop3:
      *choice = {MailProtocol::kPop3, kPop3Port};
      return true;
    case kProtocolImap4:
      *choice = {MailProtocol::kImap4, kImapPort};
      return true;
    default:
      return false;
  }
}

bool EitherPortIs(uint16_t source, uint16_t destination, uint16_t port) {
  return destination == port || source == port;
}

// The module's own context, or null for any other. The class is final, so
// comparing the dynamic type answers as a dynamic_cast would, at a fraction
// of its cost on every packet.
CEmailFlowContext* OwnContext(IPelkaFlowBindContext* context) {
  if (!context || typeid(*context) != typeid(CEmailFlowContext)) return nullptr;
  return static_cast<CEmailFlowContext*>(context);
}

}  // namespace

uint32_t CPelkaEmailModule::BindFlow(IPelkaFlow* flow, IPelkaFlowStats* stats, IPelkaFlowBindContext** context) {
  if (!stats || !flow || !context) return 1;
  if (flow->GetTransportProtocol() != kProtocolTcp) return 1;
  ProtocolChoice choice{};
  if (!ChooseProtocol(flow->GetApplicationProtocol(), &choice)) return 1;

  auto created = std::make_unique<CEmailFlowContext>(this, flow);
  // The side that holds the service port is the server.
  if (flow->GetClientPort() == choice.service_port) flow->SwapSides();
  *context = created.release();  // the host keeps it until UnbindFlow
  CountConnection(choice.protocol, stats);
  return 0;
}

uint32_t CPelkaEmailModule::UnbindFlow(IPelkaFlow*, IPelkaFlowStats*, IPelkaFlowNode*,
                                       IPelkaFlowBindContext* context) {
  // A message whose end was never seen is dropped without a record.
  std::unique_ptr<CEmailFlowContext> owned(OwnContext(context));
  return 0;
}

uint32_t CPelkaEmailModule::ProcessFlowData(IPelkaFlow* flow, const PacketRecord* packet, const uint8_t* payload,
                                            uint32_t length, uint32_t direction, IPelkaFlowNode* node,
                                            IPelkaFlowBindContext* bind_context) {
  CEmailFlowContext* context = OwnContext(bind_context);
  if (!context || !node) return 1;
  uint16_t source = 0;
  uint16_t destination = 0;
  if (!FindTcpPorts(packet, &source, &destination)) return 1;
  if (!payload) length = 0;

  const bool smtp = EitherPortIs(source, destination, kSmtpPort);
  const bool pop3 = !smtp && EitherPortIs(source, destination, kPop3Port);
  if (smtp || pop3) {
    const MailProtocol protocol = smtp ? MailProtocol::kSmtp : MailProtocol::kPop3;
    CheckSlowResponse(*context, packet, direction, payload, length, node, protocol);
    CheckDubiousConversation(*context, packet, direction, payload, length, node, protocol);
    if (direction == kFromServer) {
      if (smtp) {
        CheckSmtpServerError(payload, length, packet, node);
      } else {
        CheckPop3ServerError(payload, length, packet, node);
      }
    }
  }

  if (context->first_packet_time == 0) context->first_packet_time = GetPacketTime(packet);
  if (!context->flow_data || length == 0) return 0;

  const PacketArgs args{packet, flow, node, direction, payload, length};
  CEmailFlowDataImpl& data = *context->flow_data;
  // A message is cut at the first packet past the longest length, so the
  // store never needs more than that and one packet.
  data.set_growth_limit(max_flow_length() + kPacketAllowance);
  if (smtp) return HandleSmtpData(*this, data, *context, args);
  if (pop3) return HandlePop3Data(*this, data, *context, args);
  if (EitherPortIs(source, destination, kImapPort)) return HandleImapData(*this, data, *context, args);
  return 0;
}

}  // namespace pelka
