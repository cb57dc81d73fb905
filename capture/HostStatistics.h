// The host's statistics service: categories of items with counters, defined
// by registered statistics clients and counted through per-flow statistics
// objects.
//
// Run order: RegisterClient (the module's Initialize), DefineClients (define
// then assign indexes), counting while flows are bound, ToJson, DetachClients.
// Only the counting runs while flows are handled, possibly on several threads
// at once: the counters themselves are atomic, the definitions fixed by then.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/FlowInterfaces.h"
#include "host/ModuleInterfaces.h"
#include "host/StatInterfaces.h"

namespace pelka {

// Scope bits that ParseScopes knows.
enum : uint64_t {
  kStatScopeGlobal = 1,
  kStatScopeGroup = 2,
  kStatScopeIpv4Address = 4,
};

class HostStatCounter final : public IPelkaStatCounter {
 public:
  explicit HostStatCounter(std::string name) : name_(std::move(name)) {}
  uint16_t GetIndex() override { return index_; }

  const std::string& name() const { return name_; }
  // What was counted since the period began (the run's start, or StartPeriod).
  uint64_t value() const { return value_.load(std::memory_order_relaxed) - period_base_; }
  void Add(uint64_t amount) { value_.fetch_add(amount, std::memory_order_relaxed); }
  // Counts from zero again: the output folders of a rotating run each hold
  // their own period, so that their sums give the run's.
  void StartPeriod() { period_base_ = value_.load(std::memory_order_relaxed); }
  void set_index(uint16_t index) { index_ = index; }

 private:
  std::string name_;
  uint16_t index_ = 0xFFFF;
  std::atomic<uint64_t> value_{0};
  uint64_t period_base_ = 0;
};

class HostStatItem final : public IPelkaStatItem {
 public:
  explicit HostStatItem(std::string name) : name_(std::move(name)) {}
  IPelkaStatCounter* AddCounter(const char* name, int32_t kind, int32_t width, uint64_t scope,
                                const char* owner) override;

  const std::string& name() const { return name_; }
  const std::vector<std::unique_ptr<HostStatCounter>>& counters() const { return counters_; }

 private:
  std::string name_;
  std::vector<std::unique_ptr<HostStatCounter>> counters_;
};

class HostStatCategory final : public IPelkaStatCategory {
 public:
  explicit HostStatCategory(std::string name) : name_(std::move(name)) {}
  IPelkaStatItem* AddItem(const char* name, const wchar_t* caption, uint64_t scope, const char* owner) override;

  const std::string& name() const { return name_; }
  const std::vector<std::unique_ptr<HostStatItem>>& items() const { return items_; }

 private:
  std::string name_;
  std::vector<std::unique_ptr<HostStatItem>> items_;
};

class HostStatService final : public IPelkaStatService, private IPelkaStatRegistrar {
 public:
  uint32_t RegisterClient(IPelkaStatClient* client) override;
  uint32_t WithdrawClient(IPelkaStatClient* client) override;
  uint64_t ParseScopes(const char* scopes) override;

  // Hands each registered client the registrar, then numbers every counter
  // and lets the clients read their indexes.
  void DefineClients();
  // Tells each registered client that the statistics are dropped.
  void DetachClients();

  // Every counter, the host's figures too, counts from zero again
  // (HostStatCounter::StartPeriod); only between packets.
  void StartPeriod();
  // The counter with the index, or null.
  HostStatCounter* CounterAt(int32_t index);
  static constexpr const char* kHostCategory = "Capture";
  // A figure of the host itself, kept under the category "Capture" after the
  // clients' categories. Only figures that were added appear.
  void AddHostFigure(const std::string& item, const std::string& counter, uint64_t value);

  // A host figure read at the moment of writing (the kernel's drops).
  struct HostFigure {
    std::string item, counter;
    uint64_t value = 0;
  };
  // {"Category": {"Item": {"Counter": value, ...}, ...}, ...}, in definition
  // order; the host's figures last, under "Capture", `current_figures` after
  // the added ones.
  std::string ToJson(const std::vector<HostFigure>& current_figures = {}) const;
  // The categories in that order, the host's own last.
  std::vector<const HostStatCategory*> categories() const;
  bool has_client() const { return !clients_.empty(); }

 private:
  IPelkaStatCategory* AddCategory(const char* name, const wchar_t* caption, uint64_t scope,
                                  const char* owner) override;

  std::vector<IPelkaStatClient*> clients_;
  std::vector<std::unique_ptr<HostStatCategory>> categories_;
  std::vector<HostStatCounter*> by_index_;
  std::unique_ptr<HostStatCategory> host_category_;  // null until a figure is added
};

// The statistics object of one flow: counts into the service's counters.
class HostFlowStats final : public IPelkaFlowStats {
 public:
  explicit HostFlowStats(HostStatService& service) : service_(service) {}
  void UseCounter(int32_t index) override;
  // Adds the first value to the counter; the other two are the host's
  // companion figures, which this host does not keep.
  void AddToCounter(int32_t index, uint64_t a, uint64_t b, uint64_t c) override;

 private:
  HostStatService& service_;
};

}  // namespace pelka
