// CDiagnosisChecks: the module's six diagnosis events and the per-packet
// checks that report on them.
//
// The events are defined with the host's diagnosis service when the host asks
// for them: SMTP slow response, dubious conversation and server error, then
// POP3 dubious conversation, slow response and server error. The two slow-
// response events carry a threshold parameter in milliseconds ("smtp_time",
// "pop3_time", default 200). A missing service or a refused event leaves that
// event's checks silent.
//
// The checks run for every SMTP and POP3 packet, before the packet is parsed:
//  - slow response: a client command is timed against the server's next reply;
//  - dubious conversation: server packets that are not replies before any
//    client command; the fourth one is reported, once per flow;
//  - server error: an SMTP reply code from 400 to 599, or a bare POP3 "-ERR"
//    status line.
// Report texts come from the module's text source.
#pragma once

#include <cstdint>
#include <string>

#include "flow/EmailFlowContext.h"
#include "host/PacketRecord.h"
#include "host/TextSource.h"
#include "mail/MessageFields.h"

namespace pelka {

class IPelkaDiagnosisEvent;
class IPelkaDiagnosisService;
class IPelkaFlowNode;

class CDiagnosisChecks {
 public:
  explicit CDiagnosisChecks(ITextSource& texts) : texts_(texts) {}
  CDiagnosisChecks(const CDiagnosisChecks&) = delete;
  CDiagnosisChecks& operator=(const CDiagnosisChecks&) = delete;

  // Defines the six events; their titles pass through `holder`, which the
  // host copies at once.
  void DefineEvents(IPelkaDiagnosisService* service, std::wstring& holder);
  // Gives every defined event back to the host.
  void ReleaseEvents();

  // The checks. `protocol` selects the SMTP or the POP3 event; IMAP4 flows
  // have none. Every check reads at most `length` bytes of `payload`.
  void CheckSlowResponse(CEmailFlowContext& context, const PacketRecord* packet, uint32_t direction,
                         const uint8_t* payload, uint32_t length, IPelkaFlowNode* node, MailProtocol protocol);
  void CheckDubiousConversation(CEmailFlowContext& context, const PacketRecord* packet, uint32_t direction,
                                const uint8_t* payload, uint32_t length, IPelkaFlowNode* node, MailProtocol protocol);
  void CheckSmtpServerError(const uint8_t* payload, uint32_t length, const PacketRecord* packet, IPelkaFlowNode* node);
  void CheckPop3ServerError(const uint8_t* payload, uint32_t length, const PacketRecord* packet, IPelkaFlowNode* node);

 private:
  ITextSource& texts_;
  IPelkaDiagnosisEvent* smtp_slow_event_ = nullptr;
  uint32_t smtp_time_parameter_ = 0;
  IPelkaDiagnosisEvent* smtp_dubious_event_ = nullptr;
  IPelkaDiagnosisEvent* smtp_error_event_ = nullptr;
  IPelkaDiagnosisEvent* pop3_slow_event_ = nullptr;
  uint32_t pop3_time_parameter_ = 0;
  IPelkaDiagnosisEvent* pop3_dubious_event_ = nullptr;
  IPelkaDiagnosisEvent* pop3_error_event_ = nullptr;
};

}  // namespace pelka
