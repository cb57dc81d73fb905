// Drives one flow through the module's flow client packet by packet, the way
// the capture host does.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "flow/EmailFlowContext.h"
#include "flow/EmailFlowData.h"
#include "module/EmailModule.h"
#include "support/FakeFlow.h"
#include "support/InMemoryStats.h"

namespace pelka::testing {

// The bytes a context has collected so far.
inline std::string CollectedBytes(CEmailFlowContext& context) {
  CEmailFlowDataImpl& data = *context.flow_data;
  const uint32_t length = data.GetLength();
  const uint8_t* bytes = length ? data.GetBuffer(0, length) : nullptr;
  return bytes ? std::string(reinterpret_cast<const char*>(bytes), length) : std::string();
}

class Conversation {
 public:
  Conversation(CPelkaEmailModule& module, uint16_t service_port, uint16_t application)
      : module_(module), flow_(0x0A000002, 40001, 0x0A000001, service_port, application), service_port_(service_port) {
    bound_ = module_.BindFlow(&flow_, &stats_, &bind_context_) == 0;
  }
  // Ends the flow, as the host does at FIN, RST or idle timeout.
  ~Conversation() {
    if (bound_) module_.UnbindFlow(&flow_, &stats_, &node_, bind_context_);
  }
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  CEmailFlowContext& context() { return *dynamic_cast<CEmailFlowContext*>(bind_context_); }
  FakeFlowNode& node() { return node_; }

  // Sends one packet; the time is in microseconds. Returns the module's answer.
  uint32_t Client(std::string_view payload, uint64_t time_us) { return Send(kFromClient, payload, time_us); }
  uint32_t Server(std::string_view payload, uint64_t time_us) { return Send(kFromServer, payload, time_us); }

  uint32_t Send(uint32_t direction, std::string_view payload, uint64_t time_us) {
    const bool from_client = direction == kFromClient;
    const PacketRecord* packet = builder_.Build(++packet_number_, time_us, from_client ? 40001 : service_port_,
                                                from_client ? service_port_ : 40001);
    return module_.ProcessFlowData(&flow_, packet, reinterpret_cast<const uint8_t*>(payload.data()),
                                   static_cast<uint32_t>(payload.size()), direction, &node_, bind_context_);
  }

 private:
  CPelkaEmailModule& module_;
  FakeFlow flow_;
  FakeFlowNode node_;
  InMemoryFlowStats stats_;
  PacketRecordBuilder builder_;
  IPelkaFlowBindContext* bind_context_ = nullptr;
  uint16_t service_port_;
  uint64_t packet_number_ = 0;
  bool bound_ = false;
};

}  // namespace pelka::testing
