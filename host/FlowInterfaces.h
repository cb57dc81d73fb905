// The host's flow-side interfaces that the module calls or implements.
#pragma once

#include <cstdint>

#include "host/PacketRecord.h"

namespace pelka {

// The host's TCP flow. Client and server are the sides as the host sees them;
// SwapSides exchanges them. Addresses are IPv4 in host byte order.
class IPelkaFlow {
 public:
  virtual uint32_t GetClientAddress() = 0;
  virtual uint32_t GetServerAddress() = 0;
  virtual uint16_t GetClientPort() = 0;
  virtual uint16_t GetServerPort() = 0;
  virtual void SwapSides() = 0;
  virtual uint16_t GetApplicationProtocol() = 0;
  virtual uint16_t GetTransportProtocol() = 0;

  // Extension for flows whose addresses do not fit the IPv4 numbers above:
  // the address text of the client (kFromClient) or server (kFromServer)
  // side, e.g. "2001:db8::1". Null for an IPv4 flow, whose numbers tell all;
  // the IPv4 path never asks.
  virtual const wchar_t* GetAddressText(uint32_t side) {
    (void)side;
    return nullptr;
  }

 protected:
  ~IPelkaFlow() = default;
};

// Per-flow statistics object handed to BindFlow.
class IPelkaFlowStats {
 public:
  virtual void UseCounter(int32_t index) = 0;
  virtual void AddToCounter(int32_t index, uint64_t a, uint64_t b, uint64_t c) = 0;

 protected:
  ~IPelkaFlowStats() = default;
};

// The host node of a flow that comes with every packet. The texts stay the
// host's.
class IPelkaFlowNode {
 public:
  virtual const wchar_t* GetGroup() = 0;
  virtual const wchar_t* GetProtocolPath() = 0;
  virtual uint32_t GetMark() = 0;
  virtual void SetMark(uint32_t mark) = 0;

 protected:
  ~IPelkaFlowNode() = default;
};

class IPelkaFlowClient;

// What the host keeps for a bound flow and hands back with every packet.
class IPelkaFlowBindContext {
 public:
  virtual IPelkaFlowClient* GetFlowClient() = 0;

 protected:
  ~IPelkaFlowBindContext() = default;
};

// The module's flow-client interface.
class IPelkaFlowClient {
 public:
  // 0: the flow is taken and *context holds its bind context; 1: not ours.
  virtual uint32_t BindFlow(IPelkaFlow* flow, IPelkaFlowStats* stats, IPelkaFlowBindContext** context) = 0;
  // Always 0. The context is destroyed.
  virtual uint32_t UnbindFlow(IPelkaFlow* flow, IPelkaFlowStats* stats, IPelkaFlowNode* node,
                              IPelkaFlowBindContext* context) = 0;
  // 0: go on; 1: the packet is not ours or the module has finished with the flow.
  virtual uint32_t ProcessFlowData(IPelkaFlow* flow, const PacketRecord* packet, const uint8_t* payload,
                                   uint32_t length, uint32_t direction, IPelkaFlowNode* node,
                                   IPelkaFlowBindContext* context) = 0;

 protected:
  ~IPelkaFlowClient() = default;
};

}  // namespace pelka
