// The checks as the flow client runs them: every packet of an SMTP or POP3
// flow, before the parsers, with or without payload. And the Email statistics
// category, its three connection counters, and one count per bound flow.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "DiagnosisBench.h"
#include "support/Conversation.h"
#include "support/FakeFlow.h"
#include "support/InMemoryStats.h"

namespace pelka {
namespace {

using testing::Conversation;
using testing::DiagnosedModule;
using testing::InMemoryFlowStats;
using testing::InMemoryStats;
using testing::kSmtpError;
using testing::kSmtpSlow;

class FlowDiagnosisTest : public ::testing::Test, protected testing::DiagnosedParts {};

TEST_F(FlowDiagnosisTest, SmtpSessionReportsSlowRepliesAndServerErrorsOnly) {
  Conversation smtp(module, kSmtpPort, kProtocolSmtp);
  smtp.Server("220 mail.example.com ESMTP\r\n", 1'000'000);         // 1
  smtp.Client("550 is no command from a client\r\n", 1'010'000);    // 2: never tested
  smtp.Client("EHLO client.example.com\r\n", 1'020'000);            // 3
  smtp.Server("", 1'030'000);                                       // 4: an acknowledgement
  smtp.Server("250-mail.example.com\r\n250 SIZE\r\n", 1'400'000);   // 5: a continuation line first
  smtp.Server("250 SIZE\r\n", 1'500'000);                           // 6: 480 ms after packet 3
  smtp.Client("MAIL FROM:<a@example.com>\r\n", 2'000'000);          // 7
  smtp.Server("550 5.1.0 sender rejected\r\n", 2'010'000);          // 8

  ASSERT_EQ(service.reports.size(), 2u);
  EXPECT_EQ(service.reports[0].Fields(),
            std::make_tuple(kSmtpSlow, L"SMTP Server  Slow Response#(数据包 [3] 与数据包 [6] 相隔480ms)", 1u, 1u, 6u, 3u));
  EXPECT_EQ(service.reports[1].Fields(),
            std::make_tuple(kSmtpError, L"#POP3 Server Returned Error(See Packet 8)", 0u, 1u, 8u, 0u));
  EXPECT_EQ(service.reports[1].target, &smtp.node());
  EXPECT_EQ(smtp.node().mark, 0u);
}

TEST_F(FlowDiagnosisTest, AnImapFlowRunsNoCheck) {
  Conversation imap(module, kImapPort, kProtocolImap4);
  for (int i = 0; i < 6; ++i) imap.Server("550 garbage", 1'000'000 * i);
  EXPECT_TRUE(service.reports.empty());
  EXPECT_EQ(imap.context().conversation_unconfirmed, 1u);
}

TEST(FlowWithoutDiagnosis, TheConversationIsFollowedAndCountedAsUsual) {
  InMemoryStats stats;
  DiagnosedModule module;
  module.Attach(nullptr);
  module.DefineDiagnosisEvents();
  module.set_stat_service(&stats);
  module.DefineStatistics(&stats, &stats);
  module.AssignStatisticIndexes(&stats);

  Conversation smtp(module, kSmtpPort, kProtocolSmtp);
  EXPECT_EQ(smtp.stats().counts, (std::map<int32_t, uint64_t>{{stats.IndexOf("SMTP"), 1}}));
  smtp.Client("EHLO a\r\n", 1'000'000);
  smtp.Server("550 no\r\n", 1'010'000);
  smtp.Client("DATA\r\n", 2'000'000);
  EXPECT_EQ(smtp.context().in_body, 1u);
  smtp.Client("Subject: x\r\n\r\nbody\r\n.\r\n", 9'000'000);
  EXPECT_EQ(smtp.context().in_body, 0u);
  EXPECT_EQ(smtp.context().request_packet, 0u) << "no check keeps state without its event";
  EXPECT_EQ(smtp.context().conversation_unconfirmed, 1u);
}

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
      {"a refused item", [](auto& m, auto& s) { s.refused_items = {"POP3"}; DefineAndNumber(m, s); }, {"SMTP", "IMAP4"}},
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
    if (stats.categories.size() == 2) {
      EXPECT_NE(stats.IndexOf("SMTP"), stats.categories[0]->items[0]->counters[0]->index);
    }
  }
}

}  // namespace
}  // namespace pelka
