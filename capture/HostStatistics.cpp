#include "capture/HostStatistics.h"

#include <algorithm>
#include <string_view>

#include "capture/JsonText.h"

namespace pelka {

IPelkaStatCounter* HostStatItem::AddCounter(const char* name, int32_t, int32_t, uint64_t, const char*) {
  if (!name) return nullptr;
  counters_.push_back(std::make_unique<HostStatCounter>(name));
  return counters_.back().get();
}

IPelkaStatItem* HostStatCategory::AddItem(const char* name, const wchar_t*, uint64_t, const char*) {
  if (!name) return nullptr;
  items_.push_back(std::make_unique<HostStatItem>(name));
  return items_.back().get();
}

uint32_t HostStatService::RegisterClient(IPelkaStatClient* client) {
  if (!client) return 1;
  if (std::find(clients_.begin(), clients_.end(), client) == clients_.end()) clients_.push_back(client);
  return 0;
}

uint32_t HostStatService::WithdrawClient(IPelkaStatClient* client) {
  const auto found = std::find(clients_.begin(), clients_.end(), client);
  if (found == clients_.end()) return 1;
  clients_.erase(found);
  return 0;
}

uint64_t HostStatService::ParseScopes(const char* scopes) {
  if (!scopes) return 0;
  uint64_t value = 0;
  std::string_view rest(scopes);
  while (!rest.empty()) {
    const size_t comma = rest.find(',');
    std::string_view word = rest.substr(0, comma);
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    while (!word.empty() && word.front() == ' ') word.remove_prefix(1);
    while (!word.empty() && word.back() == ' ') word.remove_suffix(1);
    if (word == "global") value |= kStatScopeGlobal;
    if (word == "group") value |= kStatScopeGroup;
    if (word == "ipv4_addr") value |= kStatScopeIpv4Address;
  }
  return value;
}

IPelkaStatCategory* HostStatService::AddCategory(const char* name, const wchar_t*, uint64_t, const char*) {
  if (!name) return nullptr;
  categories_.push_back(std::make_unique<HostStatCategory>(name));
  return categories_.back().get();
}

void HostStatService::DefineClients() {
  // A client may withdraw itself while it is called: iterate over a copy.
  const std::vector<IPelkaStatClient*> clients = clients_;
  for (IPelkaStatClient* client : clients) client->DefineStatistics(this, this);
  by_index_.clear();
  for (const auto& category : categories_)
    for (const auto& item : category->items())
      for (const auto& counter : item->counters()) {
        counter->set_index(static_cast<uint16_t>(by_index_.size()));
        by_index_.push_back(counter.get());
      }
  for (IPelkaStatClient* client : clients) client->AssignStatisticIndexes(this);
}

void HostStatService::DetachClients() {
  const std::vector<IPelkaStatClient*> clients = clients_;
  for (IPelkaStatClient* client : clients) client->DetachStatistics(this);
}

void HostStatService::StartPeriod() {
  for (const HostStatCategory* category : categories())
    for (const auto& item : category->items())
      for (const auto& counter : item->counters()) counter->StartPeriod();
}

HostStatCounter* HostStatService::CounterAt(int32_t index) {
  if (index < 0 || static_cast<size_t>(index) >= by_index_.size()) return nullptr;
  return by_index_[static_cast<size_t>(index)];
}

void HostStatService::AddHostFigure(const std::string& item, const std::string& counter, uint64_t value) {
  if (!host_category_) host_category_ = std::make_unique<HostStatCategory>(kHostCategory);
  // Figures of one item (the notices by kind) share its object.
  HostStatItem* host_item = nullptr;
  for (const auto& existing : host_category_->items())
    if (existing->name() == item) host_item = existing.get();
  if (!host_item)
    host_item = static_cast<HostStatItem*>(host_category_->AddItem(item.c_str(), L"", kStatScopeGlobal, ""));
  static_cast<HostStatCounter*>(host_item->AddCounter(counter.c_str(), 0, 0, kStatScopeGlobal, ""))->Add(value);
}

std::vector<const HostStatCategory*> HostStatService::categories() const {
  std::vector<const HostStatCategory*> categories;
  for (const auto& category : categories_) categories.push_back(category.get());
  if (host_category_) categories.push_back(host_category_.get());
  return categories;
}

std::string HostStatService::ToJson(const std::vector<HostFigure>& current_figures) const {
  // Objects nest three levels; each level is built like a JSON line.
  JsonObjectLine top;
  const auto add_items = [](JsonObjectLine& items, const HostStatCategory& category) {
    for (const auto& item : category.items()) {
      JsonObjectLine counters;
      for (const auto& counter : item->counters()) counters.Number(counter->name(), counter->value());
      items.Raw(item->name(), counters.Finish());
    }
  };
  for (const auto& category : categories_) {
    JsonObjectLine items;
    add_items(items, *category);
    top.Raw(category->name(), items.Finish());
  }
  if (!host_category_ && current_figures.empty()) return top.Finish();
  JsonObjectLine host_items;
  if (host_category_) add_items(host_items, *host_category_);
  for (const HostFigure& figure : current_figures) {
    JsonObjectLine counters;
    host_items.Raw(figure.item, counters.Number(figure.counter, figure.value).Finish());
  }
  top.Raw(kHostCategory, host_items.Finish());
  return top.Finish();
}

void HostFlowStats::UseCounter(int32_t) {
  // Counters need no preparation in this host; unknown indexes are ignored
  // when counting.
}

void HostFlowStats::AddToCounter(int32_t index, uint64_t a, uint64_t, uint64_t) {
  if (HostStatCounter* counter = service_.CounterAt(index)) counter->Add(a);
}

}  // namespace pelka
