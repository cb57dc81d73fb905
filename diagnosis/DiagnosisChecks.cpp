#include "diagnosis/DiagnosisChecks.h"

#include "diagnosis/ResponseChecks.h"
#include "flow/SessionHandlers.h"
#include "host/DiagnosisInterfaces.h"
#include "host/Types.h"

namespace pelka {
namespace {

constexpr uint32_t kMinimumLineLength = 4;
// Server packets that are not replies, before any client command, that make
// a conversation dubious.
constexpr uint32_t kDubiousLimit = 4;
// SMTP reply codes that report a server error.
constexpr int64_t kFirstErrorCode = 400;
constexpr int64_t kLastErrorCode = 599;

}  // namespace

void CDiagnosisChecks::CheckSlowResponse(CEmailFlowContext& context, const PacketRecord* packet, uint32_t direction,
                                         const uint8_t* payload, uint32_t length, IPelkaFlowNode* node,
                                         MailProtocol protocol) {
  if (protocol == MailProtocol::kImap4) return;
  const bool smtp = protocol == MailProtocol::kSmtp;
  IPelkaDiagnosisEvent* event = smtp ? smtp_slow_event_ : pop3_slow_event_;
  if (!event || !event->IsEnabled()) return;
  // Read afresh for every packet, so that a change by the user applies at once.
  int32_t threshold_ms = 0;
  if (!event->GetParameterValue(smtp ? smtp_time_parameter_ : pop3_time_parameter_, &threshold_ms)) return;

  std::wstring slow_text;
  const uint64_t request_packet =
      MeasureResponse(texts_, context, packet, direction, payload, length, threshold_ms, slow_text);
  if (request_packet == 0) return;

  std::wstring text;
  if (smtp) {
    texts_.GetString(text, L"IDS_SMTP_SLOW_RESP", L"SMTP Server  Slow Response");
  } else {
    texts_.GetString(text, L"IDS_POP3_SLOW_RESP", L"POP3 服务器慢响应");
  }
  text += slow_text;
  event->Report(node, text.c_str(), 1, 1, packet, request_packet);
}

void CDiagnosisChecks::CheckDubiousConversation(CEmailFlowContext& context, const PacketRecord* packet,
                                                uint32_t direction, const uint8_t* payload, uint32_t length,
                                                IPelkaFlowNode* node, MailProtocol protocol) {
  if (protocol == MailProtocol::kImap4) return;
  const bool smtp = protocol == MailProtocol::kSmtp;
  IPelkaDiagnosisEvent* event = smtp ? smtp_dubious_event_ : pop3_dubious_event_;
  if (!event || !event->IsEnabled()) return;
  if (!payload) length = 0;

  // Without the slow-response check, nobody has looked at this packet yet.
  IPelkaDiagnosisEvent* slow_event = smtp ? smtp_slow_event_ : pop3_slow_event_;
  if ((!slow_event || !slow_event->IsEnabled()) && context.conversation_unconfirmed != 0 && length != 0) {
    if (direction == kFromClient) {
      if (IsClientCommand(payload, length)) {
        context.conversation_unconfirmed = 0;
        context.dubious_count = 0;
      }
    } else if (!IsServerReply(payload, length)) {
      ++context.dubious_count;
    }
  }

  if (context.dubious_count < kDubiousLimit || context.conversation_unconfirmed == 0) return;
  std::wstring text;
  std::wstring number_text;
  if (smtp) {
    texts_.GetString(text, L"IDS_SMTP_NO", L"可疑的SMTP会话");
  } else {
    texts_.GetString(text, L"IDS_POP3_NO", L"可疑的POP3会话");
  }
  texts_.GetString(number_text, L"IDS_PACKET_NUMBER", L" (数据包序号 [%I64u_NUM%])", GetPacketNumber(packet));
  text += number_text;
  event->Report(node, text.c_str(), 1, 1, packet, 0);
  // Reported at most once per flow.
  context.conversation_unconfirmed = 0;
  context.dubious_count = 0;
  if (node && node->GetMark() == 0) node->SetMark(1);
}

void CDiagnosisChecks::CheckSmtpServerError(const uint8_t* payload, uint32_t length, const PacketRecord* packet,
                                            IPelkaFlowNode* node) {
  if (!smtp_error_event_ || !smtp_error_event_->IsEnabled()) return;
  if (!payload || length < kMinimumLineLength) return;
  const int64_t code = ParseLeadingNumber(payload, length);
  if (code < kFirstErrorCode || code > kLastErrorCode) return;
  // The default text names POP3 for SMTP too; translations may correct it.
  std::wstring text;
  texts_.GetString(text, L"IDS_SMTP_RETURN_ERROR_PKT", L"POP3 Server Returned Error(See Packet %I64u_PKTN%)",
                   GetPacketNumber(packet));
  smtp_error_event_->Report(node, text.c_str(), 0, 1, packet, 0);
}

void CDiagnosisChecks::CheckPop3ServerError(const uint8_t* payload, uint32_t length, const PacketRecord* packet,
                                            IPelkaFlowNode* node) {
  if (!pop3_error_event_ || !pop3_error_event_->IsEnabled()) return;
  if (!IsPop3ErrorReply(payload, length)) return;
  std::wstring text;
  texts_.GetString(text, L"IDS_POP3_RETURN_ERROR_PKT", L"POP3 Server Returned Error(See Packet %I64u_PKTN%)",
                   GetPacketNumber(packet));
  pop3_error_event_->Report(node, text.c_str(), 0, 1, packet, 0);
}

}  // namespace pelka
