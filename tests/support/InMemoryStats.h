// An in-memory stand-in for the host's statistics service and registrar: it
// keeps the categories, items and counters the module defines, numbers the
// counters, and can refuse any of them by name. InMemoryFlowStats adds up what
// bound flows count.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/FlowInterfaces.h"
#include "host/StatInterfaces.h"

namespace pelka::testing {

class InMemoryStatCounter final : public IPelkaStatCounter {
 public:
  explicit InMemoryStatCounter(uint16_t index) : index(index) {}
  uint16_t GetIndex() override { return index; }
  uint16_t index;
};

class InMemoryStatItem final : public IPelkaStatItem {
 public:
  InMemoryStatItem(std::string name, uint16_t* next_index, bool refuse_counters)
      : name(std::move(name)), next_index_(next_index), refuse_counters_(refuse_counters) {}

  IPelkaStatCounter* AddCounter(const char*, int32_t, int32_t, uint64_t, const char*) override {
    if (refuse_counters_) return nullptr;
    counters.push_back(std::make_unique<InMemoryStatCounter>((*next_index_)++));
    return counters.back().get();
  }

  std::string name;
  std::vector<std::unique_ptr<InMemoryStatCounter>> counters;

 private:
  uint16_t* next_index_;
  bool refuse_counters_;
};

class InMemoryStats;

class InMemoryStatCategory final : public IPelkaStatCategory {
 public:
  explicit InMemoryStatCategory(InMemoryStats* stats) : stats_(stats) {}

  inline IPelkaStatItem* AddItem(const char* name, const wchar_t*, uint64_t, const char*) override;

  std::vector<std::unique_ptr<InMemoryStatItem>> items;

 private:
  InMemoryStats* stats_;
};

// Both the service and the registrar it hands to its clients.
class InMemoryStats final : public IPelkaStatService, public IPelkaStatRegistrar {
 public:
  uint32_t RegisterClient(IPelkaStatClient* client) override {
    clients.push_back(client);
    return 0;
  }
  uint32_t WithdrawClient(IPelkaStatClient* client) override {
    withdrawn.push_back(client);
    return 0;
  }
  uint64_t ParseScopes(const char*) override { return 0x0B; }
  IPelkaStatCategory* AddCategory(const char*, const wchar_t*, uint64_t, const char*) override {
    if (refuse_categories) return nullptr;
    categories.push_back(std::make_unique<InMemoryStatCategory>(this));
    return categories.back().get();
  }

  // The index of the first counter of the latest item so named, or -1.
  int32_t IndexOf(const std::string& name) const {
    for (auto category = categories.rbegin(); category != categories.rend(); ++category)
      for (const auto& item : (*category)->items)
        if (item->name == name) return item->counters.empty() ? -1 : item->counters.front()->index;
    return -1;
  }

  bool refuse_categories = false;
  std::set<std::string> refused_items;     // AddItem fails for these names
  std::set<std::string> refused_counters;  // AddCounter fails on these items
  std::vector<IPelkaStatClient*> clients;
  std::vector<IPelkaStatClient*> withdrawn;
  std::vector<std::unique_ptr<InMemoryStatCategory>> categories;

 private:
  friend class InMemoryStatCategory;
  uint16_t next_index_ = 7;  // counters are numbered from here
};

IPelkaStatItem* InMemoryStatCategory::AddItem(const char* name, const wchar_t*, uint64_t, const char*) {
  if (stats_->refused_items.count(name)) return nullptr;
  items.push_back(
      std::make_unique<InMemoryStatItem>(name, &stats_->next_index_, stats_->refused_counters.count(name) != 0));
  return items.back().get();
}

// Per-flow statistics: the UseCounter indexes and AddToCounter values in
// the order called.
class InMemoryFlowStats final : public IPelkaFlowStats {
 public:
  void UseCounter(int32_t index) override { used.push_back(index); }
  void AddToCounter(int32_t, uint64_t a, uint64_t b, uint64_t c) override { added_values.push_back({a, b, c}); }

  std::vector<int32_t> used;
  std::vector<std::vector<uint64_t>> added_values;
};

}  // namespace pelka::testing
