// The Email statistics category, its three connection counters, and one count
// per bound flow.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "flow/EmailFlowContext.h"
#include "module/EmailModule.h"
#include "support/FakeFlow.h"
#include "support/InMemoryStats.h"

namespace pelka {
namespace {

using testing::FakeFlow;
using testing::FakeFlowNode;
using testing::InMemoryFlowStats;
using testing::InMemoryStats;

constexpr uint16_t kApplications[] = {kProtocolSmtp, kProtocolPop3, kProtocolImap4};
constexpr uint16_t kPorts[] = {kSmtpPort, kPop3Port, kImapPort};

class ConnectionStatisticsTest : public ::testing::Test {
 protected:
  void SetUp() override { module_.set_stat_service(&stats_); }

  void DefineAndNumber() {
    module_.DefineStatistics(&stats_, &stats_);
    module_.AssignStatisticIndexes(&stats_);
  }

  // Binds and unbinds one flow of each protocol on one flow-statistics object.
  InMemoryFlowStats BindOneOfEach() {
    InMemoryFlowStats flow_stats;
    for (size_t i = 0; i < 3; ++i) {
      FakeFlow flow(0x0A000002, 40001, 0x0A000001, kPorts[i], kApplications[i]);
      FakeFlowNode node;
      IPelkaFlowBindContext* context = nullptr;
      EXPECT_EQ(module_.BindFlow(&flow, &flow_stats, &context), 0u);
      module_.UnbindFlow(&flow, &flow_stats, &node, context);
    }
    return flow_stats;
  }

  InMemoryStats stats_;
  CPelkaEmailModule module_;
};

TEST_F(ConnectionStatisticsTest, CountsEachBoundFlowOnItsProtocolsCounter) {
  DefineAndNumber();
  const InMemoryFlowStats counted = BindOneOfEach();
  const std::vector<int32_t> indexes = {stats_.IndexOf("SMTP"), stats_.IndexOf("POP3"), stats_.IndexOf("IMAP4")};
  EXPECT_EQ(counted.used, indexes);
  for (int32_t index : indexes) EXPECT_EQ(counted.CountOf(index), 1u);
  for (const auto& values : counted.added_values) EXPECT_EQ(values, (std::vector<uint64_t>{1, 1, 1}));
}

TEST_F(ConnectionStatisticsTest, CountsWithMinusOneWhileUnnumbered) {
  module_.DefineStatistics(&stats_, &stats_);
  EXPECT_EQ(BindOneOfEach().used, (std::vector<int32_t>{-1, -1, -1})) << "before indexes are assigned";

  stats_.refused_counters = {"SMTP"};
  DefineAndNumber();
  EXPECT_EQ(BindOneOfEach().used, (std::vector<int32_t>{-1, stats_.IndexOf("POP3"), stats_.IndexOf("IMAP4")}))
      << "a refused counter keeps its item unnumbered";
}

TEST_F(ConnectionStatisticsTest, CountsNothingAfterDetach) {
  DefineAndNumber();
  InMemoryStats other;
  module_.DetachStatistics(&other);
  EXPECT_EQ(BindOneOfEach().used.size(), 3u) << "a detach naming another service changes nothing";

  module_.DetachStatistics(&stats_);
  EXPECT_TRUE(BindOneOfEach().used.empty());
}

TEST_F(ConnectionStatisticsTest, ARefusedItemLeavesTheOtherProtocolsCounted) {
  stats_.refused_items = {"POP3"};
  DefineAndNumber();
  const InMemoryFlowStats counted = BindOneOfEach();
  EXPECT_EQ(counted.used, (std::vector<int32_t>{stats_.IndexOf("SMTP"), stats_.IndexOf("IMAP4")}));
}

TEST_F(ConnectionStatisticsTest, NoCategoryOrForeignServiceDefinesNothing) {
  InMemoryStats other;
  module_.DefineStatistics(&other, &other);
  EXPECT_TRUE(other.categories.empty());
  EXPECT_TRUE(stats_.categories.empty());

  stats_.refuse_categories = true;
  DefineAndNumber();
  EXPECT_TRUE(BindOneOfEach().used.empty());
}

TEST_F(ConnectionStatisticsTest, ASecondDefineRepointsTheCounters) {
  DefineAndNumber();
  DefineAndNumber();
  ASSERT_EQ(stats_.categories.size(), 2u);
  EXPECT_EQ(BindOneOfEach().used,
            (std::vector<int32_t>{stats_.IndexOf("SMTP"), stats_.IndexOf("POP3"), stats_.IndexOf("IMAP4")}));
  EXPECT_NE(stats_.IndexOf("SMTP"), stats_.categories[0]->items[0]->counters[0]->index);
}

}  // namespace
}  // namespace pelka
