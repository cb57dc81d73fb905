#include "diagnosis/ResponseChecks.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "host/DiagnosisInterfaces.h"
#include "host/Types.h"
#include "module/EmailModule.h"
#include "module/ResStringTable.h"

namespace pelka {
namespace {

// The one list serves SMTP and POP3 alike; every word has four letters.
constexpr std::array<std::string_view, 24> kCommandWords = {
    "AUTH", "APOP", "DELE", "DATA", "EXPN", "EHLO", "HELO", "HELP", "LIST", "MAIL", "NOOP", "PASS",
    "QUIT", "RETR", "RCPT", "RSET", "SEND", "SOML", "SAML", "STAT", "TURN", "USER", "UIDL", "VRFY"};

// Four characters, letter case ignored, as one number.
constexpr uint32_t WordKey(std::string_view word) {
  uint32_t key = 0;
  for (size_t i = 0; i < 4; ++i) {
    const auto c = static_cast<uint8_t>(word[i]);
    key = key << 8 | (c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
  }
  return key;
}

constexpr std::array<uint32_t, kCommandWords.size()> kCommandKeys = [] {
  std::array<uint32_t, kCommandWords.size()> keys{};
  for (size_t i = 0; i < keys.size(); ++i) keys[i] = WordKey(kCommandWords[i]);
  return keys;
}();

constexpr uint32_t kMinimumLineLength = 4;
// The reply code and its space must fit in the first five characters.
constexpr int64_t kLastSpaceOffset = 4;
constexpr int64_t kLastPop3ErrorLineEnd = 5;
// Server packets that are not replies, before any client command, that make
// a conversation dubious.
constexpr uint32_t kDubiousLimit = 4;

char ToUpper(uint8_t c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : static_cast<char>(c); }

// Whether the payload begins with `word` (an upper-case ASCII word), letter
// case ignored.
bool StartsWithNoCase(const uint8_t* payload, uint32_t length, std::string_view word) {
  if (length < word.size()) return false;
  for (size_t i = 0; i < word.size(); ++i) {
    if (ToUpper(payload[i]) != word[i]) return false;
  }
  return true;
}

// Index of the first occurrence of the byte, or -1.
int64_t FindByte(const uint8_t* payload, uint32_t length, uint8_t byte) {
  for (uint32_t i = 0; i < length; ++i) {
    if (payload[i] == byte) return i;
  }
  return -1;
}

// Index of the first CR LF pair, or -1.
int64_t FindLineEnd(const uint8_t* payload, uint32_t length) {
  for (uint32_t i = 0; i + 1 < length; ++i) {
    if (payload[i] == '\r' && payload[i + 1] == '\n') return i;
  }
  return -1;
}

bool IsWhiteSpace(uint8_t c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

int64_t ParseLeadingNumber(const uint8_t* payload, uint32_t length) {
  if (!payload) return 0;
  constexpr int64_t kSaturation = int64_t{1} << 40;
  uint32_t i = 0;
  while (i < length && IsWhiteSpace(payload[i])) ++i;
  bool negative = false;
  if (i < length && (payload[i] == '+' || payload[i] == '-')) {
    negative = payload[i] == '-';
    ++i;
  }
  int64_t value = 0;
  for (; i < length && payload[i] >= '0' && payload[i] <= '9'; ++i) {
    if (value < kSaturation) value = value * 10 + (payload[i] - '0');
  }
  return negative ? -value : value;
}

bool IsClientCommand(const uint8_t* payload, uint32_t length) {
  if (!payload || length < kMinimumLineLength) return false;
  // The command word is the cheap test; most packets fail it before their
  // line end is searched. Every client packet of a message body asks, so the
  // four letters are compared as one number with each word's.
  const uint32_t head = WordKey({reinterpret_cast<const char*>(payload), 4});
  if (std::find(kCommandKeys.begin(), kCommandKeys.end(), head) == kCommandKeys.end()) return false;
  return FindLineEnd(payload, length) >= static_cast<int64_t>(kMinimumLineLength);
}

bool IsServerReply(const uint8_t* payload, uint32_t length) {
  if (!payload || length < kMinimumLineLength) return false;
  // Only the first five bytes can hold the space a reply needs; a body packet
  // is not searched any further.
  const uint32_t head = std::min<uint32_t>(length, kLastSpaceOffset + 1);
  if (FindByte(payload, head, ' ') < 0) return false;
  if (StartsWithNoCase(payload, length, "-ERR") || StartsWithNoCase(payload, length, "+OK")) return true;
  const int64_t code = ParseLeadingNumber(payload, length);
  return code >= 1 && code <= 599;
}

bool IsPop3ErrorReply(const uint8_t* payload, uint32_t length) {
  if (!payload || length < kMinimumLineLength) return false;
  if (!StartsWithNoCase(payload, length, "-ERR")) return false;
  // Only a line end early enough counts, so a body packet is not searched
  // past its first bytes.
  const uint32_t head = std::min<uint32_t>(length, kLastPop3ErrorLineEnd + 2);
  const int64_t line_end = FindLineEnd(payload, head);
  return line_end >= 0 && line_end <= kLastPop3ErrorLineEnd;
}

uint64_t MeasureResponse(CEmailFlowContext& context, const PacketRecord* packet, uint32_t direction,
                         const uint8_t* payload, uint32_t length, int32_t threshold_ms, std::wstring& text) {
  if (direction == kFromClient) {
    if (!IsClientCommand(payload, length)) return 0;
    if (context.conversation_unconfirmed != 0) {
      context.conversation_unconfirmed = 0;
      context.dubious_count = 0;
    }
    // A command sent while another is pending does not replace it.
    if (context.request_packet == 0) {
      context.request_packet = GetPacketNumber(packet);
      context.request_time = GetPacketTime(packet);
    }
    return 0;
  }

  if (!IsServerReply(payload, length)) {
    // Every failing server packet counts, also those without payload.
    if (context.conversation_unconfirmed != 0) ++context.dubious_count;
    return 0;
  }
  if (context.request_packet == 0) return 0;

  const uint64_t request_packet = context.request_packet;
  const uint64_t now = GetPacketTime(packet);
  const uint64_t elapsed = now > context.request_time ? now - context.request_time : context.request_time - now;
  context.request_packet = 0;
  context.request_time = 0;
  const uint64_t milliseconds = elapsed / 1000;
  if (static_cast<int64_t>(milliseconds) <= int64_t{threshold_ms}) return 0;

  CResStringTable::Instance().GetString(text, L"IDS_SLOW_TIME", L"(数据包 [%I64u_SNUM%] 与数据包 [%I64u_DNUM%] 相隔%d_SLOW%ms)",
                                        request_packet, GetPacketNumber(packet), static_cast<int32_t>(milliseconds));
  return request_packet;
}

void CPelkaEmailModule::CheckSlowResponse(CEmailFlowContext& context, const PacketRecord* packet, uint32_t direction,
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
      MeasureResponse(context, packet, direction, payload, length, threshold_ms, slow_text);
  if (request_packet == 0) return;

  std::wstring text;
  if (smtp) {
    CResStringTable::Instance().GetString(text, L"IDS_SMTP_SLOW_RESP", L"SMTP Server  Slow Response");
  } else {
    CResStringTable::Instance().GetString(text, L"IDS_POP3_SLOW_RESP", L"POP3 服务器慢响应");
  }
  text += slow_text;
  event->Report(node, text.c_str(), 1, 1, packet, request_packet);
}

void CPelkaEmailModule::CheckDubiousConversation(CEmailFlowContext& context, const PacketRecord* packet,
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
    CResStringTable::Instance().GetString(text, L"IDS_SMTP_NO", L"可疑的SMTP会话");
  } else {
    CResStringTable::Instance().GetString(text, L"IDS_POP3_NO", L"可疑的POP3会话");
  }
  CResStringTable::Instance().GetString(number_text, L"IDS_PACKET_NUMBER", L" (数据包序号 [%I64u_NUM%])",
                                        GetPacketNumber(packet));
  text += number_text;
  event->Report(node, text.c_str(), 1, 1, packet, 0);
  // Reported at most once per flow.
  context.conversation_unconfirmed = 0;
  context.dubious_count = 0;
  if (node && node->GetMark() == 0) node->SetMark(1);
}

void CPelkaEmailModule::CheckSmtpServerError(const uint8_t* payload, uint32_t length, const PacketRecord* packet,
                                             IPelkaFlowNode* node) {
  if (!smtp_error_event_ || !smtp_error_event_->IsEnabled()) return;
  if (!payload || length < kMinimumLineLength) return;
  const int64_t code = ParseLeadingNumber(payload, length);
  if (code < 400 || code > 599) return;
  // The default text names POP3 for SMTP too; translations may correct it.
  std::wstring text;
  CResStringTable::Instance().GetString(text, L"IDS_SMTP_RETURN_ERROR_PKT",
                                        L"POP3 Server Returned Error(See Packet %I64u_PKTN%)",
                                        GetPacketNumber(packet));
  smtp_error_event_->Report(node, text.c_str(), 0, 1, packet, 0);
}

void CPelkaEmailModule::CheckPop3ServerError(const uint8_t* payload, uint32_t length, const PacketRecord* packet,
                                             IPelkaFlowNode* node) {
  if (!pop3_error_event_ || !pop3_error_event_->IsEnabled()) return;
  if (!IsPop3ErrorReply(payload, length)) return;
  std::wstring text;
  CResStringTable::Instance().GetString(text, L"IDS_POP3_RETURN_ERROR_PKT",
                                        L"POP3 Server Returned Error(See Packet %I64u_PKTN%)",
                                        GetPacketNumber(packet));
  pop3_error_event_->Report(node, text.c_str(), 0, 1, packet, 0);
}

}  // namespace pelka
