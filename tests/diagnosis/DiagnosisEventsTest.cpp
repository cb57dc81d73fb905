// The six diagnosis events, their thresholds, and what a missing service or a
// refused definition leaves working.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DiagnosisBench.h"

namespace pelka {
namespace {

using testing::DiagnosedModule;
using testing::DiagnosisBench;
using testing::InMemoryDiagnosisEvent;
using testing::InMemoryDiagnosisService;
using testing::kPop3Slow;
using testing::kSmtpDubious;
using testing::kSmtpError;
using testing::kSmtpSlow;

struct ExpectedEvent {
  std::string key;
  std::wstring title;
  uint32_t codes[3];
  std::string parameter;  // empty: none
};

TEST(DefineDiagnosisEvents, DefinesSixEventsInOrderWithDefaultTitles) {
  const std::vector<ExpectedEvent> expected = {
      {"SMTPServerSlowResponseTime", L"SMTP 服务器慢响应", {2, 6, 2}, "smtp_time"},
      {"SMTPNonSmtpTraffic", L"SMTP 可疑会话", {1, 6, 4}, ""},
      {"SMTPServerReturnedError", L"SMTP 服务器返回错误", {3, 6, 1}, ""},
      {"POP3NonPop3Traffic", L"POP3 可疑会话", {1, 6, 4}, ""},
      {"POP3ServerSlowResponseTime", L"POP3 服务器慢响应", {2, 6, 2}, "pop3_time"},
      {"POP3ServerReturnedError", L"POP3 服务器返回错误", {3, 6, 1}, ""},
  };
  InMemoryDiagnosisService service;
  DiagnosedModule module;
  module.Attach(&service);
  module.DefineDiagnosisEvents();

  ASSERT_EQ(service.events().size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const InMemoryDiagnosisEvent& event = *service.events()[i];
    EXPECT_EQ(event.key, expected[i].key);
    EXPECT_EQ(event.title, expected[i].title) << event.key;
    EXPECT_EQ(std::vector<uint32_t>(event.codes, event.codes + 3),
              std::vector<uint32_t>(expected[i].codes, expected[i].codes + 3))
        << event.key;
    EXPECT_EQ(event.flags, 1u);
    if (expected[i].parameter.empty()) {
      EXPECT_TRUE(event.parameters.empty()) << event.key;
      continue;
    }
    ASSERT_EQ(event.parameters.size(), 1u) << event.key;
    const auto& parameter = event.parameters[0];
    EXPECT_EQ(parameter.key, expected[i].parameter);
    EXPECT_EQ(parameter.caption, L"响应时间(ms)");
    EXPECT_EQ(parameter.default_value, 200);
    EXPECT_EQ(parameter.lowest, 1);
    EXPECT_EQ(parameter.highest, 100000);
  }
  EXPECT_EQ(module.smtp_slow_event(), service.Event("SMTPServerSlowResponseTime"));
  EXPECT_EQ(module.pop3_error_event(), service.Event("POP3ServerReturnedError"));
  EXPECT_EQ(module.smtp_time_parameter(), service.events()[0]->parameters[0].id);
  EXPECT_EQ(module.pop3_time_parameter(), service.events()[4]->parameters[0].id);
}

TEST(DefineDiagnosisEvents, NothingWithoutNotificationObject) {
  InMemoryDiagnosisService service;
  DiagnosedModule module;
  module.Attach(&service);
  module.DetachNotify();
  module.DefineDiagnosisEvents();
  EXPECT_TRUE(service.defined_keys.empty());
  EXPECT_EQ(module.smtp_slow_event(), nullptr);
}

TEST(DefineDiagnosisEvents, AFailedDefinitionSkipsOnlyItsParameter) {
  DiagnosisBench smtp;  // defines once; the second definition below overwrites
  InMemoryDiagnosisService& service = smtp.service();
  service.refused_keys = {kSmtpSlow};
  const size_t events_before = service.events().size();
  smtp.module().DefineDiagnosisEvents();

  EXPECT_EQ(service.events().size(), events_before + 5);
  EXPECT_EQ(smtp.module().smtp_slow_event(), nullptr);
  EXPECT_NE(smtp.module().smtp_dubious_event(), nullptr);
  EXPECT_EQ(service.Event(kPop3Slow)->parameters.size(), 1u);

  // The SMTP checks without their slow event: errors and dubious
  // conversations are still found, slow responses never.
  smtp.Client(1, 0, "HELO a\r\n");
  smtp.Server(2, 9'000'000, "550 no\r\n");
  const auto& reports = service.reports;
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].event, kSmtpError);
  EXPECT_EQ(smtp.context().request_packet, 0u);
}

TEST(DefineDiagnosisEvents, NoServiceLeavesEveryFieldEmptyAndChecksQuiet) {
  DiagnosedModule module;
  module.Attach(nullptr);
  module.DefineDiagnosisEvents();
  EXPECT_EQ(module.smtp_slow_event(), nullptr);
  EXPECT_EQ(module.smtp_dubious_event(), nullptr);
  EXPECT_EQ(module.smtp_error_event(), nullptr);
  EXPECT_EQ(module.pop3_slow_event(), nullptr);
  EXPECT_EQ(module.pop3_dubious_event(), nullptr);
  EXPECT_EQ(module.pop3_error_event(), nullptr);
  EXPECT_EQ(module.smtp_time_parameter(), 0u);
  EXPECT_EQ(module.pop3_time_parameter(), 0u);
}

TEST(ReleaseDiagnosisEvents, ReleasesEachDefinedEventOnce) {
  DiagnosisBench smtp;
  smtp.service().refused_keys = {kSmtpDubious};
  smtp.module().DefineDiagnosisEvents();
  smtp.module().ReleaseDiagnosisEvents();
  smtp.module().ReleaseDiagnosisEvents();
  EXPECT_EQ(smtp.module().smtp_slow_event(), nullptr);
  EXPECT_EQ(smtp.module().pop3_error_event(), nullptr);
  // The second round of definitions: five events, each released once.
  for (size_t i = 6; i < smtp.service().events().size(); ++i) {
    EXPECT_EQ(smtp.service().events()[i]->releases, 1) << smtp.service().events()[i]->key;
  }
  EXPECT_NE(smtp.module().smtp_time_parameter(), 0u) << "parameter identifiers are left as they are";
}

}  // namespace
}  // namespace pelka
