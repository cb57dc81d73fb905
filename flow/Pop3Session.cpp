// The POP3 conversation: USER names and RETR replies up to the end marker or
// the flow limit.
#include <strings.h>

#include <string_view>

#include "diagnosis/ResponseChecks.h"
#include "flow/EmailFlowData.h"
#include "flow/SessionHandlers.h"
#include "host/CodePage.h"
#include "module/EmailModule.h"

namespace pelka {
namespace {

constexpr char kLineEnd[] = "\r\n";

// Commands that end a retrieval, tested in this order after RETR and USER.
constexpr std::string_view kEndingCommands[] = {"AUTH", "APOP", "DELE", "LIST", "NOOP", "PASS",
                                                "QUIT", "RSET", "STAT", "TOP",  "UIDL"};

bool StartsWithNoCase(const uint8_t* payload, uint32_t length, std::string_view word) {
  return length >= word.size() && strncasecmp(reinterpret_cast<const char*>(payload), word.data(), word.size()) == 0;
}

}  // namespace

void ParsePop3Command(CEmailFlowContext& context, const uint8_t* payload, uint32_t length) {
  if (length < 4) return;
  context.section.Set(payload, length);
  const int32_t line_end = context.section.Find(kLineEnd, 2);
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

bool IsPop3ErrorReply(CEmailFlowContext& context, const uint8_t* payload, uint32_t length) {
  context.section.Set(payload, length);
  return IsPop3ErrorReply(payload, length);
}

uint32_t HandlePop3Data(CPelkaEmailModule& module, CEmailFlowDataImpl& data, CEmailFlowContext& context,
                        const PacketArgs& args) {
  if (data.GetLength() > module.max_flow_length()) {
    context.body_end_time = GetPacketTime(args.packet);
    CompleteMessage(module, context, args, kExtractPop3, ReceiverTest::kShort);
    return 1;
  }
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
  CollectMessagePacket(module, data, context, args, kExtractPop3, ReceiverTest::kShort);
  return 0;
}

}  // namespace pelka
