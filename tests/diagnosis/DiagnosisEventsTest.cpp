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
using testing::InMemoryDiagnosisService;
using testing::kPop3Slow;
using testing::kSmtpDubious;
using testing::kSmtpError;
using testing::kSmtpSlow;

struct ExpectedEvent {
  std::string key;
  std::wstring title;
  std::vector<uint32_t> codes;
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
  DiagnosisBench bench;
  const auto& events = bench.service().events();
  ASSERT_EQ(events.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    const auto& event = *events[i];
    EXPECT_EQ(event.key, expected[i].key);
    EXPECT_EQ(event.title, expected[i].title) << event.key;
    EXPECT_EQ(std::vector<uint32_t>(event.codes, event.codes + 3), expected[i].codes) << event.key;
    EXPECT_EQ(event.flags, 1u);
    ASSERT_EQ(event.parameters.size(), expected[i].parameter.empty() ? 0u : 1u) << event.key;
    if (event.parameters.empty()) continue;
    const auto& parameter = event.parameters[0];
    EXPECT_EQ(parameter.key, expected[i].parameter);
    EXPECT_EQ(parameter.caption, L"响应时间(ms)");
    EXPECT_EQ(std::vector<int32_t>({parameter.default_value, parameter.lowest, parameter.highest}),
              std::vector<int32_t>({200, 1, 100000}));
  }
  EXPECT_EQ(bench.module().smtp_time_parameter(), events[0]->parameters[0].id);
  EXPECT_EQ(bench.module().pop3_time_parameter(), events[4]->parameters[0].id);
}

TEST(DefineDiagnosisEvents, NothingWithoutNotificationObjectOrService) {
  InMemoryDiagnosisService service;
  DiagnosedModule without_notify;
  without_notify.Attach(&service);
  without_notify.DetachNotify();
  without_notify.DefineDiagnosisEvents();
  EXPECT_TRUE(service.defined_keys.empty());

  DiagnosedModule without_service;
  without_service.Attach(nullptr);
  without_service.DefineDiagnosisEvents();
  for (auto* event : {without_service.smtp_slow_event(), without_service.smtp_dubious_event(),
                      without_service.smtp_error_event(), without_service.pop3_slow_event(),
                      without_service.pop3_dubious_event(), without_service.pop3_error_event()}) {
    EXPECT_EQ(event, nullptr);
  }
  EXPECT_EQ(without_service.smtp_time_parameter(), 0u);
  EXPECT_EQ(without_service.pop3_time_parameter(), 0u);
}

TEST(DefineDiagnosisEvents, AFailedDefinitionSkipsOnlyItsParameter) {
  DiagnosisBench smtp;  // a second definition below overwrites the first
  auto& service = smtp.service();
  service.refused_keys = {kSmtpSlow};
  smtp.module().DefineDiagnosisEvents();
  EXPECT_EQ(service.events().size(), 6u + 5u);
  EXPECT_EQ(smtp.module().smtp_slow_event(), nullptr);
  EXPECT_EQ(service.Event(kPop3Slow)->parameters.size(), 1u);

  // Without their slow event the SMTP checks still find errors, never slowness.
  smtp.Client(1, 0, "HELO a\r\n");
  smtp.Server(2, 9'000'000, "550 no\r\n");
  ASSERT_EQ(service.reports.size(), 1u);
  EXPECT_EQ(service.reports[0].event, kSmtpError);
}

TEST(ReleaseDiagnosisEvents, ReleasesEachDefinedEventOnce) {
  DiagnosisBench smtp;
  smtp.service().refused_keys = {kSmtpDubious};
  smtp.module().DefineDiagnosisEvents();
  smtp.module().ReleaseDiagnosisEvents();
  smtp.module().ReleaseDiagnosisEvents();
  EXPECT_EQ(smtp.module().smtp_slow_event(), nullptr);
  EXPECT_EQ(smtp.module().pop3_error_event(), nullptr);
  const auto& events = smtp.service().events();
  for (size_t i = 6; i < events.size(); ++i) EXPECT_EQ(events[i]->releases, 1) << events[i]->key;
  EXPECT_NE(smtp.module().smtp_time_parameter(), 0u) << "parameter identifiers are left as they are";
}

}  // namespace
}  // namespace pelka
