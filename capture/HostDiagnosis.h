// The host's diagnosis service: the events modules define, their adjustable
// parameters, and one line of diagnosis.jsonl per report:
//
//   {"event": key, "title": ..., "text": ..., "codes": [c1, c2],
//    "packet": number, "time": microseconds, "related_packet": number,
//    "client": "address:port", "server": "address:port"}
//
// client and server are left out when the report's target is not a flow node
// of this host. Events are defined before flows are handled; reports may come
// from several threads at once and are counted and written one at a time.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture/RunSink.h"
#include "host/DiagnosisInterfaces.h"

namespace pelka {

class OutputFile;
class HostDiagnosisService;

class HostDiagnosisEvent final : public IPelkaDiagnosisEvent {
 public:
  HostDiagnosisEvent(HostDiagnosisService& service, std::string key, std::wstring title);

  // The service keeps every event until it is destroyed; Release only counts.
  int32_t Release() override;
  uint32_t IsEnabled() override;
  uint32_t AddParameter(const char* key, const wchar_t* caption, int32_t default_value, int32_t lowest,
                        int32_t highest) override;
  uint32_t GetParameterValue(uint32_t parameter, int32_t* value) override;
  uint32_t Report(IPelkaFlowNode* target, const wchar_t* text, uint32_t code1, uint32_t code2,
                  const PacketRecord* packet, uint64_t related_packet) override;

  const std::string& key() const { return key_; }
  int32_t references() const { return references_; }

 private:
  struct Parameter {
    std::string key;
    int32_t value;
  };

  HostDiagnosisService& service_;
  std::string key_;
  std::string title_;  // UTF-8
  std::vector<Parameter> parameters_;
  int32_t references_ = 1;
};

class HostDiagnosisService final : public IPelkaDiagnosisService {
 public:
  // `output` receives the report lines; null keeps only the counts.
  explicit HostDiagnosisService(OutputFile* output) : output_(output) {}

  uint32_t DefineEvent(const char* key, const wchar_t* title, uint32_t code1, uint32_t code2, uint32_t code3,
                       IPelkaDiagnosisEvent** event, uint32_t flags) override;

  // False switches every event off.
  void set_enabled(bool enabled) { enabled_ = enabled; }
  bool enabled() const { return enabled_; }
  // The value a parameter of this key starts with, instead of the module's
  // default; kept within the parameter's lowest and highest value.
  void OverrideParameter(const std::string& key, int32_t value) { overrides_[key] = value; }
  // Hands every report to `sink` too (null: none); set before flows are handled.
  void set_sink(RunSink* sink) { sink_ = sink; }
  RunSink* sink() const { return sink_; }

  uint64_t reports() const;
  std::map<std::string, uint64_t> reports_by_event() const;
  const std::vector<std::unique_ptr<HostDiagnosisEvent>>& events() const { return events_; }

 private:
  friend class HostDiagnosisEvent;
  void Write(const HostDiagnosisEvent& event, const std::string& line);
  int32_t StartValue(const std::string& key, int32_t default_value, int32_t lowest, int32_t highest) const;

  OutputFile* output_;
  RunSink* sink_ = nullptr;
  mutable std::mutex mutex_;  // guards the counts
  bool enabled_ = true;
  std::map<std::string, int32_t> overrides_;
  std::vector<std::unique_ptr<HostDiagnosisEvent>> events_;
  uint64_t reports_ = 0;
  std::map<std::string, uint64_t> by_event_;
};

}  // namespace pelka
