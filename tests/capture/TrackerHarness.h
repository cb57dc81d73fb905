// Drives a FlowTracker with built segments and writes down what its sink hears.
#pragma once

#include <string>
#include <vector>

#include "FrameBuilder.h"
#include "capture/FlowTracker.h"
#include "capture/PacketDecoder.h"
#include "host/PacketRecord.h"

namespace pelka::test {

// Writes each event as a line: "start 630 10.0.0.1:40000", "#3 1 HELO\r\n"
// (packet number read back from the record, direction, payload), "end closed".
class RecordingSink : public FlowSink {
 public:
  bool take = true;
  bool swap_service_port = false;  // swap like the module: the service port's side becomes the server
  bool with_time = false;          // add " @" and the record's time to packet lines
  std::vector<std::string> events;

  bool OnFlowStart(TrackedFlow& flow) override {
    const FlowEndpoint& client = flow.client();
    events.push_back("start " + std::to_string(flow.application_protocol()) + " " + Endpoint(client));
    if (swap_service_port && (client.port == 25 || client.port == 110 || client.port == 143)) flow.SwapSides();
    return take;
  }

  void OnFlowPacket(TrackedFlow&, const PacketRecord& record, const uint8_t* payload, uint32_t length,
                    uint32_t direction) override {
    uint16_t source = 0, destination = 0;
    std::string line = "#" + std::to_string(GetPacketNumber(&record)) + " " + std::to_string(direction) + " " +
                       std::string(reinterpret_cast<const char*>(payload), length);
    if (!FindTcpPorts(&record, &source, &destination)) line += " (no ports)";
    if (with_time) line += " @" + std::to_string(GetPacketTime(&record));
    events.push_back(line);
  }

  void OnFlowEnd(TrackedFlow&, FlowEndReason reason) override {
    static const char* const kNames[] = {"closed", "reset", "idle", "evicted", "replaced", "end of input"};
    events.push_back(std::string("end ") + kNames[static_cast<int>(reason)]);
  }

  static std::string Endpoint(const FlowEndpoint& endpoint) {
    if (endpoint.address.version == 6) return "[v6]:" + std::to_string(endpoint.port);
    const auto& b = endpoint.address.bytes;
    return std::to_string(b[0]) + "." + std::to_string(b[1]) + "." + std::to_string(b[2]) + "." +
           std::to_string(b[3]) + ":" + std::to_string(endpoint.port);
  }
};

// One packet of a conversation between 10.0.0.1:40000 (c) and 10.0.0.2:25 (s).
struct Step {
  char from;  // 'c' or 's'
  uint32_t sequence;
  uint8_t flags;
  std::string payload = "";
  int captured = -1;       // payload bytes captured, -1 = all
  uint64_t time_s = 0;     // 0 = the packet number in seconds
  uint16_t client_port = 40000;
  uint16_t service_port = 25;
  uint32_t acknowledgement = 0;
};

// The step as a raw IP frame, its payload cut to what was captured.
inline Bytes StepFrame(const Step& step) {
  Segment s = Between(V4(10, 0, 0, 1), step.client_port, V4(10, 0, 0, 2), step.service_port);
  if (step.from == 's') s = Reversed(s);
  s.sequence = step.sequence;
  s.flags = step.flags;
  s.acknowledgement = step.acknowledgement;
  s.payload = step.payload;
  Bytes frame = IpPacket(s);
  if (step.captured >= 0) frame.resize(frame.size() - step.payload.size() + step.captured);
  return frame;
}

// Feeds steps to a tracker that tells `sink`, or another sink when given one.
class TrackerHarness {
 public:
  explicit TrackerHarness(FlowTracker::Options options = {}, FlowSink* other_sink = nullptr)
      : tracker(other_sink ? other_sink : &sink, options) {}

  void Feed(const Step& step) {
    const Bytes frame = StepFrame(step);
    DecodedPacket packet;
    if (decoder.Decode(kLinkRaw, frame.data(), frame.size(), &packet) != DecodeStatus::kTcp) return;
    ++number;
    tracker.OnPacket(packet, frame.data(), number, (step.time_s ? step.time_s : number) * 1000000);
  }

  void FeedAll(const std::vector<Step>& steps) {
    for (const Step& step : steps) Feed(step);
  }

  RecordingSink sink;
  FlowTracker tracker;
  PacketDecoder decoder;
  uint64_t number = 0;
};

}  // namespace pelka::test
