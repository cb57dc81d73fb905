// The IMAP4 conversation: LOGIN names and UID FETCH BODY.PEEK responses, cut
// into their literal messages once the tagged completion arrives.
#include <cctype>
#include <cstring>
#include <string>
#include <string_view>

#include "flow/ByteSearch.h"
#include "flow/EmailFlowData.h"
#include "flow/SessionHandlers.h"
#include "host/AsciiText.h"
#include "host/CodePage.h"
#include "host/Types.h"

namespace pelka {
namespace {

constexpr std::string_view kFetchKeyword = "Fetch (uid";

// Length of the collected response read as text: up to its first zero byte.
uint32_t TextLength(const uint8_t* bytes, uint32_t length) {
  const void* zero = std::memchr(bytes, 0, length);
  return zero ? static_cast<uint32_t>(static_cast<const uint8_t*>(zero) - bytes) : length;
}

const uint8_t* FindNoCase(const uint8_t* text, const uint8_t* end, std::string_view needle) {
  for (const uint8_t* p = text; end - p >= static_cast<ptrdiff_t>(needle.size()); ++p) {
    if (StartsWithNoCase(p, needle.size(), needle)) return p;
  }
  return nullptr;
}

// The literal's length between its braces, read as a decimal number after
// optional blanks and sign. A negative or huge number stands for "longer than
// any text": the caller cuts it to what is there.
uint64_t ParseLiteralLength(const uint8_t* p, const uint8_t* end) {
  while (p < end && std::isspace(*p)) ++p;
  bool negative = false;
  if (p < end && (*p == '+' || *p == '-')) negative = *p++ == '-';
  uint64_t value = 0;
  for (; p < end && std::isdigit(*p); ++p) {
    value = value * 10 + static_cast<uint64_t>(*p - '0');
    if (value > UINT32_MAX) return UINT64_MAX;
  }
  return negative && value > 0 ? UINT64_MAX : value;
}

void UpperCaseAscii(std::wstring& text) {
  for (wchar_t& c : text) c = ToUpperAscii(c);
}

}  // namespace

void ParseImapCommand(CEmailFlowContext& context, const uint8_t* payload, uint32_t length) {
  if (length < 3) return;
  const auto* text = reinterpret_cast<const char*>(payload);
  const std::wstring line = AnsiToWide(std::string_view(text, TextLength(payload, length)));
  if (line.find(L"\r\n") == std::wstring::npos) return;
  std::wstring upper = line;
  UpperCaseAscii(upper);

  if (const size_t login = upper.find(L"LOGIN"); login != std::wstring::npos) {
    const size_t name_start = login + 6;
    const size_t blank = name_start <= line.size() ? line.find(L' ', name_start) : std::wstring::npos;
    context.account = blank == std::wstring::npos ? L"" : line.substr(name_start, blank - name_start);
    context.in_body = 0;
    return;
  }
  const size_t fetch = upper.find(L"UID FETCH");
  if (fetch == std::wstring::npos || fetch + 10 > upper.size()) return;
  if (upper.find(L"BODY.PEEK", fetch + 10) == std::wstring::npos) return;
  context.in_body = 1;
  context.fetch_tag = WideToAnsi(line.substr(0, fetch > 0 ? fetch - 1 : 0));
  // The completion marker changed: the collected bytes are searched anew.
  context.end_search.fetch_scan_position = 0;
  context.end_search.fetch_marker.clear();
}

// Whether a match may start at `position`: in a double-byte code page the
// position must begin a character. Every byte below the lead range ends a
// character, so the characters before `position` are settled by the run of
// lead-range bytes right before it: an odd run leaves `position` on a second
// byte.
bool StartsACharacter(unsigned code_page, const uint8_t* text, uint64_t position) {
  uint64_t run = 0;
  while (run < position && IsLeadByte(code_page, text[position - run - 1])) ++run;
  return run % 2 == 0;
}

bool IsFetchComplete(CEmailFlowContext& context) {
  CEmailFlowDataImpl& data = *context.flow_data;
  const uint32_t total = data.GetLength();
  if (total == 0) return false;
  EndSearchProgress& progress = context.end_search;
  if (progress.zero_free_length > total) progress = EndSearchProgress{};

  if (!progress.fetch_text_ended && progress.zero_free_length < total) {
    const uint32_t from = static_cast<uint32_t>(progress.zero_free_length);
    const uint8_t* fresh = data.GetBuffer(from, total - from);
    if (!fresh) return false;
    const uint32_t visible = TextLength(fresh, total - from);
    progress.zero_free_length = from + visible;
    progress.fetch_text_ended = visible < total - from;
  }
  const uint64_t text_length = progress.zero_free_length;
  if (progress.fetch_marker.empty()) progress.fetch_marker = context.fetch_tag + " OK";
  const std::string& marker = progress.fetch_marker;
  const uint8_t* text = text_length ? data.GetBuffer(0, static_cast<uint32_t>(text_length)) : nullptr;
  if (!text || text_length < marker.size()) return false;

  // Every match that starts before the scan position was refused earlier, and
  // a later one needs bytes that had not arrived yet.
  const unsigned code_page = GetAnsiCodePage();
  uint64_t position = progress.fetch_scan_position;
  while (position + marker.size() <= text_length) {
    const uint8_t* found = FindSequence(text + position, text_length - position,
                                        reinterpret_cast<const uint8_t*>(marker.data()), marker.size());
    if (!found) break;
    const uint64_t at = found - text;
    if (StartsACharacter(code_page, text, at)) return true;
    position = at + 1;
  }
  progress.fetch_scan_position = text_length - marker.size() + 1;
  return false;
}

void RecordFetchedMessage(CEmailSessionHost& module, const uint8_t* message, uint32_t length,
                          const CEmailFlowContext& session, const PacketArgs& args) {
  CEmailFlowContext fetched(&module, args.flow);
  if (!fetched.flow_data) return;
  fetched.first_packet_time = session.first_packet_time;
  // The literal stays where it is: staged bytes read like committed ones, and
  // the context ends before the response's bytes do.
  fetched.flow_data->Append(message, length);
  ExtractMessageFields(fetched, MailProtocol::kImap4);
  if (!session.account.empty()) fetched.account = session.account;
  if (!QualifiesForRecord(fetched, ReceiverTest::kToOnly)) return;
  module.SaveEmailCopy(&fetched, args.packet);
  module.PostEmailRecord(args.flow, fetched, args.node);
}

void SplitFetchResponse(CEmailSessionHost& module, CEmailFlowContext& context, const PacketArgs& args) {
  CEmailFlowDataImpl& data = *context.flow_data;
  const uint32_t total = data.GetLength();
  const uint8_t* bytes = total ? data.GetBuffer(0, total) : nullptr;
  if (!bytes) return;
  const uint8_t* remaining = bytes;
  // The completion test has usually measured the text already.
  const EndSearchProgress& progress = context.end_search;
  const bool measured = progress.zero_free_length == total ||
                        (progress.fetch_text_ended && progress.zero_free_length < total);
  const uint8_t* end = bytes + (measured ? static_cast<uint32_t>(progress.zero_free_length) : TextLength(bytes, total));
  // The keyword only decides whether to go on; the braces are searched from
  // the start of what remains.
  while (FindNoCase(remaining, end, kFetchKeyword)) {
    const uint8_t* open = FindByte(remaining, end, '{');
    const uint8_t* close = FindByte(remaining, end, '}');
    if (!open || !close) return;
    const uint64_t declared = ParseLiteralLength(open + 1, end);
    const uint64_t available = end - close > 3 ? static_cast<uint64_t>(end - close - 3) : 0;
    const uint8_t* literal = close + 3 < end ? close + 3 : end;
    const uint64_t literal_length = declared < available ? declared : available;
    RecordFetchedMessage(module, literal, static_cast<uint32_t>(literal_length), context, args);
    if (static_cast<uint64_t>(end - literal) <= literal_length + 2) return;
    remaining = literal + literal_length + 2;
  }
}

uint32_t HandleImapData(CEmailSessionHost& module, CEmailFlowDataImpl& data, CEmailFlowContext& context,
                        const PacketArgs& args) {
  // At the flow limit the whole raw response, FETCH lines included, is taken
  // as one message.
  if (FinishedAtFlowLimit(module, data, context, args, MailProtocol::kImap4)) return 1;
  if (args.direction == kFromClient) {
    ParseImapCommand(context, args.payload, args.length);
    return 0;
  }
  if (!context.in_body) return 0;
  if (context.body_start_time == 0) context.body_start_time = GetPacketTime(args.packet);
  data.Append(args.payload, args.length);
  data.Commit();
  if (IsFetchComplete(context)) {
    SplitFetchResponse(module, context, args);
    context.in_body = 0;
    context.DiscardCollectedBytes();
    context.ResetMessage();
  }
  return 0;
}

}  // namespace pelka
