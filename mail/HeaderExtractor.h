// Takes the header fields and attachment names out of a collected message.
#pragma once

#include "host/FlowData.h"
#include "mail/MessageFields.h"
#include "mail/NameAddress.h"

namespace pelka {

// Fills the message fields, size, duration and speed from the bytes of
// `message`. A POP3 message still starts with the reply's status line, which
// is dropped from the store first. The first header that supplies a field
// wins; fields already filled stay.
void ExtractMailHeaders(CPAEFlowData& message, const SplitScratch& scratch, MessageFields& fields,
                        MailProtocol protocol);

}  // namespace pelka
