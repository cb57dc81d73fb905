// The three conversation parsers and the finishing steps they share.
//
// Each handler takes one packet of its flow and returns 0 to go on, or 1 when
// it has finished with the flow (the flow limit was reached, or a POP3
// retrieval was refused).
#pragma once

#include <cstdint>

#include "flow/EmailFlowContext.h"
#include "flow/EmailFlowData.h"
#include "flow/EmailSessionHost.h"
#include "host/FlowInterfaces.h"
#include "mail/MessageFields.h"

namespace pelka {

// Which receiver fields make a message worth recording: a To or Envelope-To
// address, or (at an SMTP end marker only) also a Cc address.
enum class ReceiverTest { kToOrCc, kToOnly };

struct PacketArgs {
  const PacketRecord* packet;
  IPelkaFlow* flow;
  IPelkaFlowNode* node;
  uint32_t direction;
  const uint8_t* payload;
  uint32_t length;
};

uint32_t HandleSmtpData(CEmailSessionHost& module, CEmailFlowDataImpl& data, CEmailFlowContext& context,
                        const PacketArgs& args);
uint32_t HandlePop3Data(CEmailSessionHost& module, CEmailFlowDataImpl& data, CEmailFlowContext& context,
                        const PacketArgs& args);
uint32_t HandleImapData(CEmailSessionHost& module, CEmailFlowDataImpl& data, CEmailFlowContext& context,
                        const PacketArgs& args);

// Client packet parsers of POP3 and IMAP4.
void ParsePop3Command(CEmailFlowContext& context, const uint8_t* payload, uint32_t length);
void ParseImapCommand(CEmailFlowContext& context, const uint8_t* payload, uint32_t length);

// True for a bare POP3 "-ERR" status line: it begins with "-ERR" (letter case
// ignored) and its first CR LF lies before offset 6. An error line that
// carries a message does not qualify. Reads at most `length` bytes; a null
// payload counts as an empty one.
bool IsPop3ErrorReply(const uint8_t* payload, uint32_t length);
// The same test; points the context's section at the payload.
bool IsPop3ErrorReply(CEmailFlowContext& context, const uint8_t* payload, uint32_t length);

// IMAP4: whether the fetch tag followed by " OK" occurs in the collected
// response, read as text up to its first zero byte and searched character by
// character in the ANSI code page. Only bytes added since the last question
// are read.
bool IsFetchComplete(CEmailFlowContext& context);

// IMAP4: cuts the collected response into its literals and records each one.
void SplitFetchResponse(CEmailSessionHost& module, CEmailFlowContext& context, const PacketArgs& args);

// IMAP4: records one fetched message through a temporary context that shares
// the session's first packet time and login name.
void RecordFetchedMessage(CEmailSessionHost& module, const uint8_t* message, uint32_t length,
                          const CEmailFlowContext& session, const PacketArgs& args);

// Whether the collected message holds the end marker CR LF "." CR LF. The
// answer is that of a search over the whole collection; only the bytes added
// since the last question (and the four before them) are read.
bool IsMessageComplete(const CEmailSessionHost& module, CEmailFlowContext& context);

// Fills the context's message fields from its collected bytes.
void ExtractMessageFields(CEmailFlowContext& context, MailProtocol protocol);

// Once the collected message has passed the flow limit, the packet that finds
// it so is neither parsed nor collected: the message is finished as it is
// (only To and Envelope-To count as receivers) and the flow is done.
// FinishedAtFlowLimit answers true then.
void FinishAtFlowLimit(CEmailSessionHost& module, CEmailFlowContext& context, const PacketArgs& args,
                       MailProtocol protocol);
// Asked for every packet, so the test itself is inline.
inline bool FinishedAtFlowLimit(CEmailSessionHost& module, CEmailFlowDataImpl& data, CEmailFlowContext& context,
                                const PacketArgs& args, MailProtocol protocol) {
  // Equal is still within the limit.
  if (data.GetLength() <= module.max_flow_length()) return false;
  FinishAtFlowLimit(module, context, args, protocol);
  return true;
}

// True when the text is not empty and contains "@".
bool HasMailAddress(const std::wstring& text);

// Extracts the headers, records the message when it has a sender and a
// receiver address (copy first, then the record) and empties the context for
// the next message.
void CompleteMessage(CEmailSessionHost& module, CEmailFlowContext& context, const PacketArgs& args,
                     MailProtocol protocol, ReceiverTest receiver_test);

// SMTP and POP3: appends one packet of a message body and finishes the
// message when the end marker has arrived.
void CollectMessagePacket(CEmailSessionHost& module, CEmailFlowDataImpl& data, CEmailFlowContext& context,
                          const PacketArgs& args, MailProtocol protocol, ReceiverTest receiver_test);

// The address test of the finishing step.
bool QualifiesForRecord(const CEmailFlowContext& context, ReceiverTest receiver_test);

}  // namespace pelka
