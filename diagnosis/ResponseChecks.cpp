#include "diagnosis/ResponseChecks.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "host/AsciiText.h"
#include "host/Types.h"

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
    key = key << 8 | ToUpperAscii(c);
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
  if (std::find(payload, payload + head, ' ') == payload + head) return false;
  if (StartsWithNoCase(payload, length, "-ERR") || StartsWithNoCase(payload, length, "+OK")) return true;
  const int64_t code = ParseLeadingNumber(payload, length);
  return code >= 1 && code <= 599;
}

uint64_t MeasureResponse(ITextSource& texts, CEmailFlowContext& context, const PacketRecord* packet, uint32_t direction,
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

  texts.GetString(text, L"IDS_SLOW_TIME", L"(数据包 [%I64u_SNUM%] 与数据包 [%I64u_DNUM%] 相隔%d_SLOW%ms)", request_packet,
                  GetPacketNumber(packet), static_cast<int32_t>(milliseconds));
  return request_packet;
}

}  // namespace pelka
