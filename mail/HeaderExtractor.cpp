#include "mail/HeaderExtractor.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "host/AsciiText.h"
#include "host/CodePage.h"
#include "mail/EncodedWords.h"
#include "mail/NameAddress.h"

namespace pelka {
namespace {

using namespace std::string_view_literals;

constexpr std::string_view kAttachmentMarker = "Content-Disposition: attachment"sv;
constexpr std::string_view kPartHeaderEnd = "\r\n\r\n"sv;
constexpr std::wstring_view kFileNameStart = L"filename=\""sv;

enum class Field { kFrom, kReturnPath, kEnvelopeTo, kTo, kCc, kSubject, kDate, kMailer, kOther };

// The names are compared on their raw bytes: every code page a capture can
// be read in keeps ASCII as it is, and no multi-byte character turns into
// ASCII letters, so this answers as comparing the converted names would,
// without converting the many names that match none.
Field FieldOf(std::string_view name) {
  constexpr std::pair<std::string_view, Field> kNames[] = {
      {"FROM", Field::kFrom},       {"RETURN-PATH", Field::kReturnPath}, {"ENVELOPE-TO", Field::kEnvelopeTo},
      {"TO", Field::kTo},           {"CC", Field::kCc},                  {"SUBJECT", Field::kSubject},
      {"DATE", Field::kDate},       {"X-MAILER", Field::kMailer}};
  for (const auto& [upper, field] : kNames) {
    if (EqualsNoCase(name, upper)) return field;
  }
  return Field::kOther;
}

// True when a header of this kind has nothing left to fill: the first header
// that supplies a value wins. Unrecognised names count as filled.
bool IsFilled(const MessageFields& c, Field field) {
  switch (field) {
    case Field::kFrom: return !c.sender_name.empty() && !c.sender_address.empty();
    case Field::kTo: return !c.receiver_name.empty() && !c.receiver_address.empty();
    case Field::kReturnPath: return !c.return_path.empty();
    case Field::kEnvelopeTo: return !c.envelope_to.empty();
    case Field::kCc: return !c.cc.empty();
    case Field::kSubject: return !c.subject.empty();
    case Field::kDate: return !c.sent_time.empty();
    case Field::kMailer: return !c.mailer.empty();
    case Field::kOther: return true;
  }
  return true;
}

// Buffers one extraction reuses from field to field.
struct Scratch {
  std::wstring value;
  std::wstring name;
  std::wstring address;
  std::wstring decoded;
  std::string bytes;
};

// ASCII text without "=?": every encoded-word prefix starts with it, and
// ASCII goes to bytes and back unchanged in every code page.
bool IsPlainAscii(std::wstring_view text) {
  for (const wchar_t c : text) {
    if (c < 0 || c >= 0x80) return false;
  }
  return text.find(L"=?") == std::wstring_view::npos;
}

// The text's multi-byte form (the ANSI code page) through the encoded-word
// decoder, into `out`, which is emptied first. Plain ASCII gets what the
// decoder does to any text without words, without the round trip: the text
// ends at its first zero and each CR LF becomes one blank.
void DecodeInto(std::wstring_view text, std::wstring& out, std::string& bytes) {
  out.clear();
  if (!IsPlainAscii(text)) {
    WideToMultiByte(kCodePageThreadAnsi, text, bytes);
    DecodeEncodedWords(bytes, out);
    return;
  }
  text = text.substr(0, text.find(L'\0'));
  size_t start = 0;
  for (size_t at = text.find(L"\r\n"); at != std::wstring_view::npos; at = text.find(L"\r\n", start)) {
    out.append(text.substr(start, at - start)).append(1, L' ');
    start = at + 2;
  }
  out.append(text.substr(start));
}

// Fills the field from the split value. Every field but From's and To's two
// is empty here (IsFilled), and those two are only filled while empty.
void FillField(MessageFields& c, Field field, Scratch& s) {
  const std::wstring& name = s.name;
  const std::wstring& address = s.address;
  switch (field) {
    case Field::kFrom:
      if (c.sender_name.empty()) DecodeInto(name, c.sender_name, s.bytes);
      if (c.sender_address.empty()) DecodeInto(address, c.sender_address, s.bytes);
      return;
    case Field::kTo:
      if (c.receiver_name.empty()) DecodeInto(name, c.receiver_name, s.bytes);
      if (c.receiver_address.empty()) DecodeInto(address, c.receiver_address, s.bytes);
      return;
    case Field::kCc:
      if (name.empty()) {
        DecodeInto(address, c.cc, s.bytes);
        return;
      }
      DecodeInto(name, s.decoded, s.bytes);
      c.cc.assign(L"\"").append(s.decoded).append(L"\"<");
      DecodeInto(address, s.decoded, s.bytes);
      c.cc.append(s.decoded).append(L">");
      return;
    case Field::kReturnPath: DecodeInto(address, c.return_path, s.bytes); return;
    case Field::kEnvelopeTo: DecodeInto(address, c.envelope_to, s.bytes); return;
    case Field::kSubject: DecodeInto(address, c.subject, s.bytes); return;
    case Field::kDate: c.sent_time = address; return;
    case Field::kMailer: c.mailer = address; return;
    case Field::kOther: return;
  }
}

void ExtractHeaderField(const SplitScratch& split, MessageFields& fields, CPAEFlowData& data, uint32_t index,
                        Scratch& scratch) {
  const char* raw_name = data.GetHeaderName(index);
  if (!raw_name) return;
  const Field field = FieldOf(raw_name);
  if (IsFilled(fields, field)) return;
  // The name's copy is gone once the value is asked for.
  const char* raw_value = data.GetHeaderValue(index);
  if (!raw_value) return;
  MultiByteToWide(kCodePageThreadAnsi, raw_value, scratch.value);
  scratch.name.clear();
  scratch.address.clear();
  SplitNameAndAddress(split, scratch.value, scratch.name, scratch.address);
  FillField(fields, field, scratch);
}

void MeasureMessage(MessageFields& fields, CPAEFlowData& data) {
  fields.message_size = data.GetLength();
  if (fields.body_end_time != 0) {
    const uint64_t start = fields.body_start_time;
    const uint64_t end = fields.body_end_time;
    const auto elapsed = static_cast<double>(end > start ? end - start : start - end);
    fields.duration = elapsed / static_cast<double>(kMicrosecondsPerSecond);
  }
  fields.average_speed =
      fields.duration != 0.0 ? static_cast<double>(fields.message_size) / fields.duration : 0.0;
}

// The quoted file name of one attachment's part header, split like a header
// value so that GB2312/GBK encoded names come out decoded.
void RecordAttachment(const SplitScratch& split, MessageFields& fields, std::wstring_view part_header) {
  const size_t start = part_header.find(kFileNameStart);
  if (start == std::wstring_view::npos) return;
  std::wstring_view file_name = part_header.substr(start + kFileNameStart.size());
  file_name = file_name.substr(0, file_name.find(L'"'));
  std::wstring name;
  std::wstring address;
  SplitNameAndAddress(split, file_name, name, address);
  fields.attachments += address;
  fields.attachments += L';';
}

// Every "Content-Disposition: attachment" in the whole message, matched
// exactly; the part header runs to the next empty line. The scan only moves
// forward.
void ScanAttachments(const SplitScratch& split, MessageFields& fields, CPAEFlowData& data) {
  const uint32_t size = data.GetLength();
  const auto* marker = reinterpret_cast<const uint8_t*>(kAttachmentMarker.data());
  const auto* part_end = reinterpret_cast<const uint8_t*>(kPartHeaderEnd.data());
  uint32_t position = 0;
  while (position < size) {
    const uint32_t found = data.FindBytes(position, marker, static_cast<int32_t>(kAttachmentMarker.size()), -1);
    if (found == kNotFound) return;
    uint32_t end = data.FindBytes(found, part_end, static_cast<int32_t>(kPartHeaderEnd.size()), -1);
    if (end == kNotFound) end = size;
    const uint32_t header_start = found + static_cast<uint32_t>(kAttachmentMarker.size());
    const char* part_header = data.GetStringA(header_start, static_cast<int32_t>(end - header_start));
    if (part_header) RecordAttachment(split, fields, AnsiToWide(part_header));
    position = end == size ? end : end + static_cast<uint32_t>(kPartHeaderEnd.size());
  }
}

}  // namespace

void ExtractMailHeaders(CPAEFlowData& data, const SplitScratch& split, MessageFields& fields, MailProtocol protocol) {
  if (protocol == MailProtocol::kPop3) {
    // The reply's status line; data without any line end is all status line.
    const uint32_t line = data.GetLineLength(1, 0, -1);
    data.Consume(line == kNotFound ? data.GetLength() : line);
  }
  MeasureMessage(fields, data);
  if (fields.message_size == 0) return;

  data.IndexHeader(0, -1, nullptr);
  const uint32_t count = data.GetHeaderCount();
  Scratch scratch;
  for (uint32_t i = 0; i < count; ++i) ExtractHeaderField(split, fields, data, i, scratch);
  ScanAttachments(split, fields, data);
}

}  // namespace pelka
