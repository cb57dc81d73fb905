// The host's flow objects over the tracker's flows: the flow the module binds
// and reads endpoints from, and the flow node that comes with every packet.
//
// Addresses handed to the module are IPv4 numbers in host byte order; an IPv6
// flow answers 0 there and gives its address texts through the flow's
// GetAddressText extension, which the module shows as "[address]:port".
#pragma once

#include <cstdint>
#include <string>

#include "capture/FlowSink.h"
#include "host/FlowInterfaces.h"

namespace pelka {

// "10.0.0.1" or the compressed IPv6 form "2001:db8::1".
std::string AddressText(const IpAddress& address);
// "10.0.0.1:25" or "[2001:db8::1]:25".
std::string EndpointText(const FlowEndpoint& endpoint);
// "00:11:22:aa:bb:cc"; empty when the side's MAC address is unknown.
std::string MacText(const FlowEndpoint& endpoint);

// The same texts in a caller's buffer, for writers that make many: the
// text's length is returned, and nothing is written beyond it.
constexpr size_t kAddressTextSize = 46;  // the longest IPv6 text and its zero
constexpr size_t kMacTextSize = 17;
size_t WriteAddressText(const IpAddress& address, char (&text)[kAddressTextSize]);
size_t WriteMacText(const FlowEndpoint& endpoint, char (&text)[kMacTextSize]);
// "SMTP", "POP3", "IMAP4"; empty for another number.
const char* ApplicationName(uint16_t protocol);

class HostFlow final : public IPelkaFlow {
 public:
  explicit HostFlow(TrackedFlow& flow) : flow_(flow) {}

  uint32_t GetClientAddress() override;
  uint32_t GetServerAddress() override;
  uint16_t GetClientPort() override;
  uint16_t GetServerPort() override;
  // Swaps the tracker's sides, so that directions follow.
  void SwapSides() override;
  uint16_t GetApplicationProtocol() override;
  uint16_t GetTransportProtocol() override;
  // The IPv6 address text of a side; null for IPv4 flows.
  const wchar_t* GetAddressText(uint32_t side) override;

  const TrackedFlow& tracked() const { return flow_; }

  // Records the module began on this flow (counted at NewRecord, before the
  // user's conditions); read on the flow's own thread.
  void CountRecord() { ++records_; }
  uint64_t records() const { return records_; }

 private:
  TrackedFlow& flow_;
  uint64_t records_ = 0;
  std::wstring address_text_;
};

// The flow's node: its group (the host has no groups: empty), its protocol
// path, e.g. "ETH/IPv4/TCP/SMTP" ("ETH/" only when the flow's frames carried
// MAC addresses; they may show up after the flow started, so the path is
// made when asked), and the mark a module may set.
class HostFlowNode final : public IPelkaFlowNode {
 public:
  explicit HostFlowNode(const HostFlow& flow);

  const wchar_t* GetGroup() override { return group_.c_str(); }
  const wchar_t* GetProtocolPath() override;
  uint32_t GetMark() override { return mark_; }
  void SetMark(uint32_t mark) override { mark_ = mark; }

  const HostFlow& flow() const { return flow_; }

 private:
  const HostFlow& flow_;
  std::wstring group_;
  std::wstring protocol_path_;
  uint32_t mark_ = 0;
};

}  // namespace pelka
