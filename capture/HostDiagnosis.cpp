#include "capture/HostDiagnosis.h"

#include <algorithm>

#include "capture/HostFlow.h"
#include "capture/JsonText.h"
#include "capture/OutputFiles.h"
#include "host/CodePage.h"

namespace pelka {

HostDiagnosisEvent::HostDiagnosisEvent(HostDiagnosisService& service, std::string key, std::wstring title)
    : service_(service), key_(std::move(key)), title_(WideToUtf8(title)) {}

int32_t HostDiagnosisEvent::Release() { return references_ > 0 ? --references_ : 0; }

uint32_t HostDiagnosisEvent::IsEnabled() { return service_.enabled() ? 1 : 0; }

uint32_t HostDiagnosisEvent::AddParameter(const char* key, const wchar_t*, int32_t default_value, int32_t lowest,
                                          int32_t highest) {
  const std::string name = key ? key : "";
  parameters_.push_back({name, service_.StartValue(name, default_value, lowest, highest)});
  // Identifiers start at 1 so that 0 never names a parameter.
  return static_cast<uint32_t>(parameters_.size());
}

uint32_t HostDiagnosisEvent::GetParameterValue(uint32_t parameter, int32_t* value) {
  if (!value || parameter == 0 || parameter > parameters_.size()) return 0;
  *value = parameters_[parameter - 1].value;
  return 1;
}

uint32_t HostDiagnosisEvent::Report(IPelkaFlowNode* target, const wchar_t* text, uint32_t code1, uint32_t code2,
                                    const PacketRecord* packet, uint64_t related_packet) {
  JsonObjectLine line;
  line.Text("event", key_).Text("title", title_).Text("text", std::wstring_view(text ? text : L""));
  line.Raw("codes", "[" + std::to_string(code1) + ", " + std::to_string(code2) + "]");
  line.Number("packet", GetPacketNumber(packet)).Number("time", GetPacketTime(packet));
  line.Number("related_packet", related_packet);
  std::string client, server;
  if (const auto* node = dynamic_cast<const HostFlowNode*>(target)) {
    const TrackedFlow& flow = node->flow().tracked();
    client = EndpointText(flow.client());
    server = EndpointText(flow.server());
    line.Text("client", client).Text("server", server);
  }
  service_.Write(*this, line.Finish());
  if (RunSink* sink = service_.sink())
    sink->OnDiagnosis({key_, title_, text ? text : L"", code1, code2, GetPacketNumber(packet),
                       GetPacketTime(packet), related_packet, client, server});
  return 0;
}

uint32_t HostDiagnosisService::DefineEvent(const char* key, const wchar_t* title, uint32_t, uint32_t, uint32_t,
                                           IPelkaDiagnosisEvent** event, uint32_t) {
  if (!key || !event) return kStatusMissingOutParameter;
  events_.push_back(std::make_unique<HostDiagnosisEvent>(*this, key, title ? title : L""));
  *event = events_.back().get();
  return 0;
}

int32_t HostDiagnosisService::StartValue(const std::string& key, int32_t default_value, int32_t lowest,
                                         int32_t highest) const {
  const auto found = overrides_.find(key);
  const int32_t value = found == overrides_.end() ? default_value : found->second;
  return lowest <= highest ? std::clamp(value, lowest, highest) : value;
}

void HostDiagnosisService::Write(const HostDiagnosisEvent& event, const std::string& line) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++reports_;
    ++by_event_[event.key()];
  }
  if (output_) output_->WriteLine(line);
}

uint64_t HostDiagnosisService::reports() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return reports_;
}

std::map<std::string, uint64_t> HostDiagnosisService::reports_by_event() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return by_event_;
}

}  // namespace pelka
