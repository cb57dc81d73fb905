// Decodes random frames of every link type. A TCP answer must describe the
// frame it came from: offsets in order and inside the captured bytes, the
// payload where the offsets say, and the announced length at least the
// captured one. The record built from the decoded headers must read back the
// same ports.
//
// Input: one byte choosing the link type, then the frame.
#include <cstdint>
#include <vector>

#include "capture/PacketDecoder.h"
#include "capture/PacketRecordBuilder.h"
#include "fuzz/FuzzCommon.h"
#include "host/PacketRecord.h"

namespace {

using pelka::fuzz::Fail;

constexpr int kLinkTypes[] = {pelka::kLinkNull,        pelka::kLinkEthernet, pelka::kLinkRaw,
                              pelka::kLinkRawOpenBsd,  pelka::kLinkRawLinktype, pelka::kLinkLoop,
                              pelka::kLinkLinuxSll,    pelka::kLinkIpv4,     pelka::kLinkIpv6,
                              pelka::kLinkLinuxSll2,   147 /* not supported */};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const int link_type = kLinkTypes[data[0] % std::size(kLinkTypes)];
  const std::vector<uint8_t> frame(data + 1, data + size);  // exact size: reads past it are caught

  pelka::PacketDecoder decoder;
  pelka::DecodedPacket packet;
  const pelka::DecodeStatus status = decoder.Decode(link_type, frame.data(), frame.size(), &packet);
  const pelka::DecoderCounters& counters = decoder.counters();
  const uint64_t counted = counters.tcp + counters.not_tcp + counters.fragments + counters.truncated +
                           counters.malformed + counters.unsupported_link;
  if (counters.frames != 1 || counted != 1) Fail("a frame is not counted exactly once");
  if (status != pelka::DecodeStatus::kTcp) return 0;

  if (!(packet.network_offset < packet.tcp_offset && packet.tcp_offset + 20 <= packet.payload_offset)) {
    Fail("header offsets out of order");
  }
  if (uint64_t{packet.payload_offset} + packet.payload_length > frame.size()) Fail("payload beyond the frame");
  if (packet.payload_length > 0 && packet.payload != frame.data() + packet.payload_offset) {
    Fail("payload pointer and offset disagree");
  }
  if (packet.segment_length < packet.payload_length) Fail("announced length below the captured one");
  if (packet.source.version != 4 && packet.source.version != 6) Fail("no IP version");

  pelka::PacketRecordBuilder builder;
  const pelka::PacketRecord& record =
      builder.Build(1, 2, frame.data(), packet.payload_offset, packet.tcp_offset);
  uint16_t source = 0, destination = 0;
  if (pelka::FindTcpPorts(&record, &source, &destination) &&
      (source != packet.source_port || destination != packet.destination_port)) {
    Fail("the record reads other ports");
  }
  return 0;
}
