#include "capture/LogRecord.h"

#include <charconv>
#include <typeinfo>


namespace pelka {
namespace {

// The address as dotted decimal; the text is at most 15 characters.
uint8_t WriteIpv4Text(uint32_t address, char (&text)[kAddressTextSize]) {
  char* out = text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    if (shift != 24) *out++ = '.';
    out = std::to_chars(out, text + sizeof text, (address >> shift) & 0xFF).ptr;
  }
  return static_cast<uint8_t>(out - text);
}

}  // namespace

void FillFlowView(IPelkaFlow* flow, FlowView& view) {
  if (!flow) return;
  // HostFlow is final: its dynamic type is compared, cheaper than a cast.
  if (typeid(*flow) == typeid(HostFlow)) {
    const TrackedFlow& tracked = static_cast<const HostFlow*>(flow)->tracked();
    const FlowEndpoint* sides[2] = {&tracked.client(), &tracked.server()};
    for (int i = 0; i < 2; ++i) {
      view.address_length[i] = static_cast<uint8_t>(WriteAddressText(sides[i]->address, view.address[i]));
      view.mac_length[i] = static_cast<uint8_t>(WriteMacText(*sides[i], view.mac[i]));
      view.port[i] = sides[i]->port;
    }
    return;
  }
  view.address_length[0] = WriteIpv4Text(flow->GetClientAddress(), view.address[0]);
  view.address_length[1] = WriteIpv4Text(flow->GetServerAddress(), view.address[1]);
  view.port[0] = flow->GetClientPort();
  view.port[1] = flow->GetServerPort();
}

void LogRecord::Reset(uint64_t seconds, IPelkaFlow* flow, const FlowView& view, size_t columns) {
  seconds_ = seconds;
  flow_ = flow;
  view_ = view;
  fields_.assign(columns, Field{});
  texts_.clear();
}

void LogRecord::SetText(uint16_t column, std::wstring_view text) {
  Field& field = fields_[column];
  field.kind = Kind::kText;
  field.offset = texts_.size();
  field.length = text.size();
  texts_.append(text);
}

void LogRecord::SetNumber(uint16_t column, uint64_t value) {
  fields_[column].kind = Kind::kNumber;
  fields_[column].number = value;
}

void LogRecord::SetDouble(uint16_t column, double value) {
  fields_[column].kind = Kind::kDouble;
  fields_[column].real = value;
}

std::wstring_view LogRecord::Text(const Field& field) const {
  return std::wstring_view(texts_).substr(field.offset, field.length);
}

std::wstring_view LogRecord::TextAt(int32_t column) const {
  if (column < 0 || static_cast<size_t>(column) >= fields_.size()) return {};
  const Field& value = fields_[static_cast<size_t>(column)];
  return value.kind == Kind::kText ? Text(value) : std::wstring_view();
}

uint64_t LogRecord::NumberAt(int32_t column) const {
  if (column < 0 || static_cast<size_t>(column) >= fields_.size()) return 0;
  const Field& value = fields_[static_cast<size_t>(column)];
  return value.kind == Kind::kNumber ? value.number : 0;
}

std::string_view LogRecord::StandardText(uint32_t field, std::string_view time, char (&digits)[8]) const {
  switch (field) {
    case kLogFieldDateTime: return time;
    case kLogFieldClientMac: return view_.Mac(0);
    case kLogFieldServerMac: return view_.Mac(1);
    case kLogFieldClientAddress: return view_.Address(0);
    case kLogFieldServerAddress: return view_.Address(1);
    case kLogFieldClientPort:
    case kLogFieldServerPort: {
      const uint16_t port = view_.port[field == kLogFieldClientPort ? 0 : 1];
      return {digits, static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, port).ptr - digits)};
    }
    default: return {};
  }
}

}  // namespace pelka
