// The POP3 conversation: USER names and RETR replies up to the end marker or
// the flow limit.
#include <algorithm>
#include <string_view>

#include "flow/EmailFlowData.h"
#include "flow/SessionHandlers.h"
#include "host/AsciiText.h"
#include "host/CodePage.h"
#include "host/Types.h"

namespace pelka {
namespace {

// Commands that end a retrieval, tested in this order after RETR and USER.
constexpr std::string_view kEndingCommands[] = {"AUTH", "APOP", "DELE", "LIST", "NOOP", "PASS",
                                                "QUIT", "RSET", "STAT", "TOP",  "UIDL"};

constexpr uint32_t kShortestStatusLine = 4;
// An error line's CR LF must start at or before this offset.
constexpr int64_t kLastErrorLineEnd = 5;

}  // namespace

void ParsePop3Command(CEmailFlowContext& context, const uint8_t* payload, uint32_t length) {
  if (length < 4) return;
  context.section.Set(payload, length);
  const int32_t line_end = context.section.Find(kLineEnd, kLineEndLength);
  if (line_end < 4) return;
  if (StartsWithNoCase(payload, length, "RETR")) {
    context.in_body = 1;
    return;
  }
  if (StartsWithNoCase(payload, length, "USER")) {
    context.in_body = 0;
    const auto* name = reinterpret_cast<const char*>(payload) + 5;
    context.account = line_end > 5 ? AnsiToWide(std::string_view(name, static_cast<size_t>(line_end - 5))) : L"";
    return;
  }
  for (std::string_view command : kEndingCommands) {
    if (StartsWithNoCase(payload, length, command)) {
      // The bytes of an unfinished retrieval stay collected.
      context.in_body = 0;
      return;
    }
  }
}

bool IsPop3ErrorReply(const uint8_t* payload, uint32_t length) {
  if (!payload || length < kShortestStatusLine) return false;
  if (!StartsWithNoCase(payload, length, "-ERR")) return false;
  // Only a line end early enough counts, so a body packet is not searched
  // past its first bytes.
  const int64_t line_end = FindLineEnd(payload, std::min<uint32_t>(length, kLastErrorLineEnd + 2));
  return line_end >= 0 && line_end <= kLastErrorLineEnd;
}

bool IsPop3ErrorReply(CEmailFlowContext& context, const uint8_t* payload, uint32_t length) {
  context.section.Set(payload, length);
  return IsPop3ErrorReply(payload, length);
}

uint32_t HandlePop3Data(CEmailSessionHost& module, CEmailFlowDataImpl& data, CEmailFlowContext& context,
                        const PacketArgs& args) {
  if (FinishedAtFlowLimit(module, data, context, args, MailProtocol::kPop3)) return 1;
  if (args.direction == kFromClient) {
    ParsePop3Command(context, args.payload, args.length);
    return 0;
  }
  if (!context.in_body) return 0;
  if (context.reply_seen == 0) {
    // Only the first server packet of a retrieval carries its status line.
    if (IsPop3ErrorReply(context, args.payload, args.length)) return 1;
    context.reply_seen = 1;
  }
  CollectMessagePacket(module, data, context, args, MailProtocol::kPop3, ReceiverTest::kToOnly);
  return 0;
}

}  // namespace pelka
