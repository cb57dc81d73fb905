// The capture program's reading path on a random small capture file: the
// input is written to a file, read through the capture source, decoded,
// tracked and handed to the module through the host's flow objects, flow by
// flow. (The module is linked in here rather than loaded, and no output files
// are written.)
#include <cstdint>
#include <map>
#include <memory>
#include <string_view>

#include "capture/CaptureSource.h"
#include "capture/FlowSink.h"
#include "capture/FlowTracker.h"
#include "capture/HostFlow.h"
#include "capture/PacketDecoder.h"
#include "fuzz/HostedModule.h"
#include "support/FakeFlow.h"
#include "support/TempFile.h"

namespace {

// Enough for any small capture; a file of empty records ends here too.
constexpr uint64_t kMaxFrames = 20000;

class ModuleSink final : public pelka::FlowSink {
 public:
  explicit ModuleSink(pelka::CPelkaEmailModule& module) : module_(module) {}

  bool OnFlowStart(pelka::TrackedFlow& flow) override {
    auto bound = std::make_unique<Bound>(flow);
    if (module_.BindFlow(&bound->adapter, &bound->stats, &bound->context) != 0) return false;
    flows_[flow.id()] = std::move(bound);
    return true;
  }

  void OnFlowPacket(pelka::TrackedFlow& flow, const pelka::PacketRecord& record, const uint8_t* payload,
                    uint32_t length, uint32_t direction) override {
    Bound& bound = *flows_.at(flow.id());
    module_.ProcessFlowData(&bound.adapter, &record, payload, length, direction, &bound.node, bound.context);
  }

  void OnFlowEnd(pelka::TrackedFlow& flow, pelka::FlowEndReason) override {
    auto found = flows_.find(flow.id());
    Bound& bound = *found->second;
    module_.UnbindFlow(&bound.adapter, &bound.stats, &bound.node, bound.context);
    flows_.erase(found);
  }

 private:
  struct Bound {
    explicit Bound(pelka::TrackedFlow& flow) : adapter(flow), node(adapter) {}
    pelka::HostFlow adapter;
    pelka::HostFlowNode node;
    pelka::testing::InMemoryFlowStats stats;
    pelka::IPelkaFlowBindContext* context = nullptr;
  };

  pelka::CPelkaEmailModule& module_;
  std::map<uint64_t, std::unique_ptr<Bound>> flows_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static pelka::fuzz::HostedModule host;
  host.ForgetOutputs();
  const pelka::test::TempFile file(std::string_view(reinterpret_cast<const char*>(data), size), ".pcap");

  ModuleSink sink(host.module);
  pelka::FlowTracker tracker(&sink);
  pelka::PacketDecoder decoder;
  pelka::CaptureSource source;
  source.OpenFiles({file.path().string()});
  pelka::CapturedFrame frame;
  for (uint64_t frames = 0; frames < kMaxFrames; ++frames) {
    const pelka::ReadStatus status = source.Next(&frame);
    if (status == pelka::ReadStatus::kEnd) break;
    if (status != pelka::ReadStatus::kFrame) continue;  // a damaged file: the next call ends the run
    pelka::DecodedPacket packet;
    if (decoder.Decode(frame.link_type, frame.data, frame.captured_length, &packet) == pelka::DecodeStatus::kTcp) {
      tracker.OnPacket(packet, frame.data, frame.number, frame.time_us);
    }
  }
  tracker.Finish();
  return 0;
}
