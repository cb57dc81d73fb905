// The SMTP conversation: AUTH LOGIN names, DATA and BDAT bodies up to the end
// marker or the flow limit.
#include "flow/EmailFlowData.h"
#include "flow/SessionHandlers.h"
#include "host/AsciiText.h"
#include "host/CodePage.h"
#include "host/Types.h"

namespace pelka {
namespace {

// A client line that starts a message body: "DATA" or "BDAT" in any letter
// case, on a line of at least four characters. The command packet itself is
// not collected.
void ParseSmtpCommand(CEmailFlowContext& context, const uint8_t* payload, uint32_t length) {
  if (length < 4) return;
  context.section.Set(payload, length);
  const int32_t line_end = context.section.Find(kLineEnd, kLineEndLength);
  if (line_end < 4) return;
  if (StartsWithNoCase(payload, length, "DATA") || StartsWithNoCase(payload, length, "BDAT")) {
    context.in_body = 1;
  }
}

// Server packets are searched for the AUTH LOGIN prompts; a username prompt
// wins over a password prompt in the same packet.
void ParseSmtpReply(CEmailFlowContext& context, const uint8_t* payload, uint32_t length) {
  static constexpr const char* kUserPrompts[] = {"334 dXNlcm5hbWU6", "334 VXNlcm5hbWU6"};
  static constexpr const char* kPasswordPrompts[] = {"334 UGFzc3dvcmQ6", "334 cGFzc3dvcmQ6"};
  context.section.Set(payload, length);
  for (const char* prompt : kUserPrompts) {
    if (context.section.Find(prompt, 16) >= 0) {
      context.await_auth_user = 1;
      return;
    }
  }
  for (const char* prompt : kPasswordPrompts) {
    if (context.section.Find(prompt, 16) >= 0) {
      context.await_auth_pass = 1;
      return;
    }
  }
}

// The base64 login name, without its line end.
void TakeLoginName(CEmailFlowContext& context, const uint8_t* payload, uint32_t length) {
  if (length > 2) {
    const std::wstring encoded = AnsiToWide(std::string_view(reinterpret_cast<const char*>(payload), length - 2));
    const wchar_t* decoded = context.base64_coder.DecodeString(encoded.c_str());
    context.account = decoded ? decoded : L"";
  }
  context.await_auth_user = 0;
}

}  // namespace

uint32_t HandleSmtpData(CEmailSessionHost& module, CEmailFlowDataImpl& data, CEmailFlowContext& context,
                        const PacketArgs& args) {
  if (FinishedAtFlowLimit(module, data, context, args, MailProtocol::kSmtp)) return 1;
  if (args.direction != kFromClient) {
    ParseSmtpReply(context, args.payload, args.length);
    return 0;
  }
  if (context.in_body) {
    CollectMessagePacket(module, data, context, args, MailProtocol::kSmtp, ReceiverTest::kToOrCc);
    return 0;
  }
  if (context.await_auth_user) {
    TakeLoginName(context, args.payload, args.length);
    return 0;
  }
  if (context.await_auth_pass) {
    context.await_auth_pass = 0;  // the password is never kept
    return 0;
  }
  ParseSmtpCommand(context, args.payload, args.length);
  return 0;
}

}  // namespace pelka
