// Runs the header extractor over a random message, held in the byte store as
// the parsers leave it: committed bytes, optionally followed by a staged block.
//
// Input: one configuration byte (bits 0-1 protocol: SMTP, POP3, IMAP4;
// bits 2-3 ANSI code page; bits 4-7 where the message is cut into its two
// parts, in sixteenths), then the message.
#include <cstdint>
#include <vector>

#include "flow/EmailFlowContext.h"
#include "flow/EmailFlowData.h"
#include "flow/SessionHandlers.h"
#include "fuzz/FuzzCommon.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t configuration = data[0];
  pelka::fuzz::ChooseAnsiCodePage(configuration >> 2);

  // Exact-size copies, so that a read past either part is caught.
  const size_t length = size - 1;
  const size_t cut = length * (configuration >> 4) / 16;
  const std::vector<uint8_t> front(data + 1, data + 1 + cut);
  const std::vector<uint8_t> back(data + 1 + cut, data + size);

  pelka::CEmailFlowContext context(nullptr, nullptr);
  context.first_packet_time = 1'000'000;
  context.body_start_time = 2'000'000;
  context.body_end_time = configuration & 1 ? 2'000'000 : 5'000'000;  // a zero duration too
  context.flow_data->Append(front.data(), static_cast<uint32_t>(front.size()));
  context.flow_data->Commit();
  context.flow_data->Append(back.data(), static_cast<uint32_t>(back.size()));
  pelka::ExtractMessageFields(context, static_cast<pelka::MailProtocol>(configuration % 3));
  return 0;
}
