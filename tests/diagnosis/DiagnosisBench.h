// A module with its diagnosis events defined on an in-memory service, and one
// SMTP or POP3 flow whose packets are run through the checks in the order the
// flow dispatch runs them.
#pragma once

#include <cstdint>
#include <string_view>

#include "flow/EmailFlowContext.h"
#include "host/DiagnosisInterfaces.h"
#include "host/ModuleInterfaces.h"
#include "host/Types.h"
#include "module/EmailModule.h"
#include "support/FakeFlow.h"
#include "support/InMemoryDiagnosis.h"

namespace pelka::testing {

inline constexpr const char* kSmtpSlow = "SMTPServerSlowResponseTime";
inline constexpr const char* kSmtpDubious = "SMTPNonSmtpTraffic";
inline constexpr const char* kSmtpError = "SMTPServerReturnedError";
inline constexpr const char* kPop3Slow = "POP3ServerSlowResponseTime";
inline constexpr const char* kPop3Error = "POP3ServerReturnedError";

// The module as the host sees it after Initialize: a notification object and
// (unless left out) a diagnosis service.
class DiagnosedModule : public CPelkaEmailModule {
 public:
  void Attach(IPelkaDiagnosisService* service) {
    notify_ = &notify_object_;  // the definitions only ask whether there is one
    diagnosis_service_ = service;
  }
  void DetachNotify() { notify_ = nullptr; }

  IPelkaDiagnosisEvent* smtp_slow_event() const { return smtp_slow_event_; }
  IPelkaDiagnosisEvent* pop3_error_event() const { return pop3_error_event_; }
  uint32_t smtp_time_parameter() const { return smtp_time_parameter_; }
  uint32_t pop3_time_parameter() const { return pop3_time_parameter_; }

 private:
  struct SilentNotify final : IPelkaNotify {
    void GetResourcePath(void*, std::wstring* path) override {
      if (path) path->clear();
    }
  } notify_object_;
};

class DiagnosisBench {
 public:
  explicit DiagnosisBench(MailProtocol protocol = MailProtocol::kSmtp)
      : protocol_(protocol),
        port_(protocol == MailProtocol::kSmtp ? kSmtpPort : kPop3Port),
        flow_(0x0A000002, 40001, 0x0A000001, port_, protocol == MailProtocol::kSmtp ? kProtocolSmtp : kProtocolPop3) {
    module_.Attach(&service_);
    module_.DefineDiagnosisEvents();
  }

  // One packet with its number and capture time (microseconds).
  void Client(uint64_t number, uint64_t time_us, std::string_view payload) { Send(kFromClient, number, time_us, payload); }
  void Server(uint64_t number, uint64_t time_us, std::string_view payload) { Send(kFromServer, number, time_us, payload); }

  void Send(uint32_t direction, uint64_t number, uint64_t time_us, std::string_view payload) {
    const bool from_client = direction == kFromClient;
    const auto* packet = builder_.Build(number, time_us, from_client ? 40001 : port_, from_client ? port_ : 40001);
    const auto* bytes = reinterpret_cast<const uint8_t*>(payload.data());
    const auto length = static_cast<uint32_t>(payload.size());
    module_.CheckSlowResponse(context_, packet, direction, bytes, length, &node_, protocol_);
    module_.CheckDubiousConversation(context_, packet, direction, bytes, length, &node_, protocol_);
    if (direction != kFromServer) return;
    if (protocol_ == MailProtocol::kSmtp) {
      module_.CheckSmtpServerError(bytes, length, packet, &node_);
    } else {
      module_.CheckPop3ServerError(bytes, length, packet, &node_);
    }
  }

  InMemoryDiagnosisEvent* Event(const char* key) { return service_.Event(key); }
  InMemoryDiagnosisService& service() { return service_; }
  DiagnosedModule& module() { return module_; }
  CEmailFlowContext& context() { return context_; }
  FakeFlowNode& node() { return node_; }

 private:
  MailProtocol protocol_;
  uint16_t port_;
  InMemoryDiagnosisService service_;
  DiagnosedModule module_;
  FakeFlow flow_;
  FakeFlowNode node_;
  CEmailFlowContext context_{&module_, &flow_};
  PacketRecordBuilder builder_;
};

}  // namespace pelka::testing
