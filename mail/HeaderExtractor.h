// Takes the header fields and attachment names out of a collected message.
#pragma once

#include "flow/EmailFlowContext.h"

namespace pelka {

// Fills the context's message fields, size, duration and speed from the bytes
// collected in its flow_data. protocol: 0 SMTP, 1 POP3 (the reply's status
// line is dropped first), 2 IMAP4.
void ExtractMailHeaders(CEmailFlowContext& context, int protocol);

}  // namespace pelka
