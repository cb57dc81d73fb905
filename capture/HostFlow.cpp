#include "capture/HostFlow.h"

#include <arpa/inet.h>

#include <cstring>

#include "host/Types.h"

namespace pelka {

std::string AddressText(const IpAddress& address) {
  char text[kAddressTextSize];
  return std::string(text, WriteAddressText(address, text));
}

size_t WriteAddressText(const IpAddress& address, char (&text)[kAddressTextSize]) {
  static_assert(kAddressTextSize >= INET6_ADDRSTRLEN);
  const int family = address.version == 6 ? AF_INET6 : AF_INET;
  if (!inet_ntop(family, address.bytes.data(), text, sizeof text)) return 0;
  return std::strlen(text);
}

std::string EndpointText(const FlowEndpoint& endpoint) {
  const std::string address = AddressText(endpoint.address);
  const std::string port = std::to_string(endpoint.port);
  return endpoint.address.version == 6 ? "[" + address + "]:" + port : address + ":" + port;
}

std::string MacText(const FlowEndpoint& endpoint) {
  char text[kMacTextSize];
  return std::string(text, WriteMacText(endpoint, text));
}

size_t WriteMacText(const FlowEndpoint& endpoint, char (&text)[kMacTextSize]) {
  if (!endpoint.has_mac) return 0;
  static const char kHex[] = "0123456789abcdef";
  char* out = text;
  for (size_t i = 0; i < endpoint.mac.size(); ++i) {
    if (i > 0) *out++ = ':';
    *out++ = kHex[endpoint.mac[i] >> 4];
    *out++ = kHex[endpoint.mac[i] & 0xF];
  }
  return static_cast<size_t>(out - text);
}

const char* ApplicationName(uint16_t protocol) {
  switch (protocol) {
    case kProtocolSmtp: return "SMTP";
    case kProtocolPop3: return "POP3";
    case kProtocolImap4: return "IMAP4";
    default: return "";
  }
}

uint32_t HostFlow::GetClientAddress() { return flow_.client().address.Ipv4HostOrder(); }
uint32_t HostFlow::GetServerAddress() { return flow_.server().address.Ipv4HostOrder(); }
uint16_t HostFlow::GetClientPort() { return flow_.client().port; }
uint16_t HostFlow::GetServerPort() { return flow_.server().port; }
void HostFlow::SwapSides() { flow_.SwapSides(); }
uint16_t HostFlow::GetApplicationProtocol() { return flow_.application_protocol(); }
uint16_t HostFlow::GetTransportProtocol() { return kProtocolTcp; }

const wchar_t* HostFlow::GetAddressText(uint32_t side) {
  const FlowEndpoint& endpoint = side == kFromServer ? flow_.server() : flow_.client();
  if (endpoint.address.version != 6) return nullptr;
  const std::string text = AddressText(endpoint.address);
  address_text_.assign(text.begin(), text.end());
  return address_text_.c_str();
}

HostFlowNode::HostFlowNode(const HostFlow& flow) : flow_(flow) {}

const wchar_t* HostFlowNode::GetProtocolPath() {
  const TrackedFlow& tracked = flow_.tracked();
  std::wstring path;
  if (tracked.client().has_mac || tracked.server().has_mac) path += L"ETH/";
  path += tracked.ip_version() == 6 ? L"IPv6/TCP/" : L"IPv4/TCP/";
  for (const char* name = ApplicationName(tracked.application_protocol()); *name; ++name) path += wchar_t(*name);
  protocol_path_ = path;
  return protocol_path_.c_str();
}

}  // namespace pelka
