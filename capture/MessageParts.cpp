#include "capture/MessageParts.h"

#include <gmime/gmime.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

namespace pelka {
namespace {

// Owns one reference to a GObject.
struct GObjectUnref {
  void operator()(void* object) const { g_object_unref(object); }
};
template <typename T>
using GRef = std::unique_ptr<T, GObjectUnref>;

// Owns a block GLib allocated.
struct GFree {
  void operator()(void* block) const { g_free(block); }
};
using GText = std::unique_ptr<char, GFree>;

constexpr char kUnknownType[] = "application/octet-stream";

// GMime keeps its character set tables and type registrations in globals of
// its own, made once per process; nothing of it is ever torn down, as other
// threads may still be parsing when a run ends.
void StartGMime() {
  static std::once_flag started;
  std::call_once(started, [] { g_mime_init(); });
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// "type/subtype" in lower case as the part declares it.
std::string DeclaredType(GMimeObject* object) {
  GMimeContentType* type = g_mime_object_get_content_type(object);
  // Without the header the parser assumes text/plain, which the part never said.
  if (!type || !g_mime_object_get_header(object, "Content-Type")) return kUnknownType;
  const GText text(g_mime_content_type_get_mime_type(type));
  return text ? Lower(text.get()) : kUnknownType;
}

// The file name as text the outputs can carry: the parser decodes encoded
// words and RFC 2231 parameters into UTF-8, but bytes it could not convert
// may be left in a name; those become U+FFFD.
std::string ValidName(const char* name) {
  if (!name || !*name) return {};
  if (g_utf8_validate(name, -1, nullptr)) return name;
  const GText valid(g_utf8_make_valid(name, -1));
  return valid.get();
}

std::string FileName(GMimePart* part) { return ValidName(g_mime_part_get_filename(part)); }

// The same for a part of any kind (a message sent inside the message).
std::string FileName(GMimeObject* object) {
  const char* name = nullptr;
  if (GMimeContentDisposition* disposition = g_mime_object_get_content_disposition(object))
    name = g_mime_content_disposition_get_parameter(disposition, "filename");
  GMimeContentType* type = g_mime_object_get_content_type(object);
  if ((!name || !*name) && type) name = g_mime_content_type_get_parameter(type, "name");
  return ValidName(name);
}

// Whether a leaf part is a file the analyst wants: anything sent as an
// attachment or with a name, and inline parts that are not text (pictures
// in a page, a signature, an embedded document).
bool IsTaken(GMimeObject* object) {
  GMimeContentDisposition* disposition = g_mime_object_get_content_disposition(object);
  if (disposition && g_mime_content_disposition_is_attachment(disposition)) return true;
  const char* name = g_mime_part_get_filename(GMIME_PART(object));
  if (name && *name) return true;
  GMimeContentType* type = g_mime_object_get_content_type(object);
  return !type || (!g_mime_content_type_is_type(type, "text", "*") &&
                   !g_mime_content_type_is_type(type, "multipart", "*"));
}

bool IsBase64Letter(unsigned char c) {
  return static_cast<unsigned char>(c - 'A') < 26 || static_cast<unsigned char>(c - 'a') < 26 ||
         static_cast<unsigned char>(c - '0') < 10 || c == '+' || c == '/';
}

// ' ', and '\t' '\n' '\v' '\f' '\r', which follow each other.
bool IsBase64Space(unsigned char c) { return c == ' ' || static_cast<unsigned char>(c - '\t') < 5; }

// Sixteen bytes at once: this runs over every byte of every encoded
// attachment, and a byte at a time took as long as one of the hashes.
typedef unsigned char Bytes16 __attribute__((vector_size(16)));

// Adds the letters of base64 text that holds no '=' to `letters`; false
// when a byte is neither a letter nor white space.
bool CountBase64Letters(const unsigned char* bytes, size_t length, uint64_t* letters) {
  Bytes16 foreign = {};
  size_t at = 0;
  while (length - at >= sizeof(Bytes16)) {
    // A lane counts to 255 at most before it is added up.
    Bytes16 counted = {};
    const size_t stop = at + std::min<size_t>(length - at, 255 * sizeof(Bytes16));
    for (; stop - at >= sizeof(Bytes16); at += sizeof(Bytes16)) {
      Bytes16 v;
      std::memcpy(&v, bytes + at, sizeof v);
      const Bytes16 letter = (Bytes16)((Bytes16)(v - 'A') < 26) | (Bytes16)((Bytes16)(v - 'a') < 26) |
                             (Bytes16)((Bytes16)(v - '0') < 10) | (Bytes16)(v == '+') | (Bytes16)(v == '/');
      const Bytes16 space = (Bytes16)(v == ' ') | (Bytes16)((Bytes16)(v - '\t') < 5);
      foreign |= ~(letter | space);
      counted -= letter;  // a lane that is a letter is all ones
    }
    for (size_t lane = 0; lane < sizeof(Bytes16); ++lane) *letters += counted[lane];
  }
  bool whole = true;
  for (size_t lane = 0; lane < sizeof(Bytes16); ++lane) whole = whole && foreign[lane] == 0;
  for (; at < length; ++at) {
    const bool letter = IsBase64Letter(bytes[at]);
    *letters += letter;
    whole = whole && (letter || IsBase64Space(bytes[at]));
  }
  return whole;
}

// Whether base64 text stops in the middle of a group of four letters or
// carries bytes that are neither letters nor white space: the decoder skips
// such bytes and drops the cut group, so the file it gives is not whole.
class Base64Check {
 public:
  // Looks at the next bytes of the text; false once it is found broken.
  bool Add(const unsigned char* bytes, size_t length) {
    size_t at = 0;
    if (!padded_) {
      const void* pad = std::memchr(bytes, '=', length);
      at = pad ? static_cast<size_t>(static_cast<const unsigned char*>(pad) - bytes) : length;
      if (!CountBase64Letters(bytes, at, &letters_)) return false;
      padded_ = pad != nullptr;
    }
    // From the first '=' on, only '=' (which counts as a letter) and white
    // space: letters after the end break it.
    for (; at < length; ++at) {
      if (bytes[at] == '=') {
        ++letters_;
      } else if (!IsBase64Space(bytes[at])) {
        return false;
      }
    }
    return true;
  }
  bool CutShort() const { return letters_ % 4 != 0; }

 private:
  uint64_t letters_ = 0;
  bool padded_ = false;
};

// The bytes of a part's stream where they lie in memory already (the
// parser's streams over the message's bytes); empty otherwise.
std::span<const unsigned char> BytesInMemory(GMimeStream* stream) {
  if (!GMIME_IS_STREAM_MEM(stream) || g_mime_stream_reset(stream) != 0) return {};
  const GByteArray* buffer = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream));
  const gint64 start = g_mime_stream_tell(stream), length = g_mime_stream_length(stream);
  if (!buffer || start < 0 || length <= 0 || static_cast<guint64>(start) + static_cast<guint64>(length) > buffer->len)
    return {};
  return {buffer->data + start, static_cast<size_t>(length)};
}

bool Base64Broken(GMimeStream* encoded) {
  Base64Check check;
  // Looked at where it lies, rather than copied out once more.
  if (const std::span<const unsigned char> bytes = BytesInMemory(encoded); !bytes.empty())
    return !check.Add(bytes.data(), bytes.size()) || check.CutShort();
  if (g_mime_stream_reset(encoded) != 0) return true;
  unsigned char buffer[16384];
  for (;;) {
    const ssize_t read = g_mime_stream_read(encoded, reinterpret_cast<char*>(buffer), sizeof buffer);
    if (read < 0) return true;
    if (read == 0) break;
    if (!check.Add(buffer, static_cast<size_t>(read))) return true;
  }
  return check.CutShort();
}

// A message parsed from bytes (the parser keeps a copy of them); null when
// nothing of a message is found.
GRef<GMimeMessage> ParseMessage(std::span<const char> bytes) {
  const GRef<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(bytes.data(), bytes.size()));
  const GRef<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
  return GRef<GMimeMessage>(g_mime_parser_construct_message(parser.get(), nullptr));
}

// A message sent inside a part that the parser left as a plain part: one
// with a transfer encoding, which such a part should not have.
bool IsEnclosedMessage(GMimeObject* object) {
  GMimeContentType* type = g_mime_object_get_content_type(object);
  return type && (g_mime_content_type_is_type(type, "message", "rfc822") ||
                  g_mime_content_type_is_type(type, "message", "global") ||
                  g_mime_content_type_is_type(type, "message", "news"));
}

// How much of the message is parsed. The parser builds an object for every
// part (a few KiB each) before the walk can count them, so the message is
// cut where the line that opens part number 2 * max_parts + 2 begins (a
// boundary line starts with "--"; text lines that do too bring the cut
// earlier only when there are thousands of them).
size_t ParsedLength(std::string_view message, uint32_t max_parts) {
  const uint64_t allowed = 2 * uint64_t{max_parts} + 2;
  uint64_t seen = 0;
  for (size_t at = 0; at < message.size();) {
    if (message.compare(at, 2, "--") == 0 && ++seen > allowed) return at;
    const size_t end = message.find('\n', at);
    if (end == std::string_view::npos) break;
    at = end + 1;
  }
  return message.size();
}

using Pending = std::vector<std::pair<GMimeObject*, uint32_t>>;  // parts borrowed from their message, depth

// The walk over one message's tree, with its bounds.
class PartWalk {
 public:
  // `message_size`: what the messages found inside encoded parts may add up
  // to, twice over, as each of them is parsed again from its own copy.
  // `crlf`: the message's lines end with CR LF.
  PartWalk(const PartLimits& limits, size_t message_size, bool crlf)
      : limits_(limits), reparse_budget_(2 * uint64_t{message_size}), crlf_(crlf) {}

  MessageParts Walk(GMimeObject* root) {
    Pending pending{{root, 0}};
    while (!pending.empty()) {
      const auto [object, depth] = pending.back();
      pending.pop_back();
      if (++looked_at_ > limits_.max_parts) {
        ++result_.cuts.too_many;
        continue;
      }
      if (depth > limits_.max_depth) {
        ++result_.cuts.too_deep;
        continue;
      }
      Visit(object, depth, pending);
    }
    return std::move(result_);
  }

 private:
  // Takes a leaf, or lines up the parts below a container (in reverse, so
  // that they come off the stack in document order).
  void Visit(GMimeObject* object, uint32_t depth, Pending& pending) {
    if (GMIME_IS_MULTIPART(object)) {
      GMimeMultipart* multipart = GMIME_MULTIPART(object);
      for (int i = g_mime_multipart_get_count(multipart) - 1; i >= 0; --i)
        pending.emplace_back(g_mime_multipart_get_part(multipart, i), depth + 1);
      return;
    }
    if (GMIME_IS_MESSAGE_PART(object)) {
      GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
      if (inner) TakeNamedMessage(object, inner);
      GMimeObject* body = inner ? g_mime_message_get_mime_part(inner) : nullptr;
      if (body) pending.emplace_back(body, depth + 1);
      return;
    }
    if (!GMIME_IS_PART(object)) return;
    if (IsEnclosedMessage(object)) {
      OpenEnclosed(GMIME_PART(object), depth, pending);
      return;
    }
    if (IsTaken(object)) Take(GMIME_PART(object));
  }

  // A message inside an encoded part is parsed from its decoded bytes and
  // walked like one the parser found. When its base64 is not base64 (a mail
  // reader then shows the text as it is, which hides the message from
  // scanners that decode it) the bytes are taken as they are.
  void OpenEnclosed(GMimePart* part, uint32_t depth, Pending& pending) {
    GMimeDataWrapper* content = g_mime_part_get_content(part);
    std::string bytes;
    GMimeStream* encoded = content ? g_mime_data_wrapper_get_stream(content) : nullptr;
    const bool as_sent = encoded && g_mime_data_wrapper_get_encoding(content) == GMIME_CONTENT_ENCODING_BASE64 &&
                         Base64Broken(encoded);
    if (!content || !(as_sent ? Copy(encoded, &bytes) : Decode(content, &bytes))) {
      ++result_.cuts.malformed;
      return;
    }
    // A message that names a file is a file too, besides what is in it.
    if (std::string name = FileName(GMIME_OBJECT(part)); !name.empty()) Keep(GMIME_OBJECT(part), std::move(name), bytes);
    if (bytes.size() > reparse_budget_) {
      ++result_.cuts.too_big;
      return;
    }
    reparse_budget_ -= bytes.size();
    // Its parts come off the stack next, so what is left of the part bound
    // is what this message may use.
    const size_t parsed_length = ParsedLength(bytes, limits_.max_parts - std::min(looked_at_, limits_.max_parts));
    if (parsed_length < bytes.size()) {
      ++result_.cuts.too_many;
      bytes.resize(parsed_length);
    }
    GRef<GMimeMessage> inner = ParseMessage(bytes);
    GMimeObject* body = inner ? g_mime_message_get_mime_part(inner.get()) : nullptr;
    if (!body) return;
    pending.emplace_back(body, depth + 1);
    enclosed_.push_back(std::move(inner));
  }

  void Take(GMimePart* part) {
    GMimeDataWrapper* content = g_mime_part_get_content(part);
    if (!content) {
      ++result_.cuts.malformed;
      return;
    }
    const bool broken = g_mime_data_wrapper_get_encoding(content) == GMIME_CONTENT_ENCODING_BASE64 &&
                        Base64Broken(g_mime_data_wrapper_get_stream(content));
    std::string decoded;
    if (!Decode(content, &decoded)) {
      ++result_.cuts.malformed;
      return;
    }
    if (broken && decoded.size() <= limits_.max_bytes - kept_bytes_) ++result_.cuts.malformed;
    Keep(GMIME_OBJECT(part), FileName(part), std::move(decoded));
  }

  // A message inside the message that names a file, as it was sent: the
  // parser keeps its headers and content as they came.
  void TakeNamedMessage(GMimeObject* object, GMimeMessage* inner) {
    std::string name = FileName(object);
    if (name.empty()) return;
    const GRef<GMimeStream> sink(g_mime_stream_mem_new());
    // It writes its line ends as told, whatever they were: as the message's.
    const std::unique_ptr<GMimeFormatOptions, void (*)(GMimeFormatOptions*)> options(g_mime_format_options_new(),
                                                                                     g_mime_format_options_free);
    g_mime_format_options_set_newline_format(options.get(),
                                             crlf_ ? GMIME_NEWLINE_FORMAT_DOS : GMIME_NEWLINE_FORMAT_UNIX);
    if (g_mime_object_write_to_stream(GMIME_OBJECT(inner), options.get(), sink.get()) < 0) {
      ++result_.cuts.malformed;
      return;
    }
    std::string bytes;
    Collect(sink.get(), &bytes);
    Keep(object, std::move(name), std::move(bytes));
  }

  // Lists a file, within the bound on the bytes kept.
  void Keep(GMimeObject* object, std::string name, std::string content) {
    if (content.size() > limits_.max_bytes - kept_bytes_) {
      ++result_.cuts.too_big;
      return;
    }
    kept_bytes_ += content.size();
    MessagePart& taken = result_.parts.emplace_back();
    taken.index = static_cast<uint32_t>(result_.parts.size());
    taken.file_name = std::move(name);
    taken.declared_type = DeclaredType(object);
    taken.content = std::move(content);
  }

  // The part's bytes with the transfer encoding taken off.
  static bool Decode(GMimeDataWrapper* content, std::string* decoded) {
    const GRef<GMimeStream> sink(g_mime_stream_mem_new());
    if (g_mime_data_wrapper_write_to_stream(content, sink.get()) < 0) return false;
    Collect(sink.get(), decoded);
    return true;
  }

  // The part's bytes as they were sent.
  static bool Copy(GMimeStream* encoded, std::string* copied) {
    const GRef<GMimeStream> sink(g_mime_stream_mem_new());
    if (g_mime_stream_reset(encoded) != 0 || g_mime_stream_write_to_stream(encoded, sink.get()) < 0) return false;
    Collect(sink.get(), copied);
    return true;
  }

  static void Collect(GMimeStream* sink, std::string* out) {
    const GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(sink));
    out->assign(reinterpret_cast<const char*>(bytes->data), bytes->len);
  }

  const PartLimits& limits_;
  MessageParts result_;
  uint32_t looked_at_ = 0;
  uint64_t kept_bytes_ = 0;
  uint64_t reparse_budget_;
  bool crlf_;
  std::vector<GRef<GMimeMessage>> enclosed_;  // the messages found in encoded parts, which `pending` points into
};

}  // namespace

MessageParts TakeMessageParts(std::span<const char> message, const PartLimits& limits) {
  StartGMime();
  const size_t parsed_length = ParsedLength(std::string_view(message.data(), message.size()), limits.max_parts);
  const GRef<GMimeMessage> parsed = ParseMessage(message.first(parsed_length));
  GMimeObject* root = parsed ? g_mime_message_get_mime_part(parsed.get()) : nullptr;
  if (!root) return {};
  const std::string_view text(message.data(), message.size());
  const size_t line_end = text.find('\n');
  const bool crlf = line_end != std::string_view::npos && line_end > 0 && text[line_end - 1] == '\r';
  MessageParts result = PartWalk(limits, message.size(), crlf).Walk(root);
  if (parsed_length < message.size()) ++result.cuts.too_many;  // the parts of the rest, at least one
  return result;
}

}  // namespace pelka
