#include "capture/StatisticsSum.h"

#include <nlohmann/json.hpp>

#include "capture/JsonText.h"

namespace pelka {
namespace {

using Json = nlohmann::ordered_json;

void AddInto(Json& total, const Json& value) {
  if (total.is_number_integer() && value.is_number_integer()) {
    total = total.get<int64_t>() + value.get<int64_t>();
  } else if (total.is_number() && value.is_number()) {
    total = total.get<double>() + value.get<double>();
  } else if (total.is_object() && value.is_object()) {
    for (const auto& [key, item] : value.items()) {
      if (total.contains(key)) {
        AddInto(total[key], item);
      } else {
        total[key] = item;
      }
    }
  }
}

void Write(std::string& out, const Json& value) {
  if (value.is_object()) {
    out += '{';
    const char* separator = "";
    for (const auto& [key, item] : value.items()) {
      out += separator;
      AppendJsonString(out, key);
      out += ": ";
      Write(out, item);
      separator = ", ";
    }
    out += '}';
  } else if (value.is_array()) {
    out += '[';
    for (size_t i = 0; i < value.size(); ++i) {
      if (i) out += ", ";
      Write(out, value[i]);
    }
    out += ']';
  } else if (value.is_string()) {
    AppendJsonString(out, value.get<std::string>());
  } else if (value.is_number_float()) {
    AppendDouble(out, value.get<double>());
  } else {
    out += value.dump();
  }
}

}  // namespace

std::string SumStatistics(const std::vector<std::string>& texts, size_t* skipped) {
  Json total = Json::object();
  for (const std::string& text : texts) {
    const Json value = Json::parse(text, nullptr, false);
    if (!value.is_object()) {
      if (skipped) ++*skipped;
      continue;
    }
    AddInto(total, value);
  }
  std::string out;
  Write(out, total);
  return out;
}

}  // namespace pelka
