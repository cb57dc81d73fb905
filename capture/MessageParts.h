// The attachments of one message: its MIME structure parsed (GMime), and
// each attachment and inline part that is not text taken out, decoded from
// its transfer encoding (base64, quoted-printable, uuencode).
//
// Parts of messages sent inside the message (message/rfc822, also when
// given a transfer encoding) are taken too, in document order; such a
// message that names a file (an attached "note.txt" that is a message) is
// taken itself as well, before its parts, as sent (decoded from its
// transfer encoding).
//
// This reads the message independently of the module's own header scan,
// which stays what the records hold; here names given with RFC 2231
// (`filename*=`, continuations, charsets) and RFC 2047 encoded words are
// decoded too.
//
// Bad input never crashes or stalls: nesting deeper than `max_depth`, parts
// beyond `max_parts` and parts that would take the decoded bytes beyond
// `max_bytes` are left out and counted in the result, as are parts whose
// content cannot be decoded. Base64 that is cut short or carries bytes that
// are not base64 is kept as far as it decodes, and counted as malformed: the
// file is then not the one that was sent.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace pelka {

struct PartLimits {
  uint32_t max_depth = 32;               // multipart and message/rfc822 levels
  uint32_t max_parts = 1000;             // MIME parts looked at per message
  uint64_t max_bytes = 64ull << 20;      // decoded bytes kept per message
};

struct MessagePart {
  uint32_t index = 0;         // 1 for the first part taken out of the message, in document order
  std::string file_name;      // UTF-8, decoded; empty when the part names no file
  std::string declared_type;  // lower-case "type/subtype" as declared ("application/octet-stream" when none)
  std::string content;        // the decoded bytes
};

// What was left out of one message, by cause.
struct PartCuts {
  uint32_t too_deep = 0;      // parts below the depth bound
  uint32_t too_many = 0;      // parts beyond the part bound; what follows the line that would
                              // open part 2 * max_parts + 2 is not read, and counts as one
  uint32_t too_big = 0;       // parts dropped at the byte bound; messages inside encoded
                              // parts beyond twice the message's size, left unread
  uint32_t malformed = 0;     // parts left out or taken incomplete: content not decodable
  bool any() const { return too_deep || too_many || too_big || malformed; }
};

struct MessageParts {
  std::vector<MessagePart> parts;
  PartCuts cuts;
};

// Takes the attachments and inline non-text parts out of `message` (the
// bytes of an .eml copy). Safe to call from several threads at once.
MessageParts TakeMessageParts(std::span<const char> message, const PartLimits& limits = {});

}  // namespace pelka
