// What a missing service or a refused definition of the six diagnosis events
// leaves working. The keys, titles and defaults themselves show in the reports
// the check tests compare exactly.
#include <gtest/gtest.h>

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
  EXPECT_EQ(without_service.smtp_slow_event(), nullptr);
  EXPECT_EQ(without_service.pop3_error_event(), nullptr);
  EXPECT_EQ(without_service.smtp_time_parameter() + without_service.pop3_time_parameter(), 0u);
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
}

}  // namespace
}  // namespace pelka
