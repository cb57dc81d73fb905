// A module with its diagnosis events defined on an in-memory service, and one
// SMTP or POP3 flow through the flow client.
#pragma once

#include <string>

#include "host/DiagnosisInterfaces.h"
#include "host/ModuleInterfaces.h"
#include "module/EmailModule.h"
#include "support/Conversation.h"
#include "support/InMemoryDiagnosis.h"

namespace pelka::testing {

inline constexpr const char* kSmtpSlow = "SMTPServerSlowResponseTime";
inline constexpr const char* kSmtpDubious = "SMTPNonSmtpTraffic";
inline constexpr const char* kSmtpError = "SMTPServerReturnedError";
inline constexpr const char* kPop3Slow = "POP3ServerSlowResponseTime";
inline constexpr const char* kPop3Error = "POP3ServerReturnedError";

// The module as the host sees it after Initialize, with (unless left out) a
// notification object and a diagnosis service, and its events defined.
class DiagnosedModule : public CPelkaEmailModule {
 public:
  void Attach(IPelkaDiagnosisService* service, bool with_notify = true) {
    notify_ = with_notify ? &notify_object_ : nullptr;  // the definitions only ask whether there is one
    diagnosis_service_ = service;
    DefineDiagnosisEvents();
  }

 private:
  struct SilentNotify final : IPelkaNotify {
    void GetResourcePath(void*, std::wstring* path) override {
      if (path) path->clear();
    }
  } notify_object_;
};

// The module with its events defined on an in-memory service.
struct DiagnosedParts {
  DiagnosedParts() { module.Attach(&service); }
  InMemoryDiagnosisService service;
  DiagnosedModule module;
};

// Those and one SMTP or POP3 flow through the flow client, packets numbered from 1.
class DiagnosisBench : public DiagnosedParts, public Conversation {
 public:
  explicit DiagnosisBench(MailProtocol protocol = MailProtocol::kSmtp)
      : Conversation(module, protocol == MailProtocol::kSmtp ? kSmtpPort : kPop3Port,
                     protocol == MailProtocol::kSmtp ? kProtocolSmtp : kProtocolPop3) {}
  InMemoryDiagnosisEvent* Event(const char* key) { return service.Event(key); }
};

}  // namespace pelka::testing
