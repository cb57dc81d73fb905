// One record of a host log, from NewRecord to its export.
//
// A record keeps the texts of its flow's endpoints (taken at NewRecord, so
// that the flow may end before the export) and its fields: texts one after
// another in one buffer, numbers in place. A record object is reused for
// later records once exported, so a busy log stops allocating.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "capture/HostFlow.h"
#include "host/FlowInterfaces.h"
#include "host/LogInterfaces.h"

namespace pelka {

// What a record keeps of its flow. Side 0 is the client, 1 the server.
struct FlowView {
  char address[2][kAddressTextSize] = {};
  char mac[2][kMacTextSize] = {};
  uint8_t address_length[2] = {0, 0};
  uint8_t mac_length[2] = {0, 0};
  uint16_t port[2] = {0, 0};

  std::string_view Address(int side) const { return {address[side], address_length[side]}; }
  std::string_view Mac(int side) const { return {mac[side], mac_length[side]}; }
};

// The view of `flow`: the tracked endpoints of the host's own flows (IPv6
// and MAC addresses included), the IPv4 addresses and ports of any other.
// A null flow leaves the view empty.
void FillFlowView(IPelkaFlow* flow, FlowView& view);

class LogRecord final : public IPelkaLogRecord {
 public:
  enum class Kind : uint8_t { kUnset, kText, kNumber, kDouble };
  struct Field {
    Kind kind = Kind::kUnset;
    size_t offset = 0;  // a text's place in the record's text buffer
    size_t length = 0;
    uint64_t number = 0;
    double real = 0;
  };

  // Starts a record at `seconds` with `columns` unset fields.
  void Reset(uint64_t seconds, IPelkaFlow* flow, const FlowView& view, size_t columns);

  // A text set again leaves its old copy unused in the buffer.
  void SetText(uint16_t column, std::wstring_view text);
  void SetNumber(uint16_t column, uint64_t value);
  void SetDouble(uint16_t column, double value);

  const Field& field(size_t column) const { return fields_[column]; }
  size_t field_count() const { return fields_.size(); }
  std::wstring_view Text(const Field& field) const;
  // The field's text when it is a text, else empty.
  std::wstring_view TextAt(int32_t column) const;
  // The field's number when it is a number, else 0.
  uint64_t NumberAt(int32_t column) const;

  // The text of a standard field: the local time (given), an address, a MAC
  // address or a port number (written into `digits`); empty for an unknown
  // field.
  std::string_view StandardText(uint32_t field, std::string_view time, char (&digits)[8]) const;

  uint64_t seconds() const { return seconds_; }
  // The flow the module named at NewRecord; only compared, never called.
  const IPelkaFlow* flow() const { return flow_; }
  const FlowView& view() const { return view_; }

 private:
  uint64_t seconds_ = 0;
  const IPelkaFlow* flow_ = nullptr;
  FlowView view_;
  std::vector<Field> fields_;
  std::wstring texts_;
};

}  // namespace pelka
