// An in-memory stand-in for the host's diagnosis service: it keeps every event
// the module defines, with its parameters, and every report in the order
// raised, so that tests can look at them and switch events on and off.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "host/DiagnosisInterfaces.h"
#include "host/PacketRecord.h"

namespace pelka::testing {

struct DiagnosisReport {
  std::string event;  // the event's key
  IPelkaFlowNode* target = nullptr;
  std::wstring text;
  uint32_t code1 = 0, code2 = 0;
  uint64_t packet = 0;  // packet number of the record given
  uint64_t related_packet = 0;

  // What a test compares.
  auto Fields() const { return std::tie(event, text, code1, code2, packet, related_packet); }
};

struct DiagnosisParameter {
  uint32_t id = 0;
  int32_t value = 0;  // the user's current setting; starts at the default
};

class InMemoryDiagnosisEvent final : public IPelkaDiagnosisEvent {
 public:
  InMemoryDiagnosisEvent(std::string key, std::vector<DiagnosisReport>* reports, uint32_t parameter_base)
      : key(std::move(key)), reports_(reports), parameter_base_(parameter_base) {}

  int32_t Release() override {
    ++releases;
    return 0;
  }
  uint32_t IsEnabled() override { return enabled ? 1 : 0; }
  uint32_t AddParameter(const char*, const wchar_t*, int32_t default_value, int32_t, int32_t) override {
    // Identifiers far from 0 and from each other's, so a mixed-up one shows.
    const uint32_t id = 0x100 + parameter_base_ + static_cast<uint32_t>(parameters.size());
    parameters.push_back({id, default_value});
    return id;
  }
  uint32_t GetParameterValue(uint32_t id, int32_t* value) override {
    if (parameter_read_fails || !value) return 0;
    auto it = std::find_if(parameters.begin(), parameters.end(), [id](const auto& p) { return p.id == id; });
    if (it == parameters.end()) return 0;
    *value = it->value;
    return 1;
  }
  uint32_t Report(IPelkaFlowNode* target, const wchar_t* text, uint32_t code1, uint32_t code2,
                  const PacketRecord* packet, uint64_t related_packet) override {
    reports_->push_back({key, target, text ? text : L"", code1, code2, GetPacketNumber(packet), related_packet});
    return 0;
  }

  // Sets the current value of the event's first parameter.
  void SetThreshold(int32_t value) {
    if (!parameters.empty()) parameters.front().value = value;
  }

  std::string key;
  bool enabled = true;
  bool parameter_read_fails = false;
  int releases = 0;
  std::vector<DiagnosisParameter> parameters;

 private:
  std::vector<DiagnosisReport>* reports_;
  uint32_t parameter_base_;
};

class InMemoryDiagnosisService final : public IPelkaDiagnosisService {
 public:
  uint32_t DefineEvent(const char* key, const wchar_t*, uint32_t, uint32_t, uint32_t, IPelkaDiagnosisEvent** event,
                       uint32_t) override {
    if (refused_keys.count(key) || !event) return 1;
    events_.push_back(std::make_unique<InMemoryDiagnosisEvent>(key, &reports, 0x10 * uint32_t(events_.size())));
    *event = events_.back().get();
    return 0;
  }

  // The latest event defined under the key, or null.
  InMemoryDiagnosisEvent* Event(const std::string& key) const {
    for (auto it = events_.rbegin(); it != events_.rend(); ++it)
      if ((*it)->key == key) return it->get();
    return nullptr;
  }
  const std::vector<std::unique_ptr<InMemoryDiagnosisEvent>>& events() const { return events_; }

  std::set<std::string> refused_keys;     // DefineEvent fails for these
  std::vector<DiagnosisReport> reports;   // every report of every event, in order

 private:
  std::vector<std::unique_ptr<InMemoryDiagnosisEvent>> events_;
};

}  // namespace pelka::testing
