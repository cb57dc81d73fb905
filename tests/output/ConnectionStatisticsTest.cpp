// The Email statistics category, its three connection counters, and one count
// per bound flow.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "module/EmailModule.h"
#include "support/FakeFlow.h"
#include "support/InMemoryStats.h"

namespace pelka {
namespace {

using testing::InMemoryFlowStats;
using testing::InMemoryStats;

// Binds and unbinds one flow of each protocol on one flow-statistics object.
InMemoryFlowStats BindOneOfEach(CPelkaEmailModule& module) {
  const uint16_t applications[] = {kProtocolSmtp, kProtocolPop3, kProtocolImap4};
  const uint16_t ports[] = {kSmtpPort, kPop3Port, kImapPort};
  InMemoryFlowStats flow_stats;
  for (size_t i = 0; i < 3; ++i) {
    testing::FakeFlow flow(0x0A000002, 40001, 0x0A000001, ports[i], applications[i]);
    testing::FakeFlowNode node;
    IPelkaFlowBindContext* context = nullptr;
    EXPECT_EQ(module.BindFlow(&flow, &flow_stats, &context), 0u);
    module.UnbindFlow(&flow, &flow_stats, &node, context);
  }
  return flow_stats;
}

void DefineAndNumber(CPelkaEmailModule& module, InMemoryStats& stats) {
  module.DefineStatistics(&stats, &stats);
  module.AssignStatisticIndexes(&stats);
}

TEST(ConnectionStatisticsTest, EachBoundFlowCountsOnceUnlessItsCounterIsMissing) {
  static InMemoryStats other;
  const struct {
    const char* name;
    void (*arrange)(CPelkaEmailModule& module, InMemoryStats& stats);
    std::vector<std::string> used;  // counter names; "-" counts at index -1
  } cases[] = {
      {"defined and numbered", DefineAndNumber, {"SMTP", "POP3", "IMAP4"}},
      {"before indexes are assigned", [](auto& m, auto& s) { m.DefineStatistics(&s, &s); }, {"-", "-", "-"}},
      {"a refused counter keeps its item unnumbered",
       [](auto& m, auto& s) { s.refused_counters = {"SMTP"}; DefineAndNumber(m, s); }, {"-", "POP3", "IMAP4"}},
      {"a refused item", [](auto& m, auto& s) { s.refused_items = {"POP3"}; DefineAndNumber(m, s); },
       {"SMTP", "IMAP4"}},
      {"no category", [](auto& m, auto& s) { s.refuse_categories = true; DefineAndNumber(m, s); }, {}},
      {"defined on a foreign service", [](auto& m, auto&) { m.DefineStatistics(&other, &other); }, {}},
      {"a detach naming another service",
       [](auto& m, auto& s) { DefineAndNumber(m, s); m.DetachStatistics(&other); }, {"SMTP", "POP3", "IMAP4"}},
      {"detached", [](auto& m, auto& s) { DefineAndNumber(m, s); m.DetachStatistics(&s); }, {}},
      {"defined twice: the second definition's counters",
       [](auto& m, auto& s) { DefineAndNumber(m, s); DefineAndNumber(m, s); }, {"SMTP", "POP3", "IMAP4"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    InMemoryStats stats;
    CPelkaEmailModule module;
    module.set_stat_service(&stats);
    c.arrange(module, stats);
    std::vector<int32_t> expected;
    for (const std::string& name : c.used) expected.push_back(name == "-" ? -1 : stats.IndexOf(name));
    const InMemoryFlowStats counted = BindOneOfEach(module);
    EXPECT_EQ(counted.used, expected);
    EXPECT_EQ(counted.added_values, std::vector<std::vector<uint64_t>>(expected.size(), {1, 1, 1}));
    EXPECT_TRUE(other.categories.empty());
  }
}

}  // namespace
}  // namespace pelka
