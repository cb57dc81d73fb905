// Test doubles for the host's flow-side objects and a builder of host packet
// records in both layouts the module reads.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "host/FlowInterfaces.h"
#include "host/Types.h"

namespace pelka::testing {

class FakeFlow final : public IPelkaFlow {
 public:
  FakeFlow(uint32_t client_address, uint16_t client_port, uint32_t server_address, uint16_t server_port,
           uint16_t application = kProtocolSmtp)
      : addresses_{client_address, server_address}, ports_{client_port, server_port}, application_(application) {}

  uint32_t GetClientAddress() override { return addresses_[0]; }
  uint32_t GetServerAddress() override { return addresses_[1]; }
  uint16_t GetClientPort() override { return ports_[0]; }
  uint16_t GetServerPort() override { return ports_[1]; }
  void SwapSides() override {
    std::swap(addresses_[0], addresses_[1]);
    std::swap(ports_[0], ports_[1]);
  }
  uint16_t GetApplicationProtocol() override { return application_; }
  uint16_t GetTransportProtocol() override { return kProtocolTcp; }

 private:
  uint32_t addresses_[2];  // client, server
  uint16_t ports_[2];
  uint16_t application_;
};

class FakeFlowNode final : public IPelkaFlowNode {
 public:
  const wchar_t* GetGroup() override { return group.c_str(); }
  const wchar_t* GetProtocolPath() override { return protocol_path.c_str(); }
  uint32_t GetMark() override { return mark; }
  void SetMark(uint32_t value) override { mark = value; }

  std::wstring group = L"Default";
  std::wstring protocol_path = L"ETH/IP/TCP/SMTP";
  uint32_t mark = 0;
};

// Builds host packet records the way the capture host does: a 32-byte fixed
// part, then the variable area with a layer table (IP, then TCP 600).
class PacketRecordBuilder {
 public:
  enum class Layout {
    kInline,    // headers copied into the variable area
    kShifted,   // the same, behind the 24-byte shift of flag bit 22
    kIndirect,  // flag bit 17: headers reached through a stored address
  };

  explicit PacketRecordBuilder(Layout layout = Layout::kInline) : layout_(layout) {}

  const PacketRecord* Build(uint64_t number, uint64_t time_us, uint16_t source_port, uint16_t destination_port) {
    frame_.assign(40, 0);  // an IPv4 header and a TCP header
    frame_[0] = 0x45;
    frame_[20] = static_cast<uint8_t>(source_port >> 8);
    frame_[21] = static_cast<uint8_t>(source_port);
    frame_[22] = static_cast<uint8_t>(destination_port >> 8);
    frame_[23] = static_cast<uint8_t>(destination_port);

    record_.assign(32, 0);
    Put<uint64_t>(8, number);
    Put<uint64_t>(16, time_us);
    record_[7] = 2;  // two layers
    uint32_t flags = 0;
    if (layout_ == Layout::kShifted) {
      flags |= 0x400000;
      record_.resize(record_.size() + 24, 0);
    }
    const size_t variable = record_.size();
    if (layout_ == Layout::kIndirect) {
      flags |= 0x20000;
      record_.resize(variable + 8 + 8, 0);
      Put<uint64_t>(variable, reinterpret_cast<uintptr_t>(frame_.data()));
      PutEntry(variable + 8, 500, 0);
      PutEntry(variable + 12, kProtocolTcp, 20);
    } else {
      record_.resize(variable + 8, 0);
      PutEntry(variable, 500, 8);
      PutEntry(variable + 4, kProtocolTcp, 28);
      record_.insert(record_.end(), frame_.begin(), frame_.end());
    }
    Put<uint32_t>(24, flags);  // the layer table and the variable area start at offset 0 (bytes 2 and 28)
    packet_ = PacketRecord{record_.data(), static_cast<uint32_t>(record_.size()), frame_.data(),
                           static_cast<uint32_t>(frame_.size())};
    return &packet_;
  }

  std::vector<uint8_t>& record_bytes() { return record_; }
  PacketRecord& packet() { return packet_; }

 private:
  template <typename T>
  void Put(size_t offset, T value) { std::memcpy(record_.data() + offset, &value, sizeof value); }
  void PutEntry(size_t offset, uint16_t protocol, uint16_t header_offset) {
    Put<uint16_t>(offset, protocol);
    Put<uint16_t>(offset + 2, header_offset);
  }

  Layout layout_;
  std::vector<uint8_t> frame_;
  std::vector<uint8_t> record_;
  PacketRecord packet_{};
};

}  // namespace pelka::testing
