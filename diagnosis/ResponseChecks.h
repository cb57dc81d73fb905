// Per-packet tests behind the diagnosis checks of SMTP and POP3 flows.
//
// A client packet counts as a command when its first line starts with one of
// the mail command words; a server packet counts as a reply when it starts
// with a status ("+OK", "-ERR" or a code from 1 to 599) followed by a space
// within its first five characters. The checks that report on the diagnosis
// events are CDiagnosisChecks (diagnosis/DiagnosisChecks.h); the bare POP3
// "-ERR" test is the POP3 parser's IsPop3ErrorReply (flow/SessionHandlers.h).
//
// Every test reads at most `length` bytes of `payload`; a null payload counts
// as an empty one.
#pragma once

#include <cstdint>
#include <string>

#include "flow/EmailFlowContext.h"
#include "host/PacketRecord.h"
#include "host/TextSource.h"

namespace pelka {

// True when the payload begins with a command word (letter case ignored) and
// holds a CR LF at offset 4 or later. A command split over packets, or
// shorter than four characters, is not recognised.
bool IsClientCommand(const uint8_t* payload, uint32_t length);

// True when the payload's first space lies within its first five characters
// and it begins with "-ERR", "+OK" (letter case ignored) or a decimal number
// from 1 to 599. A continuation line of a multi-line reply ("250-...") is not
// a reply.
bool IsServerReply(const uint8_t* payload, uint32_t length);

// The decimal number at the start of the payload: leading white space and a
// sign are accepted and reading stops at the first other character; 0 when
// there is no digit. Values far beyond any status code saturate.
int64_t ParseLeadingNumber(const uint8_t* payload, uint32_t length);

// Pairs client commands with server replies on the flow, and counts server
// packets that are not replies while the conversation is unconfirmed.
// A client command ends the probation and, when no request is pending, becomes
// the pending request. A server reply closes the pending request; when more
// than `threshold_ms` milliseconds passed since it, the slow-response text is
// written into `text` (from `texts`) and the request's packet number is
// returned. Otherwise 0.
uint64_t MeasureResponse(ITextSource& texts, CEmailFlowContext& context, const PacketRecord* packet, uint32_t direction,
                         const uint8_t* payload, uint32_t length, int32_t threshold_ms, std::wstring& text);

}  // namespace pelka
